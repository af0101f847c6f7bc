#include "FakeHttpServer.h"
#include "LogCapture.h"
#include "network/EscapedReplyReader.h"
#include "network/MarkupGuard.h"
#include "network/NetworkManager.h"
#include "tavcore/NetworkAccessManager.h"
#include "tavcore/NetworkCache.h"

#include <QDomDocument>
#include <QTextDocument>
#include <QtTest>

using KepPlugin::NetworkManager;
using Lines = QStringList;
Q_DECLARE_METATYPE(FakeHttpServer::Ending)

namespace {

const QString S = QStringLiteral("NetworkManager::sendRequestToKep: ");
TavCoreShared::Network::NetworkCache* cache() { return TavCoreShared::Network::NetworkAccessManager::instance()->cache(); }
// A line built from a pattern is one quoted item.
QString quoted(int level, const QString& text) { return LogCapture::line(level, {}, text).remove(1, 1); }
QString errorLine(int code, const QString& reason) { return quoted(2, S + QString("reply error [%1]: %2").arg(code).arg(reason)); }
// A body in chunks of 64 KB, then the last, empty one.
QByteArray chunked(const QByteArray& body)
{
    QByteArray out;
    for (int at = 0; at < body.size(); at += 65536) {
        const QByteArray chunk = body.mid(at, 65536);
        out += QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n";
    }
    return out + "0\r\n\r\n";
}
// An answer whose body the transport decodes itself (zlib data; qCompress puts its length first).
QByteArray compressed(const QByteArray& body)
{
    const QByteArray zlib = qCompress(body, 9).mid(4);
    return "HTTP/1.1 200 OK\r\nContent-Encoding: deflate\r\nContent-Length: " + QByteArray::number(zlib.size()) + "\r\n\r\n" + zlib;
}

} // namespace

// The service client against an HTTP peer in this process: the bytes it sends, how it reads
// answers and failures, the reply cache and cancellation. Built with KEP_SLOW_TIMEOUT, its answer
// table is the one real time-out: a minute long, so it runs under the "slow" label only.
class TestNetworkManager : public QObject
{
    Q_OBJECT
private slots:
    // The envelope, byte for byte, with the HMAC password, and the headers the service expects.
    void envelope_data()
    {
        QTest::addColumn<QStringList>("call"); // update id, media id, "y" for test updates
        QTest::addColumn<QString>("password"); // from openssl dgst -sha256 -mac HMAC -macopt hexkey:<the service key>
        const QString m1 = "3506295eba306db52772fadd3a489305e514d0ee91de9d076f7a31aadb129b6d";
        QTest::newRow("test updates") << QStringList{"u1", "m1", "y"} << m1;
        QTest::newRow("no test updates") << QStringList{"12", "MEDIA", "n"}
                                         << "c487c6746cc11cdf93178a50e01ff3eed37d21b4abf41b622114a3b3c10f1f47";
        QTest::newRow("empty ids") << QStringList{"", "", "n"} << "91f0a14c31393f91383ca0b1beb68fbb9dfbe488a965d16db72a4fd4e0b5c888";
        QTest::newRow("non-ASCII id counts UTF-8 bytes") << QStringList{"u\u00fc\u00e9", "m1", "y"} << m1;
    }
    void envelope()
    {
        QFETCH(QStringList, call);
        QFETCH(QString, password);
        const QString &updateId = call[0], &mediaId = call[1];
        QCOMPARE(NetworkManager().getHmacSHA256(mediaId + QChar(0) + "ignored"), password); // a zero character ends it
        FakeHttpServer server(FakeHttpServer::ok("answer"));
        FakeHttpServer::useService(server.url());
        NetworkManager manager;
        LogCapture log(0);
        manager.call_GetTAVProductInfo(updateId, mediaId, call[2] == "y");
        const QByteArray body =
            QString("<soap:Envelope xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"               "
                    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\"               "
                    "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">  <soap:Header>    "
                    "<AuthHeader xmlns=\"urn:vasko:kep:registration:1\">      <Login>%1</Login>      "
                    "<Password>%2</Password>    </AuthHeader>  </soap:Header>  <soap:Body>    "
                    "<GetTAVProductInfo xmlns=\"urn:vasko:kep:registration:1\">      <mediaID>%1</mediaID>      "
                    "<updateID>%3</updateID>      <showTestUpdate>%4</showTestUpdate>    </GetTAVProductInfo>  "
                    "</soap:Body></soap:Envelope>")
                .arg(mediaId, password, updateId, call[2])
                .toUtf8();
        const QByteArray request = server.requests.value(0);
        QCOMPARE(request.mid(request.indexOf("\r\n\r\n") + 4), body);
        const QStringList headers = QString::fromLatin1(request.left(request.indexOf("\r\n\r\n"))).toLower().split("\r\n");
        QVERIFY2(headers.filter("soapaction").isEmpty() && headers.contains("content-type: text/xml;charset=utf-8")
                     && headers.contains("content-length: " + QString::number(body.size())), qPrintable(headers.join('|')));
        QCOMPARE(cache()->data("gtpi__" + updateId + "_" + mediaId), QString("answer"));
        QCOMPARE(log.lines().value(0), quoted(0, QString("NetworkManager::call_GetTAVProductInfo: mediaId=[%1];updateId=[%2];"
                                                         "showTestUpdate=[%3]").arg(mediaId, updateId).arg(int(call[2] == "y"))));
    }

