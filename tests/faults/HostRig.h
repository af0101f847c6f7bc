#pragma once

#include "TestDb.h"

#include <QProcess>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>

// Runs the reference host in a private scratch tree (its own HOME, system database and cache)
// that an unprivileged user may be given, and reads back what the run left there.
class HostRig
{
public:
    struct Result { int exitCode = -2; QByteArray out; QString err; }; // -2: killed or crashed

    QString path(const QString& relative) const { return root_.path() + relative; }

    void writeRecord(const QString& dir, const QString& mediaId, const QString& updateId = "1200") const
    {
        QSettings ini(path(dir + "/{" + mediaId + "}.ini"), QSettings::IniFormat);
        ini.setValue("MediaID", mediaId);
        ini.setValue("UpdateID", updateId);
    }

    // Both databases, down to each file's inode and time: equal when the run wrote nothing there.
    QMap<QString, QString> databaseFiles() const { return TestDb::snapshot({path("/home/vasko/tav/db"), path("/sysdb")}); }

    // tav-host against url with the summary on; killed once killAt has shown twice on stderr.
    Result run(const QString& url, const QStringList& extra = {}, const QStringList& prefix = {},
               const QByteArray& killAt = {}) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", path("/home"));
        env.insert("XDG_CACHE_HOME", path("/home/.cache"));
        env.insert("TAV_SYSTEM_DB_DIR", path("/sysdb"));
        QProcess host;
        host.setProcessEnvironment(env);
        host.setWorkingDirectory(root_.path()); // auto-uninstall clean-up acts here
        host.setReadChannel(QProcess::StandardError);
        const QStringList command = prefix + QStringList{TAV_HOST_PATH, "--set", "KepWebServiceUrl=" + url, "--summary"};
        host.start(command.first(), command.mid(1) + extra);
        QByteArray err;
        while (!killAt.isEmpty() && err.count(killAt) < 2 && host.waitForReadyRead(60000))
            err += host.readAllStandardError();
        if (!killAt.isEmpty() || !host.waitForFinished(150000))
            host.kill();
        host.waitForFinished();
        return Result{host.exitStatus() == QProcess::NormalExit ? host.exitCode() : -2, host.readAllStandardOutput(),
                      QString::fromUtf8(err + host.readAllStandardError())};
    }

    // The query's first value in the reply cache, or why there is none.
    QString cache(const QString& sql) const
    {
        const QString file = path("/home/.cache/vasko/tav/network-cache.sqlite");
        QString value = "no cache file";
        if (QFile::exists(file)) {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", file);
            db.setDatabaseName(file);
            db.setConnectOptions("QSQLITE_OPEN_READONLY");
            QSqlQuery query(db);
            if (!db.open() || !query.exec(sql))
                value = db.lastError().text() + query.lastError().text();
            else
                value = query.next() ? query.value(0).toString() : QString();
        }
        QSqlDatabase::removeDatabase(file);
        return value;
    }

    // Records as before, the cache sound, and a good run works again.
    void checkRecovery(const QString& url, const QMap<QString, QString>& records, int updates) const
    {
        QCOMPARE(databaseFiles(), records);
        QVERIFY(QStringList({"ok", "no cache file"}).contains(cache("PRAGMA integrity_check")));
        const Result next = run(url);
        QCOMPARE(next.exitCode, 0);
        QCOMPARE(updatesIn(next.out), updates);
        QVERIFY2(next.err.contains(", cache 0, none 0, cancelled 0)"), qPrintable(next.err));
        QCOMPARE(cache("PRAGMA integrity_check"), QString("ok"));
    }

    // -1 for an answer that is not whole.
    static int updatesIn(const QByteArray& xml) { return xml.endsWith("</root>\n") ? xml.count("<update>") : -1; }

private:
    QTemporaryDir root_;
};
