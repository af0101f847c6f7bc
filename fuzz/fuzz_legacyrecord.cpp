// The previous generation's product files: "properties%%profile" becomes a GUID.properties
// and a GUID.pf file, which the local database converts into a current record.
#include "FuzzSupport.h"

#include "localdb/LocalDataBaseManager.h"

#include <QDir>
#include <QFile>
#include <QSettings>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    FuzzSupport::setUp(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QList<QByteArray> parts = FuzzSupport::split(FuzzSupport::bytes(data, size), 2);
    const QString properties = FuzzSupport::freshPath(QStringLiteral(".properties"));
    QString profile = properties;
    profile.replace(QLatin1String(".properties"), QLatin1String(".pf"));
    if (!FuzzSupport::writeFile(properties, parts.value(0))
        || (parts.size() > 1 && !FuzzSupport::writeFile(profile, parts.value(1))))
        FuzzSupport::fail("cannot write the input files below", QDir::homePath());

    // One object for all inputs, as in a run: loading the registration tool anew for every
    // input would cost more than the conversion itself.
    static KepPlugin::LocalDataBaseManager db;
    db.getXmlFromFile(profile);
    db.convertFncProductEntry(properties, true);

    // The record it may have made is named by the guid inside the input; remove it so the next
    // input starts from an empty database.
    const QString guid = QSettings(properties, QSettings::IniFormat).value(QStringLiteral("ProductCode")).toString();
    const QString dbDir = QDir::homePath() + QStringLiteral("/vasko/tav/db");
    if (!guid.isEmpty() && !guid.contains(QLatin1Char('/')))
        QFile::remove(dbDir + QLatin1Char('/') + guid + QStringLiteral(".ini"));
    QFile::remove(properties);
    QFile::remove(profile);
    return 0;
}
