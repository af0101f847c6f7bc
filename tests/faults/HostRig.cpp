#include "HostRig.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>
#include <QXmlStreamReader>
#include <QtTest>

const QStringList HostRig::unprivileged{QStringLiteral("setpriv"), QStringLiteral("--reuid=65534"),
                                        QStringLiteral("--regid=65534"), QStringLiteral("--clear-groups")};

QStringList HostRig::Result::errLines() const
{
    return QString::fromUtf8(err).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QStringList HostRig::Result::summary() const
{
    return errLines().filter(QRegularExpression(QStringLiteral("^summary: ")));
}

HostRig::HostRig()
{
    QDir().mkpath(userDb());
    QDir().mkpath(systemDb());
}

QString HostRig::userDb() const
{
    return root_.path() + QStringLiteral("/home/vasko/tav/db");
}

QString HostRig::systemDb() const
{
    return root_.path() + QStringLiteral("/sysdb");
}

QString HostRig::cacheDir() const
{
    return root_.path() + QStringLiteral("/home/.cache/vasko/tav");
}

QString HostRig::cacheFile() const
{
    return cacheDir() + QStringLiteral("/network-cache.sqlite");
}

void HostRig::writeRecord(const QString& dir, const QString& guid, const QMap<QString, QString>& values)
{
    QSettings ini(dir + QLatin1Char('/') + guid + QStringLiteral(".ini"), QSettings::IniFormat);
    for (auto it = values.cbegin(); it != values.cend(); ++it)
        ini.setValue(it.key(), it.value());
}

void HostRig::writeStandardRecords(bool both)
{
    writeRecord(userDb(), QStringLiteral("{STUDIO}"),
                {{"ProductName", "Studio"}, {"MediaID", "MEDIA-STUDIO-2014"}, {"UpdateID", "1200"}});
    if (both)
        writeRecord(systemDb(), QStringLiteral("{TOOLS}"),
                    {{"ProductName", "Tools"}, {"MediaID", "MEDIA-TOOLS-2013"}, {"UpdateID", "310"}});
}

QMap<QString, QByteArray> HostRig::databaseFiles() const
{
    QMap<QString, QByteArray> files;
    for (const QString& dir : {userDb(), systemDb()}) {
        QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            QFile file(it.next());
            files.insert(file.fileName(), file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(unreadable)"));
        }
    }
    return files;
}

QStringList HostRig::hostArguments(const QString& url, const QStringList& extra)
{
    return QStringList{QStringLiteral("--set"), QStringLiteral("KepWebServiceUrl=") + url, QStringLiteral("--summary")}
    + extra;
}

void HostRig::start(QProcess& host, const QStringList& arguments, const QStringList& prefix) const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), root_.path() + QStringLiteral("/home"));
    env.insert(QStringLiteral("TAV_SYSTEM_DB_DIR"), systemDb());
    env.insert(QStringLiteral("XDG_CACHE_HOME"), root_.path() + QStringLiteral("/home/.cache"));
    host.setProcessEnvironment(env);
    // Auto-uninstall clean-up acts in the working directory: keep it inside the tree.
    host.setWorkingDirectory(root_.path());
    const QStringList command = prefix + QStringList{QStringLiteral(TAV_HOST_PATH)} + arguments;
    host.start(command.first(), command.mid(1));
}

HostRig::Result HostRig::run(const QStringList& arguments, const QStringList& prefix, int timeoutMs) const
{
    QProcess host;
    QElapsedTimer clock;
    clock.start();
    start(host, arguments, prefix);
    Result result;
    if (!host.waitForFinished(timeoutMs)) {
        host.kill();
        host.waitForFinished();
    } else {
        result.exitCode = host.exitStatus() == QProcess::NormalExit ? host.exitCode() : -2;
    }
    result.elapsedMs = clock.elapsed();
    result.out = host.readAllStandardOutput();
    result.err = host.readAllStandardError();
    return result;
}

void HostRig::openToEveryone() const
{
    const auto dirMode = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup
        | QFile::ReadOther | QFile::ExeOther;
    QFile::setPermissions(root_.path(), dirMode);
    QDirIterator it(root_.path(), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        QFile::setPermissions(path, it.fileInfo().isDir()
                                        ? dirMode
                                        : QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther);
    }
}

QString HostRig::cacheIntegrity() const
{
    const QString connection = QUuid::createUuid().toString();
    QString verdict;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection);
        db.setDatabaseName(cacheFile());
        db.setConnectOptions(QStringLiteral("QSQLITE_OPEN_READONLY"));
        if (!QFile::exists(cacheFile())) {
            verdict = QStringLiteral("no cache file");
        } else if (!db.open()) {
            verdict = db.lastError().text();
        } else {
            QSqlQuery query(db);
            verdict = query.exec(QStringLiteral("PRAGMA integrity_check")) && query.next() ? query.value(0).toString()
                                                                                         : query.lastError().text();
        }
        db.close();
    }
    QSqlDatabase::removeDatabase(connection);
    return verdict;
}

QString HostRig::cachedValue(const QString& key) const
{
    const QString connection = QUuid::createUuid().toString();
    QString value;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection);
        db.setDatabaseName(cacheFile());
        db.setConnectOptions(QStringLiteral("QSQLITE_OPEN_READONLY"));
        if (QFile::exists(cacheFile()) && db.open()) {
            QSqlQuery query(db);
            query.prepare(QStringLiteral("SELECT value FROM replies WHERE key = ?"));
            query.addBindValue(key);
            if (query.exec() && query.next())
                value = query.value(0).toString();
        }
        db.close();
    }
    QSqlDatabase::removeDatabase(connection);
    return value;
}

int HostRig::updatesIn(const QByteArray& xml)
{
    QXmlStreamReader reader(xml);
    int updates = 0;
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::StartElement && reader.name() == QLatin1String("update"))
            ++updates;
    }
    return reader.hasError() ? -1 : updates;
}

bool HostRig::commandWorks(const QStringList& command)
{
    QProcess process;
    process.start(command.first(), command.mid(1));
    return process.waitForFinished(10000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

void HostRig::prime(const QString& url)
{
    const Result result = run(hostArguments(url));
    QCOMPARE(result.exitCode, 0);
    QVERIFY2(!cachedValue(studioKey()).isEmpty(), result.err.constData());
}

void HostRig::checkRecovery(const QString& url, const QMap<QString, QByteArray>& recordsBefore, int updates)
{
    QCOMPARE(databaseFiles(), recordsBefore);
    if (QFile::exists(cacheFile()))
        QCOMPARE(cacheIntegrity(), QStringLiteral("ok"));
    const Result next = run(hostArguments(url));
    QCOMPARE(next.exitCode, 0);
    QCOMPARE(updatesIn(next.out), updates);
    QVERIFY2(next.summary().last().contains(QLatin1String(", cache 0, none 0, cancelled 0)")), next.err.constData());
    QCOMPARE(cacheIntegrity(), QStringLiteral("ok"));
}
