#include "TestDb.h"

#include "localdb/KepKeys.h"

#include <QDir>
#include <QSettings>

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

} // namespace TestDb
