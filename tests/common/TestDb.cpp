#include "TestDb.h"

#include "localdb/KepKeys.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <sys/stat.h>

namespace TestDb {

QString userDir()
{
    return KepPlugin::Keys::USER_DB_DIR;
}

QString systemDir()
{
    return KepPlugin::Keys::SYSTEM_DB_DIR;
}

QString dir(bool peruser)
{
    return peruser ? userDir() : systemDir();
}

bool isolated()
{
    return !systemDir().startsWith(QLatin1String("/opt/")) && !userDir().isEmpty()
        && qEnvironmentVariableIsSet("TAV_SYSTEM_DB_DIR");
}

void reset()
{
    Q_ASSERT_X(isolated(), "TestDb::reset", "run the tests through CTest (run-isolated.sh)");
    for (const QString& path : {userDir(), systemDir()}) {
        QDir(path).removeRecursively();
        QDir().mkpath(path);
    }
}

void writeRecord(bool peruser, const QString& guid, const QMap<QString, QString>& values)
{
    QDir().mkpath(dir(peruser));
    QSettings ini(dir(peruser) + QLatin1Char('/') + guid + QStringLiteral(".ini"), QSettings::IniFormat);
    for (auto it = values.cbegin(); it != values.cend(); ++it)
        ini.setValue(it.key(), it.value());
}

QMap<QString, QString> readRecord(bool peruser, const QString& guid)
{
    QSettings ini(dir(peruser) + QLatin1Char('/') + guid + QStringLiteral(".ini"), QSettings::IniFormat);
    QMap<QString, QString> values;
    const QStringList keys = ini.childKeys();
    for (const QString& key : keys)
        values.insert(key, ini.value(key).toString());
    return values;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QStringList entries(const QString& dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
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
            const QByteArray hash = QCryptographicHash::hash(readFile(path), QCryptographicHash::Sha1).toHex();
            files.insert(path, QStringLiteral("%1 %2.%3 %4").arg(info.st_ino).arg(info.st_mtim.tv_sec)
                                   .arg(info.st_mtim.tv_nsec).arg(QString::fromLatin1(hash)));
        }
    }
    return files;
}

void writeLegacy(const QString& dir, const QString& name, const QByteArray& properties, const QByteArray& profile)
{
    const QString path = dir + QLatin1Char('/') + name + QStringLiteral(".properties");
    writeFile(path, properties);
    if (!profile.isNull())
        writeFile(QString(path).replace(QStringLiteral(".properties"), QStringLiteral(".pf")), profile);
}

QByteArray profileXml(const QMap<QString, QString>& data)
{
    QByteArray xml = "<profiles><profile>";
    for (auto it = data.cbegin(); it != data.cend(); ++it)
        xml += "<data id=\"" + it.key().toUtf8() + "\" value=\"" + it.value().toUtf8() + "\"/>";
    return xml + "</profile></profiles>";
}

} // namespace TestDb
