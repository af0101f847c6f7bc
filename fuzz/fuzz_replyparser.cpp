// The service's product XML, as the gathering run hands it to a product.
#include "FuzzSupport.h"

#include "model/Product.h"

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
    return 0;
}
