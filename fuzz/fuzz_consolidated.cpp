// From service replies to the document the host reads: "reply%%reply%%reply" feeds up to three
// products (the second a converted legacy one); whatever they hold, the document must be XML.
#include "FuzzSupport.h"

#include "model/Product.h"
#include "plugin/ConsolidatedResponseWriter.h"

#include <QXmlStreamReader>

#include <memory>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    FuzzSupport::setUp(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QList<QByteArray> replies = FuzzSupport::split(FuzzSupport::bytes(data, size), 3);
    std::vector<std::unique_ptr<KepPlugin::Product>> owned;
    QList<KepPlugin::Product*> products;
    for (int i = 0; i < replies.size(); ++i) {
        owned.push_back(std::make_unique<KepPlugin::Product>(QStringLiteral("{F0220000-0000-4000-8000-00000000001%1}").arg(i)));
        KepPlugin::Product* product = owned.back().get();
        if (i == 1)
            product->setData({{QStringLiteral("RecordMigrated"), QStringLiteral("1")}});
        product->parseRawXmlData(QString::fromUtf8(replies.at(i)));
        products << product;
    }

    const QString document = KepPlugin::ConsolidatedResponseWriter::toXml(products);
    QXmlStreamReader reader(document);
    int elements = 0;
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::StartElement)
            ++elements;
    }
    if (reader.hasError())
        FuzzSupport::fail(qPrintable(reader.errorString()), document);
    // Root, updates and product_news are always there.
    if (elements < 3)
        FuzzSupport::fail("document without its frame", document);
    return 0;
}
