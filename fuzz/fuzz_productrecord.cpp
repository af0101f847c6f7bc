// The registration tool's record reader; what it loads must survive a save and a reload.
#include "FuzzSupport.h"

#include "regtool/PlainRecordReader.h"
#include "regtool/ProductRecord.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QStringList>

namespace {

const std::string guid = "{F0220000-0000-4000-8000-000000000003}";

QString recordPath()
{
    return QString::fromStdString(ProductRecord::userDbDir() + "/" + guid + ".ini");
}

std::map<std::string, std::string> valuesOf(ProductRecord& record, const std::map<std::string, std::string>& keys)
{
    std::map<std::string, std::string> values;
    for (const auto& entry : keys)
        values[entry.first] = record.getValue(entry.first);
    return values;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    FuzzSupport::setUp(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!FuzzSupport::writeFile(recordPath(), FuzzSupport::bytes(data, size)))
        FuzzSupport::fail("cannot write the record", recordPath());
    ProductRecord first(guid, true);
    if (!first.load())
        return 0;
    // Every top-level key, read the way the registration tool reads them.
    const QString copy = FuzzSupport::freshPath(QStringLiteral(".ini"));
    FuzzSupport::writeFile(copy, FuzzSupport::bytes(data, size));
    std::map<std::string, std::string> keys;
    std::map<std::string, std::string> viaQSettings;
    {
        QSettings ini(copy, QSettings::IniFormat);
        ini.setIniCodec("UTF-8");
        const QStringList names = ini.childKeys();
        for (const QString& name : names) {
            keys[name.toLocal8Bit().toStdString()];
            viaQSettings[name.toLocal8Bit().toStdString()] = ini.value(name).toString().toLocal8Bit().toStdString();
        }
    }
    QFile::remove(copy);
    // The direct reader, where it takes a record, must agree with QSettings on every value.
    std::map<std::string, std::string> direct;
    if (PlainRecordReader::read(FuzzSupport::bytes(data, size), direct) && direct != viaQSettings)
        FuzzSupport::fail("the direct reader and QSettings disagree", recordPath());
    if (!first.save())
        return 0;
    ProductRecord second(guid, true);
    if (!second.load())
        FuzzSupport::fail("a record it saved does not load", recordPath());
    const auto before = valuesOf(first, keys);
    const auto after = valuesOf(second, keys);
    if (before != after)
        FuzzSupport::fail("values changed by a save and reload", recordPath());
    QFile::remove(recordPath());
    return 0;
}
