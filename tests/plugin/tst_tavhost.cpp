#include "KepSimProcess.h"
#include "ProgressReport.h"
#include "RunSummary.h"
#include "RunWarnings.h"
#include "SettingsCheck.h"
#include "TestDb.h"

#include "FakeHttpServer.h"
#include "PluginHost.h"
#include "tavcore/Logger.h"
#include "tavcore/NetworkAccessManager.h"
#include "tavcore/NetworkCache.h"

#include <QNetworkReply>

#include <QProcess>
#include <QTcpServer>
#include <QtTest>

namespace {
const QString answered = "<\\?xml version=\"1.0\"\\?>\n<root>\n.*<update>.*</root>\n";
const QString nothing = "<\\?xml version=\"1.0\"\\?>\n<root>\n    <updates/>\n    <product_news/>\n</root>\n";
const QString warning = "^tav-host: warning: ";
const QString usageHint = "^Try 'tav-host --help' for the options\\.$";
const QStringList twoProducts{"MEDIA-STUDIO-2014", "MEDIA-TOOLS-2013"};

// One line as the plug-in's log writes it: the level, then the text, quoted when it was a QString.
QString logged(int level, const QString& text, bool quoted = false)
{
    return QString::number(level) + (quoted ? " \"" + QString(text).replace("\"", "\\\"") + "\"" : " " + text);
}
// A run as the summary hears it: the host's own events by name, anything else a log line.
QStringList askedFor(const QString& media, const QStringList& outcome)
{
    return QStringList{"ask " + media} + outcome;
}
const QString net = "NetworkManager::sendRequestToKep: ";
const QStringList replyOk{"answered"};
QStringList failed(int code, const QString& text, bool cached)
{
    return {"unanswered", logged(2, net + QString("reply error [%1]: %2").arg(code).arg(text), true), cached ? "cache hit" : "cache miss"};
}
const QStringList timedOut = failed(5, "Operation canceled", false);
const QString found = logged(0, "LocalDataBaseManager::readProductsDb: AUTOUNINSTALL flag is OFF, continuing");
const QString finished = "end";
const QString cancelSent = "cancel";
const QString cancelTaken = logged(0, "DataManager::cancelAction(): requested cancel");
const QString cancelledUnderWay = logged(2, net + "operation cancelled");

// The first per user, the others system-wide; update ids 1, 2, ...
void writeProducts(const QStringList& mediaIds)
{
    TestDb::reset();
    for (int i = 0; i < mediaIds.size(); ++i)
        TestDb::writeRecord(i == 0, QString("{P%1}").arg(i), {{"MediaID", mediaIds.at(i)}, {"UpdateID", QString::number(i + 1)}});
}

void play(RunSummary& summary, const QStringList& events)
{
    summary.beginRun();
    int index = 0;
    for (const QString& event : events) {
        if (event.startsWith("ask "))
            index = summary.requestStarted(event.mid(4), "1");
        else if (event == "answered" || event == "unanswered")
            summary.requestEnded(index, event == "answered");
        else if (event.startsWith("cache "))
            summary.cacheLookedUp(event == "cache hit");
        else if (event == cancelSent)
            summary.cancelSending();
        else if (event == finished)
            summary.endRun();
        else
            summary.feed(event);
    }
    summary.finish();
}
} // namespace

