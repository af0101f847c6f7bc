#pragma once

#include <QDomNodeList>
#include <QString>

namespace KepPlugin {

class Product;

// Turns one service product XML into Update and News records of a product, replacing the
// product's previous ones only when the reply passes its checks.
class KepRawXmlProductDataParser
{
public:
    explicit KepRawXmlProductDataParser(Product* product);

    void setRawXmlData(const QString& data);
    bool parseRawXmlData(const QString& data);
    bool parseRawXmlDataNodeUpdate(const QDomNodeList& updates);
    bool parseRawXmlDataNodeNews(const QDomNodeList& messages);

    QString rawXmlDataFormat() const { return format_; }
    int kepReturnCode() const { return returnCode_; }

private:
    // One parse for the DOM and for the plain tree that stands in for it.
    template <typename Element>
    bool parseDocument(const Element& root);
    template <typename List>
    bool parseUpdates(const List& updates);
    template <typename List>
    bool parseNews(const List& messages);

    QString rawXmlData_;
    QString format_;
    Product* product_;
    int returnCode_ = -1;
};

} // namespace KepPlugin
