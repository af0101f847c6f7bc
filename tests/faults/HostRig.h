#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// One reference host run in a private, world-readable scratch tree (its own HOME, system
// database and cache), so a case can also run it as an unprivileged user or under limits,
// and then check what the run left behind.
class QProcess;

class HostRig
{
public:
    struct Result
    {
        int exitCode = -1; // -2 when killed by a signal, -1 when it had to be stopped
        QByteArray out;
        QByteArray err;
        qint64 elapsedMs = 0;
        QStringList errLines() const;
        QStringList summary() const; // the "summary: " lines
    };

    HostRig();
    Q_DISABLE_COPY(HostRig)

    bool isValid() const { return root_.isValid(); }
    QString userDb() const;
    QString systemDb() const;
    QString cacheDir() const;
    QString cacheFile() const;

    // GUID.ini with top-level keys, as the registration tool writes it.
    void writeRecord(const QString& dir, const QString& guid, const QMap<QString, QString>& values);
    // The usual two products: one in the user database, one in the system database.
    void writeStandardRecords(bool both = true);
    // Every file of both databases, by path: what a run must leave as it was.
    QMap<QString, QByteArray> databaseFiles() const;

    // The arguments that put tav-host in front of the service at url, with the summary on.
    static QStringList hostArguments(const QString& url, const QStringList& extra = {});
    // Starts prefix + tav-host + arguments with the tree's environment.
    void start(QProcess& host, const QStringList& arguments, const QStringList& prefix = {}) const;
    // Runs it to the end.
    Result run(const QStringList& arguments, const QStringList& prefix = {}, int timeoutMs = 150000) const;
    // Lets the unprivileged user read the whole tree (and nothing more).
    void openToEveryone() const;

    // "ok", or what SQLite's integrity check or the open said.
    QString cacheIntegrity() const;
    QString cachedValue(const QString& key) const;

    // Shared checks; they fail the current test (see QTest::currentTestFailed()).
    // A good run against url, so that the cache holds an answer for every product.
    void prime(const QString& url);
    // After a faulty run: records as before, the cache sound, and a good run works again.
    void checkRecovery(const QString& url, const QMap<QString, QByteArray>& recordsBefore, int updates = 4);

    static int updatesIn(const QByteArray& xml);
    static QString studioKey() { return QStringLiteral("gtpi__1200_MEDIA-STUDIO-2014"); }
    static bool commandWorks(const QStringList& command);
    static const QStringList unprivileged; // the setpriv prefix of uid/gid 65534

private:
    QTemporaryDir root_;
};
