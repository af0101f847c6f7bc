#include "FakeHttpServer.h"
#include "LogCapture.h"
#include "network/NetworkManager.h"
#include "tavcore/NetworkAccessManager.h"
#include "tavcore/NetworkCache.h"
#include "tavcore/SettingsManager.h"

#include <QDomDocument>
#include <QtTest>

using KepPlugin::NetworkManager;
using Lines = QStringList;
Q_DECLARE_METATYPE(FakeHttpServer::Ending)

namespace {

const QString S = QStringLiteral("NetworkManager::sendRequestToKep: ");

void useService(const QString& url)
{
    TavCoreShared::TavSettings::SettingsManager::instance()->setProperty("KepWebServiceUrl", url);
}

TavCoreShared::Network::NetworkCache* cache()
{
    return TavCoreShared::Network::NetworkAccessManager::instance()->cache();
}

QString parsed(const QString& code)
{
    return LogCapture::line(0, "NetworkManager::checkNetworkReply(): error code parsed = ", code);
}

QString errorLine(int code, const QString& reason)
{
    return LogCapture::line(2, {}, S + QString("reply error [%1]: %2").arg(code).arg(reason)).remove(1, 1);
}

} // namespace

// The service client against an HTTP peer in this process: the bytes it sends, how it reads
// answers and failures, the reply cache and cancellation.
class TestNetworkManager : public QObject
{
    Q_OBJECT
private slots:
    void password_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("password");
        // Known answers from openssl dgst -sha256 -mac HMAC -macopt hexkey:<the service key>.
        const QString empty = "91f0a14c31393f91383ca0b1beb68fbb9dfbe488a965d16db72a4fd4e0b5c888";
        QTest::newRow("empty message") << QString() << empty;
        QTest::newRow("known input") << "m1" << "3506295eba306db52772fadd3a489305e514d0ee91de9d076f7a31aadb129b6d";
        QTest::newRow("zero character ends the message") << QString::fromUtf8("\0m1", 3) << empty;
    }
    void password()
    {
        QFETCH(QString, input);
        QFETCH(QString, password);
        QCOMPARE(NetworkManager().getHmacSHA256(input), password);
    }

    void envelope_data()
    {
        QTest::addColumn<QString>("updateId");
        QTest::addColumn<QString>("mediaId");
        QTest::addColumn<bool>("showTestUpdate");
        QTest::addColumn<QString>("cacheKey");
        QTest::newRow("test updates") << "u1" << "m1" << true << "gtpi__u1_m1";
        QTest::newRow("no test updates") << "1200" << "MEDIA-STUDIO-2014" << false << "gtpi__1200_MEDIA-STUDIO-2014";
        QTest::newRow("empty ids") << "" << "" << false << "gtpi___";
        QTest::newRow("non-ASCII ids count UTF-8 bytes") << "u\u00fc" << "M\u00e9dia" << true << "gtpi__u\u00fc_M\u00e9dia";
    }
    void envelope()
    {
        QFETCH(QString, updateId);
        QFETCH(QString, mediaId);
        QFETCH(bool, showTestUpdate);
        QFETCH(QString, cacheKey);
        FakeHttpServer server(FakeHttpServer::ok("answer"));
        useService(server.url().toString());
        NetworkManager manager;
        LogCapture log(0);
        manager.call_GetTAVProductInfo(updateId, mediaId, showTestUpdate);

        const QByteArray body =
            QString("<soap:Envelope xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"               "
                    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\"               "
                    "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">  <soap:Header>    "
                    "<AuthHeader xmlns=\"urn:vasko:kep:registration:1\">      <Login>%1</Login>      "
                    "<Password>%2</Password>    </AuthHeader>  </soap:Header>  <soap:Body>    "
                    "<GetTAVProductInfo xmlns=\"urn:vasko:kep:registration:1\">      <mediaID>%1</mediaID>      "
                    "<updateID>%3</updateID>      <showTestUpdate>%4</showTestUpdate>    </GetTAVProductInfo>  "
                    "</soap:Body></soap:Envelope>")
                .arg(mediaId, manager.getHmacSHA256(mediaId), updateId, showTestUpdate ? "y" : "n")
                .toUtf8();
        QCOMPARE(server.requests.size(), 1);
        const QByteArray request = server.requests.first();
        const int end = request.indexOf("\r\n\r\n");
        QCOMPARE(request.mid(end + 4), body);
        QStringList headers = QString::fromLatin1(request.left(end)).toLower().split("\r\n").filter(": ");
        QVERIFY2(headers.filter("soapaction").isEmpty(), qPrintable(headers.join('|')));
        QVERIFY(headers.contains("content-type: text/xml;charset=utf-8"));
        QVERIFY(headers.contains("content-length: " + QString::number(body.size())));
        QCOMPARE(manager.error(), 0);
        QCOMPARE(cache()->data(cacheKey), QString("answer"));
        QCOMPARE(log.lines().value(0), LogCapture::line(0, {}, QString("NetworkManager::call_GetTAVProductInfo: mediaId=[%1];"
                                                                       "updateId=[%2];showTestUpdate=[%3]")
                                                                   .arg(mediaId, updateId).arg(int(showTestUpdate))).remove(1, 1));
    }

    // Each answer, with or without a cache entry and key, ends in one state code, reply text, cache
    // entry and set of log lines.
    void answer_data()
    {
        QTest::addColumn<QByteArray>("answer"); // "refused": nobody listens
        QTest::addColumn<FakeHttpServer::Ending>("ending");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("cachedBefore"); // null: no entry
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("cachedAfter");
        QTest::addColumn<Lines>("lines");
        const Lines ok{LogCapture::line(0, S + "reply ok")}, hit{LogCapture::line(0, S + "try loading data from cache..."),
                                                                 LogCapture::line(0, S + "cached data loaded")};
        const Lines miss{hit[0], LogCapture::line(0, S + "no cache data")};
        const QString refused = errorLine(1, "Connection refused"), closed = errorLine(2, "Connection closed");
        const QByteArray fresh = FakeHttpServer::ok("fresh");
        auto row = [](const char* name, const QByteArray& answer, int state, const QString& text, const Lines& lines,
                      FakeHttpServer::Ending ending = FakeHttpServer::Close) {
            QTest::newRow(name) << answer << ending << "" << "sentinel" << state << text << "sentinel" << lines;
        };
        QTest::newRow("ok, entry replaced") << fresh << FakeHttpServer::Close << "k1" << "old" << 0 << "fresh" << "fresh" << ok;
        QTest::newRow("ok, no key") << fresh << FakeHttpServer::Close << "" << "sentinel" << 0 << "fresh" << "sentinel" << ok;
        QTest::newRow("empty answer replaces a good entry") << FakeHttpServer::ok({}) << FakeHttpServer::Close << "k0" << "good"
                                                            << -1 << "" << "" << ok;
        QTest::newRow("refused, hit") << QByteArray("refused") << FakeHttpServer::Close << "k2" << "old" << 1 << "old" << "old"
                                      << Lines{refused} + hit;
        QTest::newRow("refused, miss") << QByteArray("refused") << FakeHttpServer::Close << "k3" << QString() << 3 << "" << ""
                                       << Lines{refused} + miss;
        QTest::newRow("refused, no key") << QByteArray("refused") << FakeHttpServer::Close << "" << "sentinel" << 3 << ""
                                         << "sentinel" << Lines{refused, miss[1]};
        QTest::newRow("reset, hit") << QByteArray() << FakeHttpServer::Reset << "k5" << "old" << 1 << "old" << "old"
                                    << Lines{closed} + hit;
        // Text from the cache is cleaned like an answer, but its code is never read.
        QTest::newRow("cached code not read") << QByteArray("refused") << FakeHttpServer::Close << "k7" << "<p>[326] gone</p>"
                                              << 1 << "[326] gone" << "<p>[326] gone</p>" << Lines{refused} + hit;
        const QByteArray fault = "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                                 "<soap:Fault><faultcode>soap:Server</faultcode><faultstring>[326] boom</faultstring>"
                                 "</soap:Fault></soap:Body></soap:Envelope>";
        row("garbage", "SSH-2.0-OpenSSH_9.2\r\n\r\n", 3, "", {closed, miss[1]});
        row("html page", FakeHttpServer::ok("<html><body><p>Back   at 6 pm.</p></body></html>"), 0, "Back at 6 pm.", ok);
        row("soap fault with 200", FakeHttpServer::ok(fault), 5, "soap:Server[326] boom", ok + Lines{parsed("326")});
        row("soap fault with 500", "HTTP/1.1 500 Internal Server Error\r\nContent-Length: " + QByteArray::number(fault.size())
                                       + "\r\n\r\n" + fault, 3, "",
            {errorLine(401, "Error transferring %1 - server replied: Internal Server Error"), miss[1]});
        row("closed mid-body", "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n<r>", 3, "", {closed, miss[1]});
        row("truncated headers", "HTTP/1.1 200 OK\r\nContent-Le", 3, "", {closed, miss[1]});
        row("reset mid-body", "HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\nabc", 3, "", {closed, miss[1]},
            FakeHttpServer::Reset);
        row("zero byte ends the text", FakeHttpServer::ok(QByteArray("abc\0[10] x", 10)), 0, "abc", ok);
        // An answer the simulator gave, byte for byte: the payload comes out as the XML reader reads it,
        // white space collapsed the way HTML reads it.
        QFile file(QFINDTESTDATA("data/kdsoap-answer-legacy.xml"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray kdsoap = file.readAll();
        QDomDocument soap;
        QVERIFY(soap.setContent(kdsoap));
        const QString payload = soap.elementsByTagName("GetTAVProductInfoResult").at(0).toElement().text();
        QVERIFY(payload.contains("<return_code>0</return_code>"));
        row("KDSoap answer", FakeHttpServer::ok(kdsoap), 0, QString(payload).replace(QRegularExpression("\\s+"), " "), ok);
        const QByteArray huge(50 * 1024 * 1024, 'A');
        row("50 MB", FakeHttpServer::ok(huge), 0, QString(huge), ok);
        // The service's code sits between the first "[" and the next "[" or the first "]".
        const struct { const char* text; int state; const char* code; } codes[] = {
            {"", -1, nullptr}, {"abc", 0, nullptr}, {"a]b[12]", 0, nullptr}, {"x [326] y", 5, "326"}, {"[abc]", -1, "abc"},
            {"[321 x", -1, "321 x"}, {"[10[x]", 4, "10"}, {"[0] then [326]", 0, "0"}, {"[38]", 0, "38"}, {"[119]", 0, "119"},
            {"[320]", 0, "320"}, {"[37]", 4, "37"}, {"[39]", 4, "39"}, {"[49]", 4, "49"}, {"[172]", 4, "172"}, {"[321]", 6, "321"},
            {"[7]", -1, "7"}, {"[-10]", -1, "-10"}};
        for (const auto& c : codes)
            row(c.text, FakeHttpServer::ok(c.text), c.state, c.text, c.code ? ok + Lines{parsed(c.code)} : ok);
    }
    void answer()
    {
        QFETCH(QByteArray, answer);
        QFETCH(FakeHttpServer::Ending, ending);
        QFETCH(QString, key);
        QFETCH(QString, cachedBefore);
        QFETCH(int, state);
        QFETCH(QString, text);
        QFETCH(QString, cachedAfter);
        QFETCH(Lines, lines);
        if (!cachedBefore.isNull())
            cache()->insert(key, cachedBefore);
        FakeHttpServer server(answer, ending);
        useService(answer == "refused" ? FakeHttpServer().url().toString() : server.url().toString());
        NetworkManager manager;
        QByteArray body("<x/>");
        LogCapture log(0);
        manager.sendRequestToKep(manager.prepareRequest(body, key), body);
        manager.removeSoapHeaders();
        manager.checkNetworkReply();
        QCOMPARE(log.lines(), lines.replaceInStrings("%1", server.url().toString()));
        QCOMPARE(manager.error(), state);
        QVERIFY2(manager.networkReplyStr() == text, qPrintable(manager.networkReplyStr().left(200)));
        QCOMPARE(cache()->data(key), cachedAfter);
    }

    void interrupt()
    {
        NetworkManager manager;
        LogCapture log(0);
        manager.interrupt(); // nothing in flight: nothing changes
        QCOMPARE(manager.error(), -1);
        QCOMPARE(log.lines(), Lines{});
        cache()->insert("gtpi__1_C", "must not be used");
        FakeHttpServer server({}, FakeHttpServer::Silent);
        useService(server.url().toString());
        server.onRequest = [&] { manager.interrupt(); };
        manager.call_GetTAVProductInfo("1", "C", false);
        QCOMPARE(manager.error(), 7);
        QCOMPARE(manager.networkReplyStr(), QString());
        QCOMPARE(log.lines().mid(1), Lines{LogCapture::line(2, S + "operation cancelled")});
    }

    void waitForSignal()
    {
        QTimer never;
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!NetworkManager().waitForSignal(&never, SIGNAL(timeout()), 200));
        QVERIFY(clock.elapsed() >= 190); // a coarse timer may fire 5% early
    }

};

QTEST_GUILESS_MAIN(TestNetworkManager)
#include "tst_networkmanager.moc"
