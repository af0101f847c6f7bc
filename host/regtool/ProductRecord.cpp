#include "ProductRecord.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QString>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

// Both locations are fixed when the library is loaded, like the host's own copy.
const std::string userDbDir_ = [] {
    const char* home = std::getenv("HOME");
    return (home && *home) ? std::string(home) + "/vasko/tav/db" : std::string();
}();

const std::string systemDbDir_ = [] {
    const char* dir = std::getenv("TAV_SYSTEM_DB_DIR");
    return (dir && *dir) ? std::string(dir) : std::string("/opt/vasko/tav/db");
}();

QString local(const std::string& text)
{
    return QString::fromLocal8Bit(text.data(), int(text.size()));
}

std::string narrow(const QString& text)
{
    return text.toLocal8Bit().toStdString();
}

bool validGuid(const std::string& guid)
{
    return !guid.empty() && guid.find('/') == std::string::npos && guid != "." && guid != "..";
}

} // namespace

ProductRecord::ProductRecord(std::string guid, bool peruser)
    : guid_(std::move(guid))
{
    const std::string& dir = peruser ? userDbDir_ : systemDbDir_;
    if (!dir.empty() && validGuid(guid_))
        path_ = dir + "/" + guid_ + ".ini";
}

ProductRecord::~ProductRecord() = default;

std::string ProductRecord::userDbDir()
{
    return userDbDir_;
}

std::string ProductRecord::systemDbDir()
{
    return systemDbDir_;
}

bool ProductRecord::isExist()
{
    return !path_.empty() && QFileInfo(local(path_)).isFile();
}

bool ProductRecord::load()
{
    values_.clear();
    if (!isExist())
        return false;
    const QString path = local(path_);
    QFile probe(path);
    if (!probe.open(QIODevice::ReadOnly))
        return false;
    probe.close();
    QSettings ini(path, QSettings::IniFormat);
    if (ini.status() != QSettings::NoError)
        return false;
    const QStringList keys = ini.childKeys();
    for (const QString& key : keys)
        values_[narrow(key)] = narrow(ini.value(key).toString());
    return true;
}

std::string ProductRecord::getValue(std::string key)
{
    const auto it = values_.find(key);
    return it == values_.end() ? std::string() : it->second;
}

void ProductRecord::setValue(std::string key, std::string value)
{
    values_[std::move(key)] = std::move(value);
}

bool ProductRecord::save()
{
    if (path_.empty())
        return false;
    const QString path = local(path_);
    const QFileInfo target(path);
    // Written beside the record and renamed over it, so a crash never leaves half a record.
    QTemporaryFile temp(target.absolutePath() + QStringLiteral("/.") + target.fileName() + QStringLiteral(".XXXXXX"));
    if (!temp.open())
        return false;
    const QString tempPath = temp.fileName();
    temp.close();
    {
        QSettings ini(tempPath, QSettings::IniFormat);
        for (const auto& entry : values_)
            ini.setValue(local(entry.first), local(entry.second));
        ini.sync();
        if (ini.status() != QSettings::NoError)
            return false;
    }
    if (std::rename(QFile::encodeName(tempPath).constData(), QFile::encodeName(path).constData()) != 0)
        return false;
    temp.setAutoRemove(false);
    return true;
}

namespace {

int writeRecord(ProductRecord& record, bool create)
{
    if (record.filePath().empty())
        return EINVAL;
    const QString dir = QFileInfo(local(record.filePath())).absolutePath();
    if (create && !QDir().mkpath(dir))
        return EACCES;
    return record.save() ? 0 : EIO;
}

std::string text(const char* value)
{
    return value ? std::string(value) : std::string();
}

} // namespace

int registerProduct(const char* guid, const char* productName, const char* version, const char* mediaId,
                    const char* productId, const char* updateId, int peruser)
{
    ProductRecord record(text(guid), peruser != 0);
    if (record.isExist())
        record.load();
    record.setValue("ProductName", text(productName));
    record.setValue("ProductVersion", text(version));
    record.setValue("MediaID", text(mediaId));
    record.setValue("ProductID", text(productId));
    record.setValue("UpdateID", text(updateId));
    return writeRecord(record, true);
}

int setValue(const char* guid, const char* key, const char* value, int peruser)
{
    if (!key || !*key)
        return EINVAL;
    ProductRecord record(text(guid), peruser != 0);
    if (record.isExist() && !record.load())
        return EIO;
    record.setValue(key, text(value));
    return writeRecord(record, false);
}
