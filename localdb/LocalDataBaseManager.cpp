#include "LocalDataBaseManager.h"

#include "DatabaseFile.h"
#include "localdb/KepKeys.h"
#include "localdb/KepLog.h"
#include "model/Product.h"
#include "model/XmlNesting.h"
#include "regtool/ProductRecord.h"

#include <QDir>
#include <QDomElement>
#include <QFile>
#include <QMap>
#include <QSettings>
#include <QTextCodec>

#include <cstdio>

namespace KepPlugin {

namespace {

using RegisterProductFn = int (*)(const char* guid, const char* productName, const char* version,
                                  const char* mediaId, const char* productId, const char* updateId, int peruser);
using SetValueFn = int (*)(const char* guid, const char* key, const char* value, int peruser);

const QString recordSuffix = QLatin1Char('.') + Keys::RECORD_SUFFIX;

// Anyone but root keeps products in the user's own database.
bool perUserProcess()
{
    char login[9] = {}; // cuserid writes at most 9 bytes
    cuserid(login);
    return qstrcmp(login, "root") != 0;
}

// Without HOME the user database path is empty; QDir would read the working directory instead.
QStringList plainFiles(const QString& path)
{
    return path.isEmpty() ? QStringList() : QDir(path).entryList(QDir::Files, QDir::NoSort);
}

std::string narrow(const QString& text)
{
    return text.toLocal8Bit().toStdString();
}

QString wide(const std::string& text)
{
    return QString::fromLocal8Bit(text.data(), int(text.size()));
}

// The profile's "data" items, a later id replacing an earlier one. The profiles element is
// normally the document element; one nested a level deeper is accepted too.
void readProfile(const QDomDocument& profile, QMap<QString, QString>& values)
{
    const QString profilesTag = QStringLiteral("profiles");
    QDomElement profiles = profile.documentElement();
    if (profiles.tagName() != profilesTag)
        profiles = profiles.firstChildElement(profilesTag);
    const QDomElement current = profiles.firstChildElement(QStringLiteral("profile"));
    const QString dataTag = QStringLiteral("data");
    for (QDomElement data = current.firstChildElement(dataTag); !data.isNull(); data = data.nextSiblingElement(dataTag))
        values.insert(data.attribute(QStringLiteral("id")), data.attribute(QStringLiteral("value")));
}

} // namespace

LocalDataBaseManager::LocalDataBaseManager(QObject* parent)
    : QObject(parent)
    , regTool_(Keys::REG_TOOL_LIBRARY, Keys::REG_TOOL_MAJOR_VERSION)
{
}

LocalDataBaseManager::~LocalDataBaseManager()
{
    clearData();
}

void LocalDataBaseManager::findRegisteredProducts()
{
    convertRegDb(Keys::USER_DB_DIR);
    convertRegDb(Keys::SYSTEM_DB_DIR);
    readProductsDb(true);
    readProductsDb(false);
}

void LocalDataBaseManager::readProductsDb(bool peruser)
{
    const QString path = peruser ? Keys::USER_DB_DIR : Keys::SYSTEM_DB_DIR;
    KEP_LOG(0) << "LocalDataBaseManager::readProductsDb: peruser=" << (peruser ? "true" : "false") << "; db path="
               << (path.isEmpty() ? QString() : QDir(path).absolutePath());

    const QStringList entries = plainFiles(path);
    for (QString guid : entries) {
        if (!guid.endsWith(recordSuffix))
            continue;
        KEP_LOG(0) << "LocalDataBaseManager::readProductsDb: found product = " << guid;
        guid.remove(recordSuffix);
        if (getProductByGuid(guid)) {
            KEP_LOG(0) << "LocalDataBaseManager::readProductsDb: skip product since it has been already added";
            continue;
        }
        ProductRecord record(narrow(guid), peruser);
        if (!record.load()) {
            KEP_LOG(2) << "LocalDataBaseManager::readProductsDb: cannot read product record: " << guid;
            continue;
        }
        KEP_LOG(0) << "LocalDataBaseManager::readProductsDb: check if product has been auto-uninstalled";
        if (record.getValue(Keys::AUTO_UNINSTALL_MODE) == "1") {
            KEP_LOG(0) << "LocalDataBaseManager::readProductsDb: AUTOUNINSTALL flag is ON, removing db file";
            // The bare guid, relative to the working directory, is what the host has always removed.
            if (!QFile::remove(guid))
                KEP_LOG(2) << "LocalDataBaseManager::readProductsDb: cannot remove db file";
            continue;
        }
        KEP_LOG(0) << "LocalDataBaseManager::readProductsDb: AUTOUNINSTALL flag is OFF, continuing";
        QMap<QString, QString> data;
        for (const QString& key : Keys::REG_TOOL_FIELD_KEYS)
            data.insert(key, wide(record.getValue(narrow(key))));
        if (!getProductByGuid(guid)) {
            auto* product = new Product(guid);
            product->setData(data);
            connect(product, &Product::regDataChanged, this, &LocalDataBaseManager::setValueInRegDb);
            products_.append(product);
            byGuid_.insert(guid, product);
        }
    }
}

Product* LocalDataBaseManager::getProductByGuid(QString guid) const
{
    return byGuid_.value(guid);
}

void LocalDataBaseManager::clearData()
{
    for (Product* product : qAsConst(products_)) {
        disconnect(product, nullptr, this, nullptr);
        delete product;
    }
    products_.clear();
    byGuid_.clear();
}

void LocalDataBaseManager::setValueInRegDb(QString guid, QString key, QString value)
{
    writeValue(guid.toLocal8Bit(), key.toLocal8Bit(), value.toLocal8Bit(), perUserProcess());
}

void LocalDataBaseManager::writeValue(const QByteArray& guid, const QByteArray& key, const QByteArray& value,
                                      bool peruser)
{
    if (auto setValue = reinterpret_cast<SetValueFn>(regTool_.resolve("setValue")))
        setValue(guid.constData(), key.constData(), value.constData(), peruser ? 1 : 0);
}

void LocalDataBaseManager::convertRegDb(QString path)
{
    KEP_LOG(0) << "LocalDataBaseManager::convertRegDb: trying to find and convert FNC db from TAV 1.0: path = " << path;
    const QStringList entries = plainFiles(path);
    for (const QString& entry : entries) {
        const QString file = path + QLatin1Char('/') + entry;
        if (!file.endsWith(Keys::LEGACY_RECORD_SUFFIX))
            continue;
        KEP_LOG(0) << "LocalDataBaseManager::convertRegDb: found TAV 1.0 property file: " << file;
        convertFncProductEntry(file, perUserProcess());
    }
    KEP_LOG(0) << "LocalDataBaseManager::convertRegDb: convertation of all products in this location is done";
}

bool LocalDataBaseManager::convertFncProductEntry(QString file, bool peruser)
{
    KEP_LOG(0) << "LocalDataBaseManager::convertFncProductEntry: converting " << file;
    if (!QFile::exists(file)) {
        KEP_LOG(2) << "LocalDataBaseManager::convertFncProductEntry: file isn't exist " << file;
        return false;
    }

    const QString productCode = QStringLiteral("ProductCode");
    const QString productName = QStringLiteral("ProductName");
    const QString version = QStringLiteral("Version");
    QMap<QString, QString> values;
    // Anything QSettings should not open reads like an unreadable file: no values.
    if (DatabaseFile::check(file) == DatabaseFile::Status::Read) {
        const QSettings properties(file, QSettings::IniFormat);
        values.insert(productCode, properties.value(productCode).toString());
        values.insert(productName, properties.value(productName).toString());
        values.insert(version, properties.value(version).toString());
    }
    if (values.value(productCode).isEmpty()) {
        KEP_LOG(2) << "LocalDataBaseManager::convertFncProductEntry: found guid is not valid: " << values.value(productCode);
        return false;
    }
    readProfile(getXmlFromFile(QString(file).replace(Keys::LEGACY_RECORD_SUFFIX, Keys::LEGACY_PROFILE_SUFFIX)),
                values);

    const QByteArray guid = values.value(productCode).toLocal8Bit();
    const QByteArray updateId = values.value(Keys::UpdateID).toLocal8Bit();
    ProductRecord record(guid.toStdString(), peruser);
    // A record that is missing does not load.
    if (record.load() && !updateId.isEmpty()) {
        if (record.getValue(Keys::UPDATE_ID) != updateId.toStdString()) {
            KEP_LOG(0) << "LocalDataBaseManager::convertFncProductEntry: legacy updateId was updated, set it in new db";
            record.setValue(Keys::UPDATE_ID, updateId.toStdString());
            record.save();
        } else {
            KEP_LOG(1) << "LocalDataBaseManager::convertFncProductEntry: skip convertation since legacy updateId is "
                          "not changed";
        }
        return false;
    }

    auto registerProduct = reinterpret_cast<RegisterProductFn>(regTool_.resolve("registerProduct"));
    if (!registerProduct) {
        KEP_LOG(2) << "LocalDataBaseManager::convertFncProductEntry: cannot load lib: " << regTool_.fileName();
        KEP_LOG(2) << "LocalDataBaseManager::convertFncProductEntry: convertation cannot be done";
        return false;
    }
    const int result = registerProduct(guid.constData(), values.value(productName).toLocal8Bit().constData(),
                                       values.value(version).toLocal8Bit().constData(),
                                       values.value(Keys::MediaID).toLocal8Bit().constData(),
                                       values.value(Keys::ProductID).toLocal8Bit().constData(), updateId.constData(),
                                       peruser ? 1 : 0);
    // Marked even when registration failed, so that the host can tell where the guid came from.
    writeValue(guid, Keys::RECORD_MIGRATED, QByteArrayLiteral("1"), peruser);
    if (result == 0) {
        KEP_LOG(0) << "LocalDataBaseManager::convertFncProductEntry: product convertation completed!";
        return true;
    }
    KEP_LOG(2) << "LocalDataBaseManager::convertFncProductEntry: error during convertation: #" << result;
    return false;
}

QDomDocument LocalDataBaseManager::getXmlFromFile(QString file)
{
    QByteArray bytes;
    const DatabaseFile::Status status = DatabaseFile::read(file, bytes);
    if (status == DatabaseFile::Status::NotReadable) {
        KEP_LOG(2) << "LocalDataBaseManager: openXML: cannot open file for reading: " << file;
        return QDomDocument();
    }
    QDomDocument document;
    QString message;
    int line = 0;
    int column = 0;
    if (status == DatabaseFile::Status::TooLarge)
        message = QStringLiteral("file larger than %1 bytes").arg(DatabaseFile::maxBytes);
    // A BOM names the encoding; without one the markup that counts is ASCII either way.
    else if (XmlNesting::nestsTooDeep(QTextCodec::codecForUtfText(bytes)->toUnicode(bytes)))
        message = QStringLiteral("elements nested deeper than %1 levels").arg(XmlNesting::maxElementNesting);
    if (!message.isEmpty() || !document.setContent(bytes, &message, &line, &column)) {
        KEP_LOG(2) << "LocalDataBaseManager: openXML: ERROR: failed to read: " << file;
        KEP_LOG(2) << "Error message: " << message;
        KEP_LOG(2) << "Line: " << line << "; Column: " << column;
        return QDomDocument();
    }
    return document;
}

} // namespace KepPlugin