// The reference host's command line and what it says about a run: exit statuses, standard
// output, the warnings for products the service did not answer, progress, the summary.
class TestTavHost : public QObject
{
    Q_OBJECT
private slots:
    // From what a run told the summary to the warnings, one cause per line.
    void warnings_data()
    {
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<QVariant>("url");
        QTest::addColumn<bool>("incomplete");
        QTest::addColumn<QStringList>("warnings");
        const QVariant url("http://kep.invalid/");
        const QString at = "tav-host: warning: %1 got no answer from the service at \"http://kep.invalid/\": %2";
        QTest::newRow("all answered") << QStringList{found, found} + askedFor("A", replyOk) + askedFor("B", replyOk) + QStringList{finished}
                                      << url << false << QStringList();
        QTest::newRow("time-out, the cache answered")
            << askedFor("A", timedOut.mid(0, 2) + QStringList{"cache hit"}) + askedFor("B", replyOk) << url << true
            << QStringList{at.arg("1 of 2 products", "no answer within 60 seconds; 1 was answered from the cache")};
        QTest::newRow("two causes, in the order they came")
            << askedFor("A", failed(1, "Connection refused", false)) + askedFor("B", timedOut) + askedFor("C", failed(1, "Connection refused", true))
            << url << true
            << QStringList{at.arg("2 of 3 products", "connection refused (error 1: Connection refused); 1 was answered from the cache"),
                           at.arg("1 of 3 products", "no answer within 60 seconds; 0 were answered from the cache")};
        QTest::newRow("cancelled under way") << askedFor("A", replyOk) + QStringList{cancelSent, cancelTaken}
                + askedFor("B", {"unanswered", cancelledUnderWay}) + QStringList{finished} << url << true
            << QStringList{at.arg("1 of 2 products", "the check was cancelled while the request was under way; 0 were answered from the cache")};
        QTest::newRow("no address, quoted error text") << askedFor("A", failed(301, "Protocol \"\" is unknown", false)) << QVariant() << true
            << QStringList{"tav-host: warning: 1 of 1 product got no answer from the service (no address set): the address is not an "
                           "http:// or https:// URL (error 301: Protocol \"\" is unknown); 0 were answered from the cache",
                           "tav-host: warning: the setting KepWebServiceUrl is not set: give it with --set KepWebServiceUrl=URL or in a --settings file"};
        QTest::newRow("address without scheme") << askedFor("A", failed(301, "Protocol \"localhost\" is unknown", false)) << QVariant("localhost:80/")
            << true
            << QStringList{"tav-host: warning: 1 of 1 product got no answer from the service at \"localhost:80/\": the address is not an "
                           "http:// or https:// URL (error 301: Protocol \"localhost\" is unknown); 0 were answered from the cache",
                           "tav-host: warning: the setting KepWebServiceUrl \"localhost:80/\" does not start with http:// or https://"};
        QTest::newRow("cancel before the run had begun") << QStringList{cancelSent, found} + askedFor("A", replyOk) + QStringList{finished}
                                                         << url << false
            << QStringList{"tav-host: warning: the cancel came before the plug-in had started its run and was ignored"};
        QTest::newRow("cancel after the run") << askedFor("A", replyOk) + QStringList{finished, cancelSent} << url << false << QStringList();
        // A clean reply the plug-in then refused is no answer from the service.
        QTest::newRow("answer refused after a clean reply")
            << askedFor("A", QStringList{"answered", logged(2, net + "reply error [299]: markup nested too deeply", true), "cache miss"})
            << url << true
            << QStringList{at.arg("1 of 1 product", "the service refused the request (error 299: markup nested too deeply); "
                                                    "0 were answered from the cache")};
        QTest::newRow("cached entry refused") << askedFor("A", failed(1, "Connection refused", true)
                                                          + QStringList{logged(2, net + "cached data refused: too large", true)})
                                              << url << true
            << QStringList{at.arg("1 of 1 product", "connection refused (error 1: Connection refused); 0 were answered from the cache")};
        QTest::newRow("one failed amid good ones")
            << askedFor("A", replyOk) + askedFor("B", failed(401, "Internal Server Error", false)) + askedFor("C", replyOk) << url << true
            << QStringList{at.arg("1 of 3 products", "the service failed to answer (server error) (error 401: Internal Server Error); "
                                                     "0 were answered from the cache")};
        QTest::newRow("requests after the run are not the run's")
            << askedFor("A", replyOk) + QStringList{finished} + askedFor("B", failed(1, "Connection refused", false)) << url << false
            << QStringList();
    }

    // Where each product's answer came from, and what it held, as the summary prints it.
    void report_data()
    {
        QTest::addColumn<QStringList>("events");
        QTest::addColumn<int>("total");
        QTest::addColumn<QStringList>("report"); // "N ms" written as "~"
        const QString update = logged(1, "KepProductData::parseRawXmlDataNodeUpdate: parsing update with id = ") + "\"7\"";
        const QString news = logged(1, "KepProductData::parseRawXmlDataNodeNews: news message with id = ") + "\"3\"";
        QTest::newRow("counted per product") << QStringList{found, found, found} + askedFor("A", {"answered", update, update, news})
                + askedFor("B", timedOut) + askedFor("C", failed(1, "Connection refused", true) + QStringList{update}) + QStringList{finished}
            << 3
            << QStringList{"summary: media [A] update [1] ~, service, 2 updates, 1 news", "summary: media [B] update [1] ~, none, 0 updates, 0 news",
                           "summary: media [C] update [1] ~, cache, 1 update, 0 news",
                           "summary: 3 products asked in ~ (service 1, cache 1, none 1, cancelled 0), 3 updates, 1 news"};
        // Counts of a product end where the next one starts, and with the run.
        QTest::newRow("lines outside a product") << QStringList{update, found} + askedFor("A", {"answered"}) + QStringList{finished, update}
            << 1 << QStringList{"summary: media [A] update [1] ~, service, 0 updates, 0 news",
                                "summary: 1 product asked in ~ (service 1, cache 0, none 0, cancelled 0), 0 updates, 0 news"};
        QTest::newRow("cancelled") << QStringList{found, found} + askedFor("A", QStringList{cancelSent, cancelTaken, "unanswered", cancelledUnderWay})
            << 2 << QStringList{"summary: media [A] update [1] ~, cancelled, 0 updates, 0 news",
                                "summary: 1 product asked in ~ (service 0, cache 0, none 0, cancelled 1), 0 updates, 0 news"};
        QTest::newRow("more asked than found") << askedFor("A", replyOk) + askedFor("B", replyOk) << 2
            << QStringList{"summary: media [A] update [1] ~, service, 0 updates, 0 news", "summary: media [B] update [1] ~, service, 0 updates, 0 news",
                           "summary: 2 products asked in ~ (service 2, cache 0, none 0, cancelled 0), 0 updates, 0 news"};
    }

    void report()
    {
        QFETCH(QStringList, events);
        RunSummary summary;
        play(summary, events);
        QTEST(summary.productTotal(), "total");
        QTEST(summary.report().replaceInStrings(QRegularExpression("\\d+ ms"), "~"), "report");
    }

