#include "Product.h"

#include "KepRawXmlProductDataParser.h"
#include "News.h"
#include "Update.h"
#include "localdb/KepKeys.h"
#include "localdb/KepLog.h"

namespace KepPlugin {

Product::Product(QString guid)
    : guid_(std::move(guid))
{
}

Product::~Product()
{
    clearUpdates();
    clearNews();
}

void Product::setData(const QMap<QString, QString>& data)
{
    data_ = data;
}

void Product::setDataByKey(QString key, QString value)
{
    data_.insert(key, value);
    emit regDataChanged(guid_, key, value);
}

QString Product::getDataByKey(QString key) const
{
    return data_.value(key);
}

void Product::setRawXmlData(QString data)
{
    rawXmlData_ = data;
}

bool Product::parseRawXmlData(QString data)
{
    const QString& text = data.isEmpty() ? rawXmlData_ : data;
    if (text.isEmpty()) {
        KEP_LOG(1) << "KepDataProvider:Product:parseRawXmlData: nothing to parse (data is empty)";
        return false;
    }
    // Whether the parser accepted the reply is its own business: it logs, and it keeps the
    // previous updates and news when it rejects one.
    KepRawXmlProductDataParser parser(this);
    parser.setRawXmlData(text);
    parser.parseRawXmlData(QString());
    return true;
}

void Product::addUpdate(Update* update)
{
    updates_.append(update);
}

void Product::clearUpdates()
{
    qDeleteAll(updates_);
    updates_.clear();
}

void Product::addNews(News* news)
{
    news_.append(news);
}

void Product::clearNews()
{
    qDeleteAll(news_);
    news_.clear();
}

bool Product::isLegacy() const
{
    return getDataByKey(Keys::RecordMigrated) == QLatin1String("1");
}

} // namespace KepPlugin
