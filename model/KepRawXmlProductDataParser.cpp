#include "KepRawXmlProductDataParser.h"

#include "KepXmlTags.h"
#include "News.h"
#include "PlainXmlTree.h"
#include "Product.h"
#include "Update.h"
#include "XmlNesting.h"
#include "localdb/KepLog.h"

#include <QDomDocument>
#include <QDomElement>

namespace KepPlugin {

namespace {

// The elements of one kind below the root's first container of that kind, at any depth.
template <typename Element>
auto itemsBelow(const Element& root, const QString& container, const QString& item)
{
    return root.firstChildElement(container).elementsByTagName(item);
}

// The parse runs on the DOM or on the plain tree, whose lists are vectors.
int count(const QDomNodeList& list) { return list.length(); }
QDomNode itemAt(const QDomNodeList& list, int i) { return list.item(i); }
int count(const QVector<PlainXmlTree::Node>& list) { return list.size(); }
PlainXmlTree::Node itemAt(const QVector<PlainXmlTree::Node>& list, int i) { return list.at(i); }

int toNumber(const QString& text)
{
    return text.toInt(nullptr, 10);
}

// The records outlive the reply's DOM, and a run holds every product's records at once: a key
// equal to a supported tag shares that tag's static text instead of keeping the parser's copy,
// and a value gives back the room the DOM's text() leaves for growing.
void insertField(QMap<QString, QString>& fields, const QStringList& supported, const QString& tag, QString text)
{
    const int known = supported.indexOf(tag);
    // A text of the exact size may be shared with the parse's tree: squeezing it would copy it.
    if (text.capacity() > text.size())
        text.squeeze();
    fields.insert(known < 0 ? tag : supported.at(known), text);
}

} // namespace

KepRawXmlProductDataParser::KepRawXmlProductDataParser(Product* product)
    : product_(product)
{
}

void KepRawXmlProductDataParser::setRawXmlData(const QString& data)
{
    rawXmlData_ = data;
}

bool KepRawXmlProductDataParser::parseRawXmlData(const QString& data)
{
    if (!data.isEmpty())
        rawXmlData_ = data;
    KEP_LOG(0) << QStringLiteral("KepProductData::parseRawXmlData: rawData=[%1]").arg(rawXmlData_);
    if (rawXmlData_.isEmpty()) {
        KEP_LOG(2) << "KepProductData::parseRawXmlData: raw data is empty";
        return false;
    }
    // The plain tree refuses what nests deeper than the DOM may.
    PlainXmlTree plain;
    if (plain.read(rawXmlData_))
        return parseDocument(plain.documentElement());
    QDomDocument document;
    if (XmlNesting::nestsTooDeep(rawXmlData_) || !document.setContent(rawXmlData_)) {
        KEP_LOG(2) << "KepProductData::parseRawXmlData: bad XML format of raw data: " << rawXmlData_;
        return false;
    }
    return parseDocument(document.documentElement());
}

template <typename Element>
bool KepRawXmlProductDataParser::parseDocument(const Element& root)
{
    const auto returnCode = root.firstChildElement(Tags::RETURN_CODE);
    if (returnCode.isNull()) {
        KEP_LOG(2) << "KepProductData::parseRawXmlData: KEP returned incorrect data (no return_code tag)";
        return false;
    }
    returnCode_ = toNumber(returnCode.text());
    const auto format = root.firstChildElement(Tags::FORMAT);
    if (!format.isNull())
        format_ = format.text();

    product_->clearUpdates();
    const bool updatesRead = parseUpdates(itemsBelow(root, Tags::UPDATES, Tags::UPDATE));
    product_->clearNews();
    const bool newsRead = parseNews(itemsBelow(root, Tags::PRODUCT_NEWS, Tags::MESSAGE));
    return updatesRead && newsRead;
}

bool KepRawXmlProductDataParser::parseRawXmlDataNodeUpdate(const QDomNodeList& updates)
{
    return parseUpdates(updates);
}

bool KepRawXmlProductDataParser::parseRawXmlDataNodeNews(const QDomNodeList& messages)
{
    return parseNews(messages);
}

template <typename List>
bool KepRawXmlProductDataParser::parseUpdates(const List& updates)
{
    for (int i = 0; i < count(updates); ++i) {
        const auto item = itemAt(updates, i);
        const auto id = item.firstChildElement(Tags::ID);
        if (id.isNull()) {
            KEP_LOG(1) << "KepProductData::parseRawXmlDataNodeUpdate: bad update (no id field)";
            continue;
        }
        KEP_LOG(1) << "KepProductData::parseRawXmlDataNodeUpdate: parsing update with id = " << id.text();
        auto* update = new Update;
        const QStringList supported = update->getSupportedXmlTags();
        QMap<QString, QString> fields;
        for (auto node = item.firstChild(); !node.isNull(); node = node.nextSibling()) {
            const auto element = node.toElement();
            const QString tag = element.tagName();
            if (!supported.contains(tag, Qt::CaseInsensitive)) {
                KEP_LOG(1) << "KepProductData::parseRawXmlDataNodeUpdate: unknown tag: " << tag;
                continue;
            }
            if (tag == Tags::RELATED_UPDATES) {
                KEP_LOG(0) << "KepProductData::parseRawXmlDataNodeUpdate: looking for related updates";
                const auto related = element.elementsByTagName(Tags::ID);
                if (related.isEmpty())
                    KEP_LOG(0) << "KepProductData::parseRawXmlDataNodeUpdate: no related updates found";
                for (int r = 0; r < count(related); ++r) {
                    const int number = toNumber(itemAt(related, r).toElement().text());
                    KEP_LOG(0) << "KepProductData::parseRawXmlDataNodeUpdate: related update found = " << number;
                    update->addRelatedUpdate(number);
                }
                continue;
            }
            QString text = element.text();
            KEP_LOG(0) << QStringLiteral("KepProductData::parseRawXmlDataNodeUpdate: update[%1]=%2").arg(tag, text);
            insertField(fields, supported, tag, std::move(text));
        }
        update->setData(fields);
        product_->addUpdate(update);
    }
    return true;
}

template <typename List>
bool KepRawXmlProductDataParser::parseNews(const List& messages)
{
    for (int i = 0; i < count(messages); ++i) {
        const auto item = itemAt(messages, i);
        const auto id = item.firstChildElement(Tags::ID);
        if (id.isNull()) {
            KEP_LOG(1) << "KepProductData::parseRawXmlDataNodeNews: bad news message (no id field)";
            continue;
        }
        KEP_LOG(1) << "KepProductData::parseRawXmlDataNodeNews: news message with id = " << id.text();
        auto* news = new News;
        const QStringList supported = news->getSupportedXmlTags();
        QMap<QString, QString> fields;
        for (auto node = item.firstChild(); !node.isNull(); node = node.nextSibling()) {
            const auto element = node.toElement();
            const QString tag = element.tagName();
            if (!supported.contains(tag, Qt::CaseInsensitive)) {
                KEP_LOG(1) << "KepProductData::parseRawXmlDataNodeNews: unknown tag: " << tag;
                continue;
            }
            QString text = element.text();
            KEP_LOG(0) << QStringLiteral("KepProductData::parseRawXmlDataNodeNews: new message[%1]=%2").arg(tag, text);
            insertField(fields, supported, tag, std::move(text));
        }
        news->setData(fields);
        product_->addNews(news);
    }
    return true;
}

} // namespace KepPlugin
