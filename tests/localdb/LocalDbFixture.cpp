#include "LocalDbFixture.h"

#include "TestDb.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"
#include "tavcore/Logger.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QTextStream>

#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace LocalDbFixture {

DbFile record(bool peruser, const QString& name, const QVariantMap& values)
{
    return DbFile{peruser, name, values, QByteArray()};
}

DbFile rawFile(bool peruser, const QString& name, const QByteArray& raw)
{
    return DbFile{peruser, name, QVariantMap(), raw};
}

QString pathOf(const DbFile& file)
{
    return TestDb::dir(file.peruser) + QLatin1Char('/') + file.name;
}

void writeBytes(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile out(path);
    if (out.open(QIODevice::WriteOnly | QIODevice::Truncate))
        out.write(bytes);
}

QByteArray readBytes(const QString& path)
{
    QFile in(path);
    return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
}

void write(const DbFile& file)
{
    if (!file.raw.isNull()) {
        writeBytes(pathOf(file), file.raw);
        return;
    }
    QDir().mkpath(TestDb::dir(file.peruser));
    QSettings ini(pathOf(file), QSettings::IniFormat);
    for (auto it = file.values.cbegin(); it != file.values.cend(); ++it)
        ini.setValue(it.key(), it.value());
}

void writeLegacy(const QString& dir, const QString& name, const QByteArray& properties, const QByteArray& profile)
{
    const QString path = dir + QLatin1Char('/') + name + QStringLiteral(".properties");
    writeBytes(path, properties);
    if (!profile.isNull())
        writeBytes(QString(path).replace(QStringLiteral(".properties"), QStringLiteral(".pf")), profile);
}

QByteArray profileXml(const QMap<QString, QString>& data)
{
    QByteArray xml = "<?xml version=\"1.0\"?>\n<profiles>\n <profile>\n";
    for (auto it = data.cbegin(); it != data.cend(); ++it)
        xml += "  <data id=\"" + it.key().toUtf8() + "\" value=\"" + it.value().toUtf8() + "\"/>\n";
    return xml + " </profile>\n</profiles>\n";
}

QMap<QString, QString> strings(const QVariantMap& values)
{
    QMap<QString, QString> result;
    for (auto it = values.cbegin(); it != values.cend(); ++it)
        result.insert(it.key(), it.value().toString());
    return result;
}

QStringList guids(const QList<KepPlugin::Product*>& products)
{
    QStringList result;
    for (const KepPlugin::Product* product : products)
        result << product->guid();
    return result;
}

QStringList namesByGuid(const QList<KepPlugin::Product*>& products)
{
    QStringList result;
    for (const KepPlugin::Product* product : products)
        result << product->guid() + QLatin1Char('=') + product->getDataByKey(QStringLiteral("ProductName"));
    result.sort();
    return result;
}

QMap<QString, QString> snapshot(const QStringList& dirs)
{
    QMap<QString, QString> files;
    for (const QString& dir : dirs) {
        QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            struct stat info = {};
            ::stat(QFile::encodeName(path).constData(), &info);
            // A rename over the file changes the inode even within the clock's resolution.
            files.insert(path, QStringLiteral("%1 %2.%3 %4")
                                   .arg(info.st_ino)
                                   .arg(info.st_mtim.tv_sec)
                                   .arg(info.st_mtim.tv_nsec)
                                   .arg(QString::fromLatin1(
                                       QCryptographicHash::hash(readBytes(path), QCryptographicHash::Sha1).toHex())));
        }
    }
    return files;
}

bool runningAsRoot()
{
    char login[9] = {};
    cuserid(login);
    return qstrcmp(login, "root") == 0;
}

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

ChildRun runChild(const QProcessEnvironment& env, const QString& workDir, int uid)
{
    QString program = QCoreApplication::applicationFilePath();
    QStringList arguments{QStringLiteral("--child")};
    if (uid >= 0) {
        arguments = QStringList{QStringLiteral("--reuid=%1").arg(uid), QStringLiteral("--regid=%1").arg(uid),
                                QStringLiteral("--clear-groups"), program}
            + arguments;
        program = QStringLiteral("setpriv");
    }
    QProcess child;
    child.setProcessEnvironment(env);
    child.setWorkingDirectory(workDir);
    child.start(program, arguments);
    ChildRun run;
    run.started = child.waitForStarted(10000) && child.waitForFinished(60000);
    run.exitCode = child.exitStatus() == QProcess::NormalExit ? child.exitCode() : -1;
    run.out = QString::fromLocal8Bit(child.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    run.errLines = QString::fromLocal8Bit(child.readAllStandardError()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return run;
}

QString UnprivilegedLayout::skipReason() const
{
    if (::geteuid() != 0)
        return QStringLiteral("switching to an unprivileged user needs root");
    if (QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
        return QStringLiteral("setpriv (util-linux) is not installed");
    return QString();
}

bool UnprivilegedLayout::create()
{
    if (!base.isValid())
        return false;
    QFile::setPermissions(base.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                           | QFileDevice::ReadOther | QFileDevice::ExeOther);
    home = base.filePath(QStringLiteral("home"));
    userDb = home + QStringLiteral("/vasko/tav/db");
    systemDb = base.filePath(QStringLiteral("sys"));
    return QDir().mkpath(userDb) && QDir().mkpath(systemDb) && giveToUser(home)
        && giveToUser(home + QStringLiteral("/vasko")) && giveToUser(home + QStringLiteral("/vasko/tav"))
        && giveToUser(userDb);
}

bool UnprivilegedLayout::giveToUser(const QString& path) const
{
    return ::chown(QFile::encodeName(path).constData(), uid, uid) == 0;
}

QProcessEnvironment UnprivilegedLayout::environment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), home);
    env.insert(QStringLiteral("TAV_SYSTEM_DB_DIR"), systemDb);
    return env;
}

int childMain(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    TavCoreShared::TavLogger::Logger::instance()->setLogLevel(0);
    KepPlugin::LocalDataBaseManager manager;
    manager.findRegisteredProducts();
    QTextStream out(stdout);
    const QStringList found = guids(manager.productList());
    for (const QString& guid : found)
        out << guid << '\n';
    out.flush();
    const QStringList change = qEnvironmentVariable("KEP_CHILD_SET_VALUE").split(QLatin1Char('|'));
    if (change.size() == 3) {
        KepPlugin::Product* product = manager.getProductByGuid(change.at(0));
        if (!product)
            return 3;
        product->setDataByKey(change.at(1), change.at(2));
    }
    return 0;
}

} // namespace LocalDbFixture
