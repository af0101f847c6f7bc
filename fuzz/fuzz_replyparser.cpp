// The service's product XML, as the gathering run hands it to a product; and the plain tree
// that stands in for the DOM, which must show the parser what the DOM shows.
#include "FuzzSupport.h"
#include "XmlOutline.h"

#include "model/PlainXmlTree.h"
#include "model/Product.h"

#include <QDomDocument>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    FuzzSupport::setUp(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    KepPlugin::Product product(QStringLiteral("{F0220000-0000-4000-8000-000000000001}"));
    const QString reply = QString::fromUtf8(FuzzSupport::bytes(data, size));
    product.parseRawXmlData(reply);
    // A second reply replaces the first one's records; the old ones must be freed, not reused.
    product.parseRawXmlData(reply);
    KepPlugin::PlainXmlTree tree;
    if (tree.read(reply)) {
        QDomDocument document;
        if (!document.setContent(reply))
            FuzzSupport::fail("plain tree took what the DOM refuses", reply);
        if (xmlOutline(tree.documentElement()) != xmlOutline(document.documentElement()))
            FuzzSupport::fail("plain tree differs from the DOM", reply);
    }
    return 0;
}
