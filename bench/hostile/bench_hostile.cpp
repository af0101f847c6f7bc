// The worst answers that fit the 4 MiB bound: what the markup guard, the SOAP clean-up, the parse
// and the consolidated document cost on each (the guard alone where it refuses), and how soon a
// cancel returns while the plug-in is busy with the worst one. The aim is 2 s for both.
// HOME and TAV_SYSTEM_DB_DIR are read when the program loads, so the cancel part runs only inside
// the temporary environment bench/run.sh sets up.
// usage: bench_hostile [--quick]

#include "BenchStats.h"
#include "CancelledRun.h"

#include "../../tests/network/FakeHttpServer.h"
#include "localdb/KepKeys.h"
#include "model/Product.h"
#include "network/BoundedReplyReader.h"
#include "network/MarkupGuard.h"
#include "network/NetworkManager.h"
#include "plugin/ConsolidatedResponseWriter.h"
#include "plugin/KepDataProviderPlugin.h"
#include "tavcore/Logger.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QSettings>
#include <QThread>

#include <atomic>
#include <cstdio>

using namespace KepPlugin;

namespace {

constexpr int bound = int(BoundedReplyReader::maxAnswerBytes);

// `head`, then `unit` as often as fits the bound with `tail` after it.
QString fill(const QString& head, const QString& unit, const QString& tail = QString())
{
    QString text = head;
    const int times = (bound - head.size() - tail.size()) / qMax(1, int(unit.size()));
    text.reserve(head.size() + times * unit.size() + tail.size());
    for (int i = 0; i < times; ++i)
        text += unit;
    return text + tail;
}

// `block` repeated up to the guard's tag limit, the rest of the bound filled with `filler`.
QString blocks(const QString& block, int tagsPerBlock, const QString& filler = QStringLiteral("x"))
{
    const QString head = block.repeated(MarkupGuard::maxTags / tagsPerBlock);
    return fill(head, filler);
}

QString nested(const QString& open, int depth = MarkupGuard::maxDepth) { return open.repeated(depth); }

QString soap(const QString& payload)
{
    return QStringLiteral("<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                          "<GetTAVProductInfoResponse><GetTAVProductInfoResult>")
        + payload.toHtmlEscaped() + QStringLiteral("</GetTAVProductInfoResult></GetTAVProductInfoResponse></soap:Body></soap:Envelope>");
}

// A product XML of small updates and news, each with a related update, as large as the bound lets it be.
QString manyMessages()
{
    QString updates, news;
    // Escaped, the way it goes into the envelope.
    for (int id = 1, size = soap(QString()).size() + 400; size < bound; ++id) {
        const QString update =
            QStringLiteral("<update><id>%1</id><update_id>%1</update_id><related_updates><id>%2</id></related_updates></update>")
                .arg(id).arg(id + 1);
        const QString message = QStringLiteral("<message><id>%1</id><title>t</title></message>").arg(id);
        size += update.toHtmlEscaped().size() + message.toHtmlEscaped().size();
        updates += update;
        news += message;
    }
    return soap(QStringLiteral("<product_info><return_code>0</return_code><format>2.0</format><updates>") + updates
                + QStringLiteral("</updates><product_news>") + news + QStringLiteral("</product_news></product_info>"));
}

struct Case { const char* name; QString answer; };

QVector<Case> cases()
{
    const QString depth = nested(QStringLiteral("<div>"));
    return {
        {"escaped product XML, small updates and news", manyMessages()},
        {"escaped product XML nested 255 deep", soap(QStringLiteral("<product_info>") + QStringLiteral("<u>").repeated(254)
                                                     + QString(bound - 20000, QLatin1Char('x')) + QStringLiteral("</u>").repeated(254)
                                                     + QStringLiteral("</product_info>"))},
        {"64 nested <div>, 16 times", blocks(depth + nested(QStringLiteral("</div>")), 64)},
        {"63 nested <dl><dt><dd>, 16 times", blocks(nested(QStringLiteral("<dl><dt>x<dd>"), 21) + nested(QStringLiteral("</dl>"), 21), 63)},
        {"64 nested <blockquote>, 16 times", blocks(nested(QStringLiteral("<blockquote>")) + nested(QStringLiteral("</blockquote>")), 64)},
        {"64 nested <ol><li>, 16 times", blocks(nested(QStringLiteral("<ol><li>x"), 32) + nested(QStringLiteral("</li></ol>"), 32), 64)},
        {"64 nested <pre>, 16 times", blocks(nested(QStringLiteral("<pre>x\n")) + nested(QStringLiteral("</pre>")), 64, QStringLiteral("x\n"))},
        {"64 nested <font size=+1>, 16 times", blocks(nested(QStringLiteral("<font size=+1>")) + nested(QStringLiteral("</font>")), 64)},
        {"1,024 images", blocks(QStringLiteral("<img src=x>"), 1)},
        {"1,024 line breaks in text", blocks(QStringLiteral("<br>x "), 1, QStringLiteral("x "))},
        {"one tag, 4 MiB of attributes", fill(QStringLiteral("<p"), QStringLiteral(" a=\"v\""), QStringLiteral(">x</p>"))},
        {"4 MiB of &amp;", fill(QString(), QStringLiteral("&amp;"))},
        {"4 MiB of &#x10FFFF;", fill(QString(), QStringLiteral("&#x10FFFF;"))},
        {"4 MiB of one word", fill(QString(), QStringLiteral("x"))},
        {"4 MiB of blanks", fill(QStringLiteral("x"), QStringLiteral(" "), QStringLiteral("x"))},
        {"4 MiB of end tags (not counted as tags)", fill(QString(), QStringLiteral("</div>"))},
        {"4 MiB of \"<\" alone", fill(QString(), QStringLiteral("< "))},
        {"refused: 80,000 nested <div>", nested(QStringLiteral("<div>"), 80000)},
        {"refused: 4 MiB of <p>", fill(QString(), QStringLiteral("<p>"))},
        {"refused: 1,024 paragraphs with long style attributes",
         blocks(QStringLiteral("<p style=\"") + QStringLiteral("color:red;").repeated(400) + QStringLiteral("\">x</p>"), 1)},
        {"refused: cell spans", QStringLiteral("<table>") + QStringLiteral("<tr><td colspan=64 rowspan=64>x").repeated(1000)},
    };
}

// Guard, then clean-up, parse and document if the guard lets the answer through.
double process(const QString& answer, bool* refused)
{
    QElapsedTimer clock;
    clock.start();
    *refused = !MarkupGuard::refusal(answer).isEmpty();
    if (!*refused) {
        const QString text = NetworkManager::soapReplyToText(answer);
        Product product(QStringLiteral("{bench}"));
        product.parseRawXmlData(text);
        const QString document = ConsolidatedResponseWriter::toXml({&product});
        Q_UNUSED(document);
    }
    return clock.nsecsElapsed() / 1e6;
}

// The slowest case's answer.
QString timeCases(int rounds)
{
    QString worst;
    double worstMs = -1;
    for (const Case& c : cases()) {
        QVector<double> times;
        bool refused = false;
        for (int round = 0; round < rounds; ++round)
            times.append(process(c.answer, &refused));
        const double ms = KepBench::median(times);
        std::printf("COMPARE %-52s %8d bytes  %s %7.1f ms (max %.1f)\n", c.name, int(c.answer.toUtf8().size()),
                    refused ? "refused in" : "processed", ms, KepBench::maximum(times));
        std::fflush(stdout);
        if (!refused && ms > worstMs) {
            worstMs = ms;
            worst = c.answer;
        }
    }
    return worst;
}

std::atomic<bool> answered{false};
void watchLog(QtMsgType, const QMessageLogContext&, const QString& line)
{
    if (line.contains(QLatin1String("sendRequestToKep: reply ok")))
        answered.store(true);
}

// Two products answered with the slowest answer; cancelled as soon as the first answer is in,
// while its clean-up runs. Timed from the cancel call to getData's return.
void timeCancel(const QString& worst, int tries)
{
    for (const char* guid : {"{BENCH-1}", "{BENCH-2}"}) {
        QDir().mkpath(Keys::USER_DB_DIR);
        QSettings record(Keys::USER_DB_DIR + QLatin1Char('/') + QLatin1String(guid) + QStringLiteral(".ini"), QSettings::IniFormat);
        record.setValue(QStringLiteral("MediaID"), QLatin1String(guid));
        record.setValue(QStringLiteral("UpdateID"), QStringLiteral("1"));
    }
    FakeHttpServer server(FakeHttpServer::ok(worst.toUtf8()));
    FakeHttpServer::useService(server.url());
    TavCoreShared::TavLogger::Logger::instance()->setLogLevel(0);
    qInstallMessageHandler(watchLog);
    KepBench::HostThreads host;
    QVector<double> latencies;
    for (int i = 0; i < tries; ++i) {
        answered.store(false);
        int status = -1;
        latencies.append(KepBench::cancelledRunMs(host, [](const std::atomic<bool>& done) {
            while (!answered.load() && !done.load())
                QThread::usleep(100);
        }, &status));
    }
    qInstallMessageHandler(nullptr);
    std::printf("COMPARE cancel during the slowest answer's clean-up, %d tries: median %.0f ms, max %.0f ms\n", tries,
                KepBench::median(latencies), KepBench::maximum(latencies));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (!KepBench::inTemporaryEnvironment("bench_hostile"))
        return 64;
    const bool quick = app.arguments().contains(QStringLiteral("--quick"));
    // Above every line's level: the parser quotes what it cannot read, megabytes here.
    TavCoreShared::TavLogger::Logger::instance()->setLogLevel(3);
    const QString worst = timeCases(quick ? 1 : 3);
    timeCancel(worst, quick ? 3 : 10);
    return 0;
}