    // The ids of a product request, from the body as the plug-in posts it: unescaped, the media
    // id in the login too.
    void productIds_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("isProduct");
        QTest::addColumn<QString>("mediaId");
        QTest::addColumn<QString>("updateId");
        const auto envelope = [](const QString& media, const QString& update) {
            return QString("<soap:Envelope><soap:Header><AuthHeader><Login>%1</Login><Password>ab12</Password></AuthHeader>"
                           "</soap:Header>  <soap:Body>    <GetTAVProductInfo>      <mediaID>%1</mediaID>      <updateID>%2</updateID>"
                           "      <showTestUpdate>n</showTestUpdate>    </GetTAVProductInfo>  </soap:Body></soap:Envelope>")
                .arg(media, update).toUtf8();
        };
        const auto row = [&envelope](const char* name, const QString& media, const QString& update) {
            QTest::newRow(name) << envelope(media, update) << true << media << update;
        };
        row("plain", "MEDIA-STUDIO-2014", "1200");
        // The cache key "gtpi__1_2_3" cannot tell these two apart.
        row("underscores in the media id", "2_3", "1");
        row("underscores in the update id", "3", "1_2");
        row("empty", "", "");
        row("not ASCII", QString::fromUtf8("MÉDIA-ü-\u4e2d"), QString::fromUtf8("\u00bd"));
        row("tags in the media id", "a<mediaID>b<Login>", "1");
        row("tags in the update id", "M", "a</updateID><updateID>b");
        row("markup characters", "a&b<c", "\"1\">");
        QTest::newRow("no update id") << QByteArray("<mediaID>M</mediaID>") << false << "" << "";
        QTest::newRow("not a product request") << QByteArray("<soap:Body><GetNews/></soap:Body>") << false << "" << "";
        QTest::newRow("no body") << QByteArray() << false << "" << "";
    }

    void productIds()
    {
        QFETCH(QByteArray, body);
        QString media;
        QString update;
        QTEST(RunSummary::productIds(body, &media, &update), "isProduct");
        QTEST(media, "mediaId");
        QTEST(update, "updateId");
    }

    // The requests and cache look-ups of the host core, as the summary hears them: a product
    // request starts a row before it leaves, on libcurl's path and on Qt's.
    void watchedRequests_data()
    {
        QTest::addColumn<QString>("url"); // %ok: a server that answers, %closed: a port nobody listens on
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("cached");
        QTest::addColumn<QStringList>("outcome"); // media, update, source; empty: no row
        const QByteArray product("<soap:Body><mediaID>M_1</mediaID><updateID>U_2</updateID></soap:Body>");
        QTest::newRow("answered") << "%ok" << product << false << QStringList{"M_1", "U_2", "service"};
        QTest::newRow("refused, nothing cached") << "%closed" << product << false << QStringList{"M_1", "U_2", "none"};
        QTest::newRow("refused, cached") << "%closed" << product << true << QStringList{"M_1", "U_2", "cache"};
        QTest::newRow("another scheme, cached") << "kep://127.0.0.1/" << product << true << QStringList{"M_1", "U_2", "cache"};
        QTest::newRow("not a product request") << "%ok" << QByteArray("<soap:Body/>") << false << QStringList();
    }

    void watchedRequests()
    {
        QFETCH(QString, url);
        QFETCH(QByteArray, body);
        QFETCH(bool, cached);
        QFETCH(QStringList, outcome);
        FakeHttpServer server(FakeHttpServer::ok("<answer/>"));
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QString closedUrl = QString("http://127.0.0.1:%1/").arg(closed.serverPort());
        closed.close();
        url.replace("%ok", server.url()).replace("%closed", closedUrl);
        auto* network = TavCoreShared::Network::NetworkAccessManager::instance();
        const QString key = QString("key of ") + QTest::currentDataTag();
        if (cached)
            network->cache()->insert(key, "<cached/>");
        RunSummary summary;
        PluginHost host;
        summary.follow(&host);
        emit host.starting();
        QSignalSpy started(&summary, &RunSummary::productStarted);
        QSignalSpy ended(&summary, &RunSummary::productEnded);
        std::unique_ptr<QNetworkReply> reply(network->post(QNetworkRequest(QUrl(url)), body));
        QCOMPARE(started.count(), outcome.isEmpty() ? 0 : 1); // before the request has left
        QTRY_VERIFY(reply->isFinished());
        QCOMPARE(ended.count(), started.count());
        if (reply->error() != QNetworkReply::NoError)
            network->cache()->data(key);
        emit host.finished(0, QString());
        network->cache()->data(key); // after the run: not the run's
        const QList<ProductOutcome> outcomes = summary.outcomes();
        QCOMPARE(outcomes.size(), started.count());
        if (!outcomes.isEmpty())
            QCOMPARE((QStringList{outcomes.first().mediaId, outcomes.first().updateId, outcomes.first().source}), outcome);
    }

    // The host logger's level through a run: 0 only while the plug-in reads its databases and
    // after a cancel, unless 0 was asked; never more than 1 while products are asked.
    void levelSteering_data()
    {
        QTest::addColumn<int>("shown");
        QTest::addColumn<QStringList>("events");
        QTest::addColumn<QList<int>>("levels"); // the logger's level after each event
        const QStringList run{"begin", "ask A", "ask B", "end"};
        QTest::newRow("2") << 2 << run << QList<int>{0, 1, 1, 2};
        QTest::newRow("1") << 1 << run << QList<int>{0, 1, 1, 1};
        QTest::newRow("0") << 0 << run << QList<int>{0, 0, 0, 0};
        QTest::newRow("nothing shown") << 3 << run << QList<int>{0, 1, 1, 3};
        QTest::newRow("cancel while asking") << 2 << QStringList{"begin", "ask A", "cancel", "ask B", "end"} << QList<int>{0, 1, 0, 0, 2};
        // The cancel thread may come first: the first request must not lower the level again.
        QTest::newRow("cancel before the first request") << 1 << QStringList{"begin", "cancel", "ask A", "end"} << QList<int>{0, 0, 0, 1};
        QTest::newRow("cancel after the run") << 2 << QStringList{"begin", "end", "cancel"} << QList<int>{0, 2, 2};
        QTest::newRow("next run") << 2 << QStringList{"begin", "cancel", "end", "begin", "ask A"} << QList<int>{0, 0, 2, 0, 1};
        // Without the report nothing counts records: the user's level while asking.
        QTest::newRow("no counts, 2") << 2 << QStringList{"no counts"} + run << QList<int>{2, 0, 2, 2, 2};
        QTest::newRow("no counts, 0") << 0 << QStringList{"no counts"} + run << QList<int>{0, 0, 0, 0, 0};
    }

    void levelSteering()
    {
        QFETCH(int, shown);
        QFETCH(QStringList, events);
        QFETCH(QList<int>, levels);
        auto* logger = TavCoreShared::TavLogger::Logger::instance();
        RunSummary summary;
        summary.steerLogLevel(shown);
        QCOMPARE(logger->logLevel(), shown);
        QList<int> seen;
        for (const QString& event : events) {
            if (event == "begin")
                summary.beginRun();
            else if (event == "end")
                summary.endRun();
            else if (event == "cancel")
                summary.cancelSending();
            else if (event == "no counts")
                summary.countRecords(false);
            else
                summary.requestStarted(event.mid(4), "1");
            seen.append(logger->logLevel());
        }
        QCOMPARE(seen, levels);
        summary.steerLogLevel(-1);
        logger->setLogLevel(7);
        summary.beginRun();
        QCOMPARE(logger->logLevel(), 7); // handed back
    }

    void warnings()
    {
        QFETCH(QStringList, lines);
        QFETCH(QVariant, url);
        RunSummary summary;
        play(summary, lines);
        const RunWarnings warnings(summary.outcomes(), url, summary.cancelLost());
        QTEST(warnings.incomplete(), "incomplete");
        QTEST(warnings.lines(), "warnings");
    }

    void nearMisses_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("meant"); // empty: no warning
        QTest::newRow("exact") << "KepWebServiceUrl" << "";
        QTest::newRow("case") << "KepWebServiceURL" << "KepWebServiceUrl";
        QTest::newRow("separators") << "kep_web_service_url" << "KepWebServiceUrl";
        QTest::newRow("other key's case") << "showtestupdates" << "ShowTestUpdates";
        QTest::newRow("another word") << "KepWebServiceUri" << "";
        QTest::newRow("unrelated") << "Proxy" << "";
    }

    void nearMisses()
    {
        QFETCH(QString, key);
        QFETCH(QString, meant);
        const QString warning = SettingsCheck::nearMiss(key);
        QCOMPARE(warning.isEmpty(), meant.isEmpty());
        QVERIFY2(meant.isEmpty() || warning.endsWith("did you mean " + meant + "?"), qPrintable(warning));
    }

    // On a terminal: one line, rewritten in place, that turns into a notice after a few seconds
    // and is wiped before anything else is written.
    void progressInPlace()
    {
        QTemporaryFile file;
        QVERIFY(file.open());
        std::FILE* out = std::fopen(qPrintable(file.fileName()), "w");
        QVERIFY(out);
        ProgressReport progress(ProgressReport::Mode::InPlace, "http://kep.invalid/", out);
        progress.productStarted(2, 4, "M");
        const auto written = [&file] { return QString::fromUtf8(TestDb::readFile(file.fileName())); };
        QCOMPARE(written(), QString("\rtav-host: checking product 2 of 4 (media M)\033[K"));
        QTRY_VERIFY_WITH_TIMEOUT(written().contains("\rtav-host: product 2 of 4 (media M): waiting for the service at "
                                                    "http://kep.invalid/ for 3 s, giving up at "), 6000);
        QVERIFY2(written().contains("\rtav-host: checking product 2 of 4 (media M), 1 s\033[K"), qPrintable(written()));
        ProgressReport::clearLine(out);
        QVERIFY(written().endsWith("\033[K\r\033[K"));
        progress.finish(); // nothing left to wipe
        QVERIFY(written().endsWith("\033[K\r\033[K"));
        std::fclose(out);
    }

    void simulatorCommandLine_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("out"); // a pattern for all of standard output
        QTest::addColumn<QString>("err"); // and of standard error
        QTest::newRow("help") << QStringList{"--help"} << 0
                              << "Usage: kep-sim \\[options\\]\n.*--fixtures <DIR>.*--tls <CERT> <KEY>.*\nExit status:\n.*  64 .*" << "";
        QTest::newRow("version") << QStringList{"--version"} << 0 << "kep-sim \\d+\\.\\d+\\.\\d+\\.\\d+\n" << "";
        QTest::newRow("unknown option") << QStringList{"--bogus"} << 64 << ""
                                        << "kep-sim: Unknown option 'bogus'\\.\nTry 'kep-sim --help' for the options\\.\n";
        QTest::newRow("tls without key") << QStringList{"--fixtures", KEP_FIXTURES_DIR, "--tls", "cert.pem"} << 64 << ""
                                         << "kep-sim: --tls needs CERT and KEY\n";
    }

    void simulatorCommandLine()
    {
        QFETCH(QStringList, arguments);
        QProcess sim;
        sim.start(KEP_SIM_PATH, arguments);
        QVERIFY(sim.waitForFinished(10000) && sim.exitStatus() == QProcess::NormalExit);
        QTEST(sim.exitCode(), "exitCode");
        QFETCH(QString, out);
        QFETCH(QString, err);
        const auto matches = [](const QString& pattern, const QByteArray& text) {
            return QRegularExpression(QRegularExpression::anchoredPattern(pattern), QRegularExpression::DotMatchesEverythingOption)
                .match(QString::fromUtf8(text)).hasMatch();
        };
        const QByteArray written = sim.readAllStandardOutput(), error = sim.readAllStandardError();
        QVERIFY2(matches(out, written), written.constData());
        QVERIFY2(matches(err, error), error.constData());
    }

    // The plug-in's lines on standard error at the asked level are those a trace of the same run
    // holds at that level or above, in order: none lost to the summary's own level, none added.
    void logLevels_data()
    {
        QTest::addColumn<QStringList>("simArguments");
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("primeCache");
        for (const char* level : {"1", "2"}) {
            const QStringList asked{"--summary", "--log-level", level};
            QTest::addRow("answered, %s", level) << QStringList() << asked << false;
            QTest::addRow("from the cache, %s", level) << QStringList{"--fault", "reset"} << asked << true;
            QTest::addRow("cancelled under way, %s", level) << QStringList{"--delay-ms", "2000"} << asked + QStringList{"--cancel-after", "500"} << false;
        }
    }

    void logLevels()
    {
        QFETCH(QStringList, simArguments);
        QFETCH(QStringList, arguments);
        QFETCH(bool, primeCache);
        QVERIFY2(TestDb::isolated(), "run through ctest: needs the temporary databases");
        writeProducts(twoProducts);
        KepSimProcess healthy;
        QVERIFY2(healthy.start(KEP_SIM_PATH, KEP_FIXTURES_DIR), qPrintable(healthy.errorText()));
        KepSimProcess sim;
        QVERIFY2(sim.start(KEP_SIM_PATH, KEP_FIXTURES_DIR, simArguments), qPrintable(sim.errorText()));
        QTemporaryDir scratch;
        const auto pluginLines = [&](const QString& url, const QStringList& hostArguments) {
            QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
            environment.insert("XDG_CACHE_HOME", scratch.filePath("cache"));
            QProcess host;
            host.setProcessEnvironment(environment);
            host.setWorkingDirectory(scratch.path());
            host.start(TAV_HOST_PATH, QStringList{"--set", "KepWebServiceUrl=" + url} + hostArguments);
            QStringList lines;
            if (!host.waitForFinished(60000))
                return lines << "(no end)";
            for (const QString& line : QString::fromUtf8(host.readAllStandardError()).split('\n')) {
                if (QRegularExpression("^[0-9] ").match(line).hasMatch())
                    lines.append(line);
            }
            return lines;
        };
        const int asked = arguments.at(arguments.indexOf("--log-level") + 1).toInt();
        if (primeCache)
            QVERIFY(!pluginLines(healthy.url(), {"--log-level", "2"}).contains("(no end)"));
        const QStringList traced = pluginLines(sim.url(), QStringList(arguments).replaceInStrings(QRegularExpression("^[12]$"), "0"));
        QVERIFY(traced.filter("call_GetTAVProductInfo").size() == (arguments.contains("--cancel-after") ? 1 : 2));
        const QStringList shown = pluginLines(sim.url(), arguments);
        QStringList expected;
        for (const QString& line : traced) {
            if (line.leftRef(1).toInt() >= asked)
                expected.append(line);
        }
        QCOMPARE(shown, expected);
    }

    void commandLines_data()
    {
        QTest::addColumn<QStringList>("products"); // the first per user, the others system-wide
        QTest::addColumn<QStringList>("simArguments"); // %fixtures: the examples and MEDIA-BROKEN, whose fixture fails
        QTest::addColumn<QStringList>("arguments"); // %url: the simulator's, %closed: a port nobody listens on
        QTest::addColumn<QByteArray>("settingsFile"); // given with --settings when not empty
        QTest::addColumn<bool>("primeCache"); // one healthy run first
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("out"); // a pattern for all of standard output
        QTest::addColumn<QStringList>("err"); // patterns of whole lines on standard error; no other warnings
        const QStringList none;
        const QStringList withUrl{"--set", "KepWebServiceUrl=%url"};
        auto refused = [](const char* name, const QStringList& arguments, const QStringList& err, const QByteArray& settings = {}) {
            QTest::newRow(name) << QStringList() << QStringList() << arguments << settings << false << 64 << "" << err;
        };
        refused("unknown option", {"--frobnicate"}, {"^tav-host: Unknown option 'frobnicate'\\.$", usageHint});
        refused("value missing", {"--plugin"}, {"^tav-host: Missing value after '--plugin'\\.$", usageHint});
        refused("stray argument", {"extra"}, {"^tav-host: unexpected argument extra$", usageHint});
        refused("log level too high", {"--log-level", "7"}, {"^tav-host: --log-level expects 0, 1 or 2, got 7$"});
        refused("log level not a number", {"--log-level", "high"}, {"^tav-host: --log-level expects 0, 1 or 2, got high$"});
        refused("negative cancel", {"--cancel-after", "-5"}, {"^tav-host: --cancel-after expects milliseconds from 0 to 86400000, got -5$"});
        refused("set without value", {"--set", "KepWebServiceUrl"}, {"^tav-host: --set expects KEY=VALUE, got KepWebServiceUrl$"});
        refused("progress and quiet", {"--progress", "--quiet"}, {"^tav-host: --progress and --quiet exclude each other$"});
        refused("screenshot without window", {"--screenshot", "x.png"}, {"^tav-host: --screenshot needs --gui$"});
        refused("missing settings file", {"--settings", "/nonexistent/tav.conf"}, {"^tav-host: settings file /nonexistent/tav.conf does not exist$"});
        refused("settings under a section", {}, {"^tav-host: settings file .*, line 2: keys under the section \\[Kep\\] are not read; .*$"},
                "; the service\n[Kep]\nKepWebServiceUrl=http://127.0.0.1:1/\n");
        refused("binary settings", {}, {"^tav-host: settings file .* is not a text file \\(binary content at byte 8\\)$"},
                QByteArray("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16));
        refused("settings without keys", {}, {"^tav-host: settings file .* holds no KEY=VALUE lines$"}, "; nothing here\n\n");
        refused("settings line without =", {}, {"^tav-host: settings file .*, line 1: expected KEY=VALUE, got \"KepWebServiceUrl http://x/\"$"},
                "KepWebServiceUrl http://x/\n");
        QTest::newRow("not a plug-in") << none << none << QStringList{"--plugin", TAVCORE_PATH} << QByteArray() << false << 1 << ""
                                       << QStringList{"^tav-host: cannot read plug-in metadata.*"};
        QTest::newRow("help") << none << none << QStringList{"--help"} << QByteArray() << false << 0
                              << "Usage: tav-host \\[options\\]\n.*--strict .*--progress .*\nExit status:\n.*  3 .*\nEnvironment:\n"
                                 ".*TAV_SYSTEM_DB_DIR.*\nSettings file:\n.*KepWebServiceUrl.*\nWorking directory:\n.*" << none;
        QTest::newRow("version") << none << none << QStringList{"--version"} << QByteArray() << false << 0
                                 << "tav-host \\d+\\.\\d+\\.\\d+\\.\\d+\nplug-in KEP 2\\.0\\.0\\.0 \\(.*libkepdataprovider\\.so\\)\n" << none;
        QTest::newRow("no products") << none << none << withUrl << QByteArray() << false << 5 << "" << none;
        QTest::newRow("settings file with [General]") << twoProducts << none << QStringList() << QByteArray("[General]\nKepWebServiceUrl=%url\n")
                                                      << false << 0 << answered << none;

        // Products the service did not answer, whatever the log level.
        const QString noAnswer = warning + "2 of 2 products got no answer from the service ";
        QTest::newRow("misspelt key") << twoProducts << none << QStringList{"--set", "KepWebServiceURL=%url"} << QByteArray() << false << 0 << nothing
            << QStringList{warning + "the setting KepWebServiceURL is not read by the plug-in \\(names are case-sensitive\\); did you mean KepWebServiceUrl\\?$",
                           noAnswer + "\\(no address set\\): .*; 0 were answered from the cache$",
                           warning + "the setting KepWebServiceUrl is not set: .*$"};
        QTest::newRow("empty address") << twoProducts << none << QStringList{"--set", "KepWebServiceUrl="} << QByteArray() << false << 0 << nothing
            << QStringList{noAnswer + "at \"\": .*; 0 were answered from the cache$", warning + "the setting KepWebServiceUrl is empty$"};
        QTest::newRow("address without scheme") << twoProducts << none << QStringList{"--set", "KepWebServiceUrl=127.0.0.1:1/"} << QByteArray() << false
            << 0 << nothing << QStringList{noAnswer + "at \"127.0.0.1:1/\": .*; 0 were answered from the cache$",
                                      warning + "the setting KepWebServiceUrl \"127.0.0.1:1/\" does not start with http:// or https://$"};
        QTest::newRow("refused") << twoProducts << none << QStringList{"--set", "KepWebServiceUrl=%closed"} << QByteArray() << false << 0 << nothing
            << QStringList{noAnswer + "at \"http://127.0.0.1:\\d+/\": connection refused \\(error 1: .*\\); 0 were answered from the cache$"};
        QTest::newRow("refused, strict") << twoProducts << none << QStringList{"--set", "KepWebServiceUrl=%closed", "--strict", "--log-level", "0"}
            << QByteArray() << false << 3 << nothing << QStringList{noAnswer + "at .*; 0 were answered from the cache$"};
        QTest::newRow("from the cache") << twoProducts << QStringList{"--fault", "reset"} << withUrl << QByteArray() << true << 0 << answered
            << QStringList{noAnswer + "at \"http://127.0.0.1:\\d+/\": .*; 2 were answered from the cache$"};
        QTest::newRow("from the cache, strict") << twoProducts << QStringList{"--fault", "reset"} << withUrl + QStringList{"--strict"} << QByteArray()
            << true << 3 << answered << QStringList{noAnswer + "at .*; 2 were answered from the cache$"};

        // The service takes its time whenever the run is to be cancelled.
        const QStringList slow{"--delay-ms", "3000"};
        const QString cancelled = warning + "1 of %1 got no answer from the service at .*: the check was cancelled while the request "
                                            "was under way; 0 were answered from the cache$";
        QTest::newRow("cancelled from a third thread") << twoProducts << slow << withUrl + QStringList{"--cancel-after", "1000"} << QByteArray()
                                                       << false << 2 << "" << QStringList{cancelled.arg("1 product")};
        // The plug-in looks for a cancel only before each product: the run completes.
        QTest::newRow("cancelled during the last product") << QStringList{twoProducts.first()} << slow << withUrl + QStringList{"--cancel-after", "1000"}
            << QByteArray() << false << 0 << nothing << QStringList{cancelled.arg("1 product")};
        QTest::newRow("cancelled during the last product, strict") << QStringList{twoProducts.first()} << slow
            << withUrl + QStringList{"--cancel-after", "1000", "--strict"} << QByteArray() << false << 3 << nothing << QStringList{cancelled.arg("1 product")};
        QTest::newRow("answered, cancel after the run ended") << QStringList{twoProducts.last()} << none << withUrl + QStringList{"--cancel-after", "60000"}
                                                              << QByteArray() << false << 0 << answered << none;
        QTest::newRow("progress") << QStringList{twoProducts.first()} << QStringList{"--delay-ms", "4000"} << withUrl + QStringList{"--progress"} << QByteArray()
            << false << 0 << answered
            << QStringList{"^tav-host: checking product 1 of 1 \\(media MEDIA-STUDIO-2014\\)$",
                           "^tav-host: product 1 of 1 \\(media MEDIA-STUDIO-2014\\): waiting for the service at http://127.0.0.1:\\d+/ "
                           "for 3 s, giving up at \\d\\d:\\d\\d:\\d\\d$"};
        // A media id the service does not know is an answer from it.
        QTest::newRow("summary") << QStringList{"MEDIA-STUDIO-2014", "MEDIA-LEGACY-10", "MEDIA-UNKNOWN"} << none << withUrl + QStringList{"--summary"}
            << QByteArray() << false << 0 << answered
            << QStringList{"^summary: media \\[MEDIA-STUDIO-2014\\] update \\[1\\] \\d+ ms, service, 2 updates, 2 news$",
                           "^summary: media \\[MEDIA-LEGACY-10\\] update \\[2\\] \\d+ ms, service, 1 update, 1 news$",
                           "^summary: media \\[MEDIA-UNKNOWN\\] update \\[3\\] \\d+ ms, service, 0 updates, 0 news$",
                           "^summary: 3 products asked in \\d+ ms \\(service 3, cache 0, none 0, cancelled 0\\), 3 updates, 3 news$"};
        const QString studio = "^summary: media \\[MEDIA-STUDIO-2014\\] update \\[1\\] \\d+ ms, ";
        QTest::newRow("summary, one failed amid good ones") << QStringList{"MEDIA-STUDIO-2014", "MEDIA-BROKEN", "MEDIA-LEGACY-10"}
            << QStringList{"--fixtures", "%fixtures"} << withUrl + QStringList{"--summary", "--log-level", "1"} << QByteArray() << false << 0 << answered
            << QStringList{studio + "service, 2 updates, 2 news$", "^summary: media \\[MEDIA-BROKEN\\] update \\[2\\] \\d+ ms, none, 0 updates, 0 news$",
                           "^summary: media \\[MEDIA-LEGACY-10\\] update \\[3\\] \\d+ ms, service, 1 update, 1 news$",
                           "^summary: 3 products asked in \\d+ ms \\(service 2, cache 0, none 1, cancelled 0\\), 3 updates, 3 news$",
                           warning + "1 of 3 products got no answer from the service at .*: the service failed to answer \\(server error\\) "
                                     "\\(error 401: .*\\); 0 were answered from the cache$",
                           "^1 KepProductData::parseRawXmlDataNodeUpdate: parsing update with id = "};
        QTest::newRow("summary from the cache") << twoProducts << QStringList{"--fault", "reset"} << withUrl + QStringList{"--summary"} << QByteArray()
            << true << 0 << answered
            << QStringList{studio + "cache, 2 updates, 2 news$", "^summary: media \\[MEDIA-TOOLS-2013\\] update \\[2\\] \\d+ ms, cache, 2 updates, 2 news$",
                           "^summary: 2 products asked in \\d+ ms \\(service 0, cache 2, none 0, cancelled 0\\), 4 updates, 4 news$",
                           noAnswer + "at .*; 2 were answered from the cache$"};
        QTest::newRow("summary, cancelled under way") << twoProducts << slow << withUrl + QStringList{"--cancel-after", "1000", "--summary"}
            << QByteArray() << false << 2 << ""
            << QStringList{studio + "cancelled, 0 updates, 0 news$",
                           "^summary: 1 product asked in \\d+ ms \\(service 0, cache 0, none 0, cancelled 1\\), 0 updates, 0 news$",
                           cancelled.arg("1 product")};
        // The reply cache's key "gtpi__1_MEDIA_STUDIO_2014" does not say where the ids part.
        QTest::newRow("summary, ids with underscores") << QStringList{"MEDIA_STUDIO_2014"} << none << withUrl + QStringList{"--summary"}
            << QByteArray() << false << 0 << nothing
            << QStringList{"^summary: media \\[MEDIA_STUDIO_2014\\] update \\[1\\] \\d+ ms, service, 0 updates, 0 news$",
                           "^summary: 1 product asked in \\d+ ms \\(service 1, cache 0, none 0, cancelled 0\\), 0 updates, 0 news$"};
    }

    void commandLines()
    {
        QFETCH(QStringList, products);
        QFETCH(QStringList, simArguments);
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, settingsFile);
        QFETCH(bool, primeCache);
        QFETCH(int, exitCode);
        QFETCH(QString, out);
        QFETCH(QStringList, err);
        QVERIFY2(TestDb::isolated(), "run through ctest: needs the temporary databases");
        writeProducts(products);
        QTemporaryDir scratch; // a cache of the row's own, a working directory, the settings file, fixtures
        if (simArguments.contains("%fixtures")) {
            const QString fixtures = scratch.filePath("fixtures");
            for (const QString& media : QDir(KEP_FIXTURES_DIR).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
                QVERIFY(QDir().mkpath(fixtures + "/" + media));
                for (const QString& file : QDir(KEP_FIXTURES_DIR "/" + media).entryList(QDir::Files))
                    QVERIFY(QFile::copy(KEP_FIXTURES_DIR "/" + media + "/" + file, fixtures + "/" + media + "/" + file));
            }
            QVERIFY(TestDb::writeFile(fixtures + "/MEDIA-BROKEN/default.xml", "<broken"));
            simArguments.replaceInStrings("%fixtures", fixtures);
        }
        KepSimProcess sim;
        QVERIFY2(sim.start(KEP_SIM_PATH, KEP_FIXTURES_DIR, simArguments), qPrintable(sim.errorText()));
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QString closedUrl = QString("http://127.0.0.1:%1/").arg(closed.serverPort());
        closed.close();
        arguments.replaceInStrings("%url", sim.url()).replaceInStrings("%closed", closedUrl);
        if (!settingsFile.isEmpty()) {
            QVERIFY(TestDb::writeFile(scratch.filePath("tav.conf"), settingsFile.replace("%url", sim.url().toUtf8())));
            arguments << "--settings" << scratch.filePath("tav.conf");
        }
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_CACHE_HOME", scratch.filePath("cache"));
        QProcess host;
        host.setProcessEnvironment(environment);
        host.setWorkingDirectory(scratch.path());
        if (primeCache) {
            KepSimProcess healthy;
            QVERIFY2(healthy.start(KEP_SIM_PATH, KEP_FIXTURES_DIR), qPrintable(healthy.errorText()));
            host.start(TAV_HOST_PATH, {"--set", "KepWebServiceUrl=" + healthy.url(), "--strict"});
            QVERIFY(host.waitForFinished(60000));
            QCOMPARE(host.exitCode(), 0);
        }
        QElapsedTimer clock;
        clock.start();
        host.start(TAV_HOST_PATH, arguments);
        QVERIFY(host.waitForFinished(120000) && host.exitStatus() == QProcess::NormalExit);
        QVERIFY2(clock.elapsed() < 30000, "a cancelled or finished run must not wait for the time-out");
        const QString written = host.readAllStandardOutput(), error = host.readAllStandardError();
        QVERIFY2(host.exitCode() == exitCode, qPrintable(QString("exit %1\n%2").arg(host.exitCode()).arg(error)));
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(out), QRegularExpression::DotMatchesEverythingOption)
                     .match(written).hasMatch(), qPrintable(written.left(300)));
        for (const QString& line : err)
            QVERIFY2(QRegularExpression(line, QRegularExpression::MultilineOption).match(error).hasMatch(), qPrintable(line + "\n" + error));
        QCOMPARE(error.count("\ntav-host: warning: ") + error.startsWith("tav-host: warning: "), err.filter(warning).size());
        QCOMPARE(error.count("summary: "), err.filter("summary").size());
        QCOMPARE(error.contains("tav-host: checking product"), arguments.contains("--progress") && exitCode != 64);
        QCOMPARE(error.contains("call_GetTAVProductInfo"), arguments.join(" ").contains("--log-level 0"));
        const int asked = arguments.contains("--log-level") ? arguments.at(arguments.indexOf("--log-level") + 1).toInt() : 2;
        for (const QString& line : error.split('\n'))
            QVERIFY2(!QRegularExpression("^[0-9] ").match(line).hasMatch() || line.leftRef(1).toInt() >= asked, qPrintable(line));
    }
};

QTEST_GUILESS_MAIN(TestTavHost)
#include "tst_tavhost.moc"
