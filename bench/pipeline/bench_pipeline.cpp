// What one product reply costs the plug-in after the network: the SOAP clean-up, the parse into
// updates and news, and the consolidated document; against one DOM parse of the product XML.
// Ours and the reference alternate, so that a noisy machine slows both alike.
// usage: bench_pipeline [--quick]

#include "BenchStats.h"

#include "model/Product.h"
#include "model/Update.h"
#include "network/NetworkManager.h"
#include "plugin/ConsolidatedResponseWriter.h"
#include "tavcore/Logger.h"

#include <QCoreApplication>
#include <QDomDocument>
#include <QElapsedTimer>

#include <cstdio>

using namespace KepPlugin;

namespace {

// The product XML the service sends, in the shape of the end-to-end data, grown to size.
QString productXml(int bytes, int* updateCount)
{
    QString xml = QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<product_info>\n"
                                 "<return_code>0</return_code><format>2.0</format>\n<updates>\n");
    QString news;
    int updates = 0;
    while (xml.size() + news.size() < bytes) {
        const int id = ++updates;
        xml += QStringLiteral("<update><id>%1</id><title>Product update %1</title>"
                              "<description>Fixes &amp; improvements for update %1.</description>"
                              "<update_id>%1</update_id><download_url>https://dl.example.invalid/u%1.tar.gz</download_url>"
                              "<download_file_name>u%1.tar.gz</download_file_name><download_size>10485760</download_size>"
                              "<publish_date>2014-03-07T10:20:30</publish_date><media_id>M00001</media_id>"
                              "<package_name>p-u%1</package_name>"
                              "<related_updates><id>%2</id></related_updates></update>\n")
                   .arg(id)
                   .arg(id + 1);
        if (id % 2 == 0)
            news += QStringLiteral("<message><id>N%1</id><title>News %1</title>"
                                   "<description>Announcement %1 about the next release.</description>"
                                   "<publish_date>2014-03-07</publish_date></message>\n")
                        .arg(id / 2);
    }
    *updateCount = updates;
    return xml + QStringLiteral("</updates>\n<product_news>\n") + news + QStringLiteral("</product_news>\n</product_info>\n");
}

// The product XML as the service's SOAP layer wraps it: escaped text inside the result element.
QString soapReply(const QString& product)
{
    return QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                          "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                          "<n1:GetTAVProductInfoResponse xmlns:n1=\"urn:vasko:kep:registration:1\">"
                          "<n1:GetTAVProductInfoResult>")
        + product.toHtmlEscaped()
        + QStringLiteral("</n1:GetTAVProductInfoResult></n1:GetTAVProductInfoResponse></soap:Body></soap:Envelope>");
}

double msSince(const QElapsedTimer& clock)
{
    return clock.nsecsElapsed() / 1e6;
}

void compare(int megabytes, int rounds)
{
    int updates = 0;
    const QString product = productXml(megabytes * 1024 * 1024, &updates);
    const QString reply = soapReply(product);
    QVector<double> cleanup, parse, write, dom, ratios;
    const auto pipeline = [&] {
        QElapsedTimer clock;
        clock.start();
        const QString text = NetworkManager::soapReplyToText(reply);
        cleanup.append(msSince(clock));
        clock.restart();
        Product parsed(QStringLiteral("{bench}"));
        parsed.parseRawXmlData(text);
        parse.append(msSince(clock));
        clock.restart();
        const QString document = ConsolidatedResponseWriter::toXml({&parsed});
        write.append(msSince(clock));
        if (parsed.updatesList().size() != updates || document.isEmpty()) {
            std::fprintf(stderr, "bench_pipeline: %d of %d updates read\n", int(parsed.updatesList().size()), updates);
            std::exit(1);
        }
    };
    const auto reference = [&] {
        QElapsedTimer clock;
        clock.start();
        QDomDocument document;
        document.setContent(product);
        dom.append(msSince(clock));
    };
    // Each side leaves the heap in a different state for the next, so the order alternates.
    for (int round = 0; round < rounds; ++round) {
        if (round % 2 == 0) {
            pipeline();
            reference();
        } else {
            reference();
            pipeline();
        }
        ratios.append((cleanup.last() + parse.last() + write.last()) / dom.last());
    }
    using namespace KepBench;
    const double total = median(cleanup) + median(parse) + median(write);
    std::printf("COMPARE %d MB reply (%d updates, %d rounds): pipeline %.0f ms (clean-up %.0f ms = %.0f%%, "
                "parse %.0f ms = %.0f%%, document %.0f ms = %.0f%%), one DOM parse %.0f ms, ratio %.2f (%.2f .. %.2f)\n",
                megabytes, updates, rounds, total, median(cleanup), 100 * median(cleanup) / total, median(parse),
                100 * median(parse) / total, median(write), 100 * median(write) / total, median(dom), median(ratios),
                minimum(ratios), maximum(ratios));
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const bool quick = app.arguments().contains(QStringLiteral("--quick"));
    TavCoreShared::TavLogger::Logger::instance()->setLogLevel(2);
    compare(1, quick ? 4 : 8);
    compare(10, quick ? 2 : 4);
    return 0;
}
