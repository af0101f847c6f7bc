#include "TestDb.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QSettings>

#include <sys/stat.h>

void TestDb::reset()
{
    Q_ASSERT_X(isolated(), "TestDb::reset", "run the tests through CTest (run-isolated.sh)");
    for (const QString& path : {userDir(), systemDir()}) {
        QFile::remove(path); // a suite may have left a regular file in its place
        QDir(path).removeRecursively();
        QDir().mkpath(path);
    }
}

void TestDb::writeRecord(bool peruser, const QString& guid, const QMap<QString, QString>& values)
{
    QSettings ini(dir(peruser) + QLatin1Char('/') + guid + QStringLiteral(".ini"), QSettings::IniFormat);
    for (auto it = values.cbegin(); it != values.cend(); ++it)
        ini.setValue(it.key(), it.value());
}

QMap<QString, QString> TestDb::readRecord(bool peruser, const QString& guid)
{
    const QSettings ini(dir(peruser) + QLatin1Char('/') + guid + QStringLiteral(".ini"), QSettings::IniFormat);
    QMap<QString, QString> values;
    for (const QString& key : ini.childKeys())
        values.insert(key, ini.value(key).toString());
    return values;
}

QByteArray TestDb::readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool TestDb::writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).absolutePath()) && file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QMap<QString, QString> TestDb::snapshot(const QStringList& dirs)
{
    QMap<QString, QString> files;
    for (const QString& dir : dirs) {
        for (QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories); it.hasNext();) {
            const QString path = it.next();
            struct stat info = {};
            ::stat(QFile::encodeName(path).constData(), &info);
            // A rename over the file changes the inode even within the clock's resolution.
            files.insert(path, QStringLiteral("%1 %2.%3 ").arg(info.st_ino).arg(info.st_mtim.tv_sec).arg(info.st_mtim.tv_nsec)
                                   + QCryptographicHash::hash(readFile(path), QCryptographicHash::Sha1).toHex());
        }
    }
    return files;
}
