// The transport's answer text: SOAP clean-up (its plain reading checked against the HTML reader),
// the bracketed service code, then the reply parser.
#include "FuzzSupport.h"

#include "model/Product.h"
#include "network/EscapedReplyReader.h"
#include "network/MarkupGuard.h"
#include "network/NetworkManager.h"

#include <QTextDocument>

namespace {

bool knownState(int state)
{
    return state == -1 || state == 0 || state == 4 || state == 5 || state == 6;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    FuzzSupport::setUp(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using KepPlugin::NetworkManager;
    const QString reply = QString::fromUtf8(FuzzSupport::bytes(data, size));
    // What the guard refuses never reaches the HTML reader in a run either.
    if (!KepPlugin::MarkupGuard::refusal(reply).isEmpty())
        return 0;
    const QString text = NetworkManager::soapReplyToText(reply);
    QString plain;
    if (KepPlugin::EscapedReplyReader::read(reply, &plain)) {
        QTextDocument document;
        document.setHtml(reply);
        if (document.toPlainText() != plain)
            FuzzSupport::fail("plain reading differs from the HTML reader", reply);
    }
    const int state = NetworkManager::stateOfReplyText(text);
    if (!knownState(state))
        FuzzSupport::fail("unknown state code", QString::number(state));
    // The code is read from the first bracket pair only, so text without "[" is always plain.
    if (!text.contains(QLatin1Char('[')) && state != 0)
        FuzzSupport::fail("state for text without a code", text);
    KepPlugin::Product product(QStringLiteral("{F0220000-0000-4000-8000-000000000002}"));
    product.parseRawXmlData(text);
    return 0;
}