    // What the HTML reader of the clean-up may see: nesting and tags counted as that reader nests
    // them, and the markup it cannot take in bounded time, or at all without a GUI application.
    void markupGuard_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("refusal");
        const QString deep = "Answer markup nested deeper than 64 elements, refused", many = "Answer markup has more than 1024 tags, refused";
        auto r = [](const QString& unit, int times) { return unit.repeated(times); };
        QTest::newRow("64 deep") << r("<div>", 64) << "";
        QTest::newRow("65 deep") << r("<div>", 65) << deep;
        QTest::newRow("closed elements do not nest") << r(r("<div>", 64) + r("</div>", 64), 16) << "";
        QTest::newRow("1024 tags") << r("<p>x</p>", 1024) << "";
        QTest::newRow("1025 tags") << r("<p>x</p>", 1025) << many;
        QTest::newRow("an end tag closes what it holds") << "<div>" + r("<span>", 63) + "</div>" + r("<b>", 64) << "";
        QTest::newRow("stray end tags close nothing") << r("</div>", 100) + r("<div>", 65) << deep;
        QTest::newRow("end tag of another element") << r("<div>", 64) + "</span><i>" << deep;
        QTest::newRow("upper case and blanks") << r("< DIV title=x>", 65) << deep;
        QTest::newRow("elements without content") << r("<br><hr><img src=x><meta>", 256) << "";
        QTest::newRow("self-closed") << r("<x/>", 1000) << "";
        QTest::newRow("escaped payload") << r("&lt;div&gt;", 100000) << "";
        QTest::newRow("a '<' inside an attribute") << r("<p title=\"<b>\">", 33) << deep;
        QTest::newRow("table") << "<TABLE><tr><td colspan=9>x" << "Answer markup holds a table, refused";
        QTest::newRow("cell alone") << "<td>x" << "Answer markup holds a table, refused";
        QTest::newRow("style sheet") << "<style>p{color:red}</style><p>x" << "Answer markup holds a style sheet, refused";
        QTest::newRow("style attribute") << "<p class=x STYLE = \"color:red\">x" << "Answer markup holds a style attribute, refused";
        QTest::newRow("a word that is no attribute") << "<p>style = x</p><p title=style>" << "";
        QTest::newRow("link, no GUI application") << "<a href=x>y</a>" << "Answer markup holds a link, refused";
        QTest::newRow("4 MiB") << QString(4 << 20, 'x') << "";
        QTest::newRow("4 MiB and one") << QString((4 << 20) + 1, 'x') << "Answer larger than 4194304 bytes, refused";
    }
    void markupGuard()
    {
        QFETCH(QString, text);
        QTEST(KepPlugin::MarkupGuard::refusal(text), "refusal");
    }

    // The clean-up reads plain envelopes itself; whatever it reads must come out exactly as the
    // HTML reader gives it, and whatever that reader treats specially must go to it.
    void plainReading_data()
    {
        QTest::addColumn<QString>("reply");
        QTest::addColumn<bool>("plain");
        const QString head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">"
                             "<soap:Body><n1:GetTAVProductInfoResponse xmlns:n1='urn:a'><GetTAVProductInfoResult>";
        const QString tail = "</GetTAVProductInfoResult></n1:GetTAVProductInfoResponse></soap:Body></soap:Envelope>";
        auto wrapped = [&](const QString& payload) { return head + payload + tail; };
        QTest::newRow("escaped product") << wrapped("&lt;?xml version='1.0'?&gt;\n&lt;product_info&gt;\n  &lt;return_code&gt;0&lt;/return_code&gt;\n&lt;/product_info&gt;\n") << true;
        QTest::newRow("every reference") << wrapped("&lt;a t=&quot;1&quot; u=&apos;2&apos;&gt;&amp;amp;&lt;/a&gt;") << true;
        QTest::newRow("blanks collapse, across tags") << "  <s:a>  x \t\r\n\v\f y  </s:a>  <s:b/>  z  " << true;
        QTest::newRow("service code") << wrapped("[326] unknown media") << true;
        QTest::newRow("no envelope") << "&lt;product_info/&gt;" << true;
        QTest::newRow("tags only") << "<s:Envelope><s:Body/></s:Envelope>" << true;
        QTest::newRow("unprefixed long names, default namespace") << "<GetTAVProductInfoResponse xmlns=\"urn:a\">x</GetTAVProductInfoResponse>" << true;
        QTest::newRow("letters beyond ASCII") << wrapped(QString::fromUtf8("Grüße € \xf0\x9d\x84\x9e \x01 > ' \"")) << true;
        QTest::newRow("empty") << "" << true;
        QTest::newRow("HTML element") << wrapped("a<p>b</p>c") << false;
        QTest::newRow("HTML element in capitals") << "<Body>x</Body> y" << false;
        QTest::newRow("short unprefixed name") << "<item>x</item>" << false;
        QTest::newRow("named reference") << wrapped("a&nbsp;b") << false;
        QTest::newRow("numeric reference") << wrapped("&#65;&#x42;") << false;
        QTest::newRow("reference without semicolon") << wrapped("&lt b") << false;
        QTest::newRow("bare ampersand") << wrapped("a & b") << false;
        QTest::newRow("comment") << wrapped("<!-- x -->y") << false;
        QTest::newRow("declaration not first") << " <?xml version=\"1.0\"?>x" << false;
        QTest::newRow("declaration with an open quote") << "<?xml \"?>x" << false; // the reader swallows the rest
        QTest::newRow("zero character") << QString("a") + QChar(0) + "b" << false;
        QTest::newRow("attribute without quotes") << "<s:a b=c>x</s:a>" << false;
        QTest::newRow("'>' inside an attribute") << "<s:a b=\"c>d\">x</s:a>" << false;
        QTest::newRow("attribute on an end tag") << "<s:a>x</s:a b=\"c\">" << false;
        QTest::newRow("unterminated tag") << "x<s:a b=\"c\"" << false;
        QTest::newRow("no-break space") << wrapped(QString("a") + QChar(0xa0) + "b") << false;
        QTest::newRow("line separator") << wrapped(QString("a") + QChar(0x2028) + "b") << false;
        QTest::newRow("paragraph separator") << wrapped(QString("a") + QChar(0x2029) + "b") << false;
        QTest::newRow("frame mark") << wrapped(QString("a") + QChar(0xfdd0) + "b") << false;
        QTest::newRow("lone surrogate") << wrapped(QString("a") + QChar(0xd800) + "b") << false;
    }
    void plainReading()
    {
        QFETCH(QString, reply);
        QTextDocument document;
        document.setHtml(reply);
        QString text;
        QTEST(KepPlugin::EscapedReplyReader::read(reply, &text), "plain");
        QCOMPARE(NetworkManager::soapReplyToText(reply), document.toPlainText());
    }

    // Each answer, with or without a cache entry and key, ends in one state code, reply text, cache
    // entry and set of log lines.
    void answer_data()
    {
        QTest::addColumn<QByteArray>("answer"); // "refused": nobody listens; "cancel": cancelled once asked
        QTest::addColumn<FakeHttpServer::Ending>("ending");
        QTest::addColumn<QStringList>("entry"); // the key, the entry before (null: none) and after
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("text");
        QTest::addColumn<Lines>("lines");
        const Lines ok{LogCapture::line(0, S + "reply ok")}, hit{LogCapture::line(0, S + "try loading data from cache..."),
                                                                 LogCapture::line(0, S + "cached data loaded")};
        const Lines miss{hit[0], LogCapture::line(0, S + "no cache data")};
        const QString refused = errorLine(1, "Connection refused"), closed = errorLine(2, "Connection closed");
        auto parsed = [](const char* code) { return LogCapture::line(0, "NetworkManager::checkNetworkReply(): error code parsed = ", code); };
        auto row = [](const char* name, const QByteArray& answer, int state, const QString& text, const Lines& lines,
                      const QStringList& entry = {"", "sentinel", "sentinel"}, FakeHttpServer::Ending ending = FakeHttpServer::Close) {
            QTest::newRow(name) << answer << ending << entry << state << text << lines;
        };
#ifdef KEP_SLOW_TIMEOUT
        const Lines timeout{LogCapture::line(0, S + "request is aborted by timeout"), errorLine(5, "Operation canceled")};
        return row("silent, hit", {}, 1, "cached", timeout + hit, {"k8", "<p>cached</p>", "<p>cached</p>"}, FakeHttpServer::Silent);
#endif
        row("ok, entry replaced", FakeHttpServer::ok("fresh"), 0, "fresh", ok, {"k1", "old", "fresh"});
        row("ok, no key", FakeHttpServer::ok("fresh"), 0, "fresh", ok);
        row("empty answer replaces a good entry", FakeHttpServer::ok({}), -1, "", ok, {"k0", "good", ""});
        // Text from the cache is cleaned like an answer, but its code is never read.
        row("refused, hit", "refused", 1, "[326] old", Lines{refused} + hit, {"k2", "<p>[326] old</p>", "<p>[326] old</p>"});
        row("refused, miss", "refused", 3, "", Lines{refused} + miss, {"k3", QString(), ""});
        row("refused, no key", "refused", 3, "", {refused, miss[1]});
        row("reset, hit", {}, 1, "old", Lines{closed} + hit, {"k5", "old", "old"}, FakeHttpServer::Reset);
        row("cancelled, cache not used", "cancel", 7, "", {LogCapture::line(2, S + "operation cancelled")},
            {"k7", "unused", "unused"}, FakeHttpServer::Silent);
        const QByteArray fault = "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                                 "<soap:Fault><faultcode>soap:Server</faultcode><faultstring>[326] boom</faultstring>"
                                 "</soap:Fault></soap:Body></soap:Envelope>";
        row("garbage", "SSH-2.0-OpenSSH_9.2\r\n\r\n", 3, "", {closed, miss[1]});
        row("html page", FakeHttpServer::ok("<html><body><p>Back   at 6 pm.</p></body></html>"), 0, "Back at 6 pm.", ok);
        row("soap fault with 200", FakeHttpServer::ok(fault), 5, "soap:Server[326] boom", ok + Lines{parsed("326")});
        row("soap fault with 500", FakeHttpServer::ok(fault, "500 Internal Server Error"), 3, "",
            {errorLine(401, "Error transferring %1 - server replied: Internal Server Error"), miss[1]});
        row("closed mid-body", "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n<r>", 3, "", {closed, miss[1]});
        row("reset mid-body", "HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\nabc", 3, "", {closed, miss[1]}, {"", "sentinel", "sentinel"},
            FakeHttpServer::Reset);
        row("zero byte ends the text", FakeHttpServer::ok(QByteArray("abc\0[10] x", 10)), 0, "abc", ok);
        // An answer the simulator gave, byte for byte: the payload comes out as the XML reader reads it,
        // white space collapsed the way HTML reads it.
        QFile file(QStringLiteral(KEP_NETWORK_DATA_DIR "/kdsoap-answer-legacy.xml"));
        const QByteArray kdsoap = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        QDomDocument soap;
        QVERIFY(soap.setContent(kdsoap));
        const QString payload = soap.elementsByTagName("GetTAVProductInfoResult").at(0).toElement().text();
        row("KDSoap answer", FakeHttpServer::ok(kdsoap), 0, QString(payload).replace(QRegularExpression("\\s+"), " "), ok);
        // The bound holds on the body as decoded, however it is framed; past it the cached entry stays.
        const int bound = 4 * 1024 * 1024;
        const QByteArray full(bound, 'A'), over = full + 'A';
        const QString tooLarge = errorLine(299, "Answer larger than 4194304 bytes, aborted");
        const QStringList kept{"k10", "kept", "kept"};
        row("at the bound", FakeHttpServer::ok(full), 0, QString(full), ok, {"k9", "old", QString(full)});
        // Refused on its headers: the body never comes.
        row("one byte over, announced", "HTTP/1.1 200 OK\r\nContent-Length: 4194305\r\n\r\nAAA", 1, "kept", Lines{tooLarge} + hit,
            kept, FakeHttpServer::Stall);
        row("one byte over, unannounced", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + over, 1, "kept", Lines{tooLarge} + hit, kept);
        row("one byte over, chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked(over), 1, "kept",
            Lines{tooLarge} + hit, kept);
        row("at the bound, compressed", compressed(full), 0, QString(full), ok);
        row("one byte over, compressed", compressed(over), 1, "kept", Lines{tooLarge} + hit, kept);
        row("50 MB, announced", FakeHttpServer::ok(QByteArray(50 << 20, 'A')), 3, "", {tooLarge, miss[1]});
        // What the HTML reader could not take is refused like an oversized answer, and so is such a
        // cached entry, which would otherwise stall every run without the service.
        const QString deep = QString("<div>").repeated(65);
        row("markup too deep", FakeHttpServer::ok(deep.toUtf8()), 1, "kept",
            Lines{errorLine(299, "Answer markup nested deeper than 64 elements, refused")} + hit, kept);
        row("refused, hostile entry", "refused", 3, "",
            {refused, hit[0], quoted(2, S + "cached data refused: Answer markup nested deeper than 64 elements, refused"), miss[1]},
            {"k11", deep, deep});
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
        QFETCH(QStringList, entry);
        QFETCH(int, state);
        QFETCH(QString, text);
        QFETCH(Lines, lines);
        if (!entry[1].isNull())
            cache()->insert(entry[0], entry[1]);
        FakeHttpServer server(answer, ending);
        FakeHttpServer::useService(answer == "refused" ? FakeHttpServer().url() : server.url());
        NetworkManager manager;
        manager.interrupt(); // nothing in flight: harmless
        if (answer == "cancel")
            server.onRequest = [&] { manager.interrupt(); };
        QByteArray body("<x/>");
        LogCapture log(0);
        QElapsedTimer clock;
        clock.start();
        manager.sendRequestToKep(manager.prepareRequest(body, entry[0]), body);
        // Only silence waits, a minute (a coarse timer may end it 5% early).
        QVERIFY(clock.elapsed() < 70000 && (clock.elapsed() >= 57000) == lines.value(0).endsWith("aborted by timeout"));
        manager.removeSoapHeaders();
        manager.checkNetworkReply();
        QCOMPARE(log.lines(), lines.replaceInStrings("%1", server.url()));
        QCOMPARE(manager.error(), state);
        QVERIFY2(manager.networkReplyStr() == text, qPrintable(manager.networkReplyStr().left(200)));
        QCOMPARE(cache()->data(entry[0]), entry[2]);
    }
};

QTEST_GUILESS_MAIN(TestNetworkManager)
#include "tst_networkmanager.moc"
