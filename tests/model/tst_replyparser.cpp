#include "LogCapture.h"
#include "RecordProbe.h"
#include "model/KepRawXmlProductDataParser.h"

#include <QDomDocument>
#include <QtTest>

using namespace KepPlugin;
using namespace RecordProbe;

// The reply parser on well-formed replies: which elements become records, what they hold,
// and every log line at each logger level.
class TestReplyParser : public QObject
{
    Q_OBJECT
private slots:
    void parse_data();
    void parse();
    void formatKeepsEarlierValue();
    void argumentReplacesStoredText();
    void nodeListsAppendWithoutClearing();
};

namespace {

const QString P = QStringLiteral("KepProductData::parseRawXmlData: ");
const QString U = QStringLiteral("KepProductData::parseRawXmlDataNodeUpdate: ");
const QString N = QStringLiteral("KepProductData::parseRawXmlDataNodeNews: ");
const QString head = QStringLiteral("<r><return_code>0</return_code>");
const QStringList oldUpdates{"id=old"};
const QStringList oldNews{"id=old-news"};

QString updates(const QString& inner)
{
    return head + QStringLiteral("<updates>") + inner + QStringLiteral("</updates></r>");
}

QString news(const QString& inner)
{
    return head + QStringLiteral("<product_news>") + inner + QStringLiteral("</product_news></r>");
}

QStringList updateStart(const QString& id)
{
    return {line(1, U + "parsing update with id = ", id), trace(U + "update[id]=" + id)};
}

QStringList newsStart(const QString& id)
{
    return {line(1, N + "news message with id = ", id), trace(N + "new message[id]=" + id)};
}

} // namespace

void TestReplyParser::parse_data()
{
    QTest::addColumn<QString>("reply");
    QTest::addColumn<bool>("parsed");
    QTest::addColumn<int>("returnCode");
    QTest::addColumn<QString>("format");
    QTest::addColumn<QStringList>("updates");
    QTest::addColumn<QStringList>("news");
    QTest::addColumn<QStringList>("log"); // every line after the raw-data trace, at level 0

    // Reply structure: return code, format, containers.
    QTest::newRow("only return_code") << "<r><return_code>12</return_code></r>" << true << 12 << "" << QStringList{}
                                      << QStringList{} << QStringList{};
    QTest::newRow("any root name, format read")
        << "<anything><format>2.1</format><return_code>-3</return_code></anything>" << true << -3 << "2.1"
        << QStringList{} << QStringList{} << QStringList{};
    QTest::newRow("return_code not a number") << "<r><return_code>abc</return_code></r>" << true << 0 << ""
                                              << QStringList{} << QStringList{} << QStringList{};
    QTest::newRow("return_code in hex is no number") << "<r><return_code>0x1A</return_code></r>" << true << 0 << ""
                                                     << QStringList{} << QStringList{} << QStringList{};
    QTest::newRow("first return_code counts")
        << "<r><return_code>4</return_code><return_code>5</return_code></r>" << true << 4 << "" << QStringList{}
        << QStringList{} << QStringList{};
    QTest::newRow("return_code nested deeper")
        << "<r><x><return_code>0</return_code></x><updates><update><id>1</id></update></updates></r>" << false << -1
        << "" << oldUpdates << oldNews << QStringList{line(2, P + "KEP returned incorrect data (no return_code tag)")};
    QTest::newRow("return_code as the root") << "<return_code>0</return_code>" << false << -1 << "" << oldUpdates
                                             << oldNews
                                             << QStringList{line(2, P + "KEP returned incorrect data (no return_code tag)")};
    QTest::newRow("return_code differing in case")
        << "<r><Return_Code>0</Return_Code></r>" << false << -1 << "" << oldUpdates << oldNews
        << QStringList{line(2, P + "KEP returned incorrect data (no return_code tag)")};
    QTest::newRow("update directly under the root is ignored")
        << head + "<update><id>1</id></update></r>" << true << 0 << "" << QStringList{} << QStringList{} << QStringList{};
    QTest::newRow("message directly under the root is ignored")
        << head + "<message><id>1</id></message></r>" << true << 0 << "" << QStringList{} << QStringList{}
        << QStringList{};
    QTest::newRow("only the first updates container")
        << head + "<updates><update><id>1</id></update></updates><updates><update><id>2</id></update></updates></r>"
        << true << 0 << "" << QStringList{"id=1"} << QStringList{} << updateStart("1");
    QTest::newRow("updates nested deeper than the root's child is ignored")
        << head + "<x><updates><update><id>1</id></update></updates></x></r>" << true << 0 << "" << QStringList{}
        << QStringList{} << QStringList{};
    QTest::newRow("updates at any depth below the container, in document order")
        << updates("<update><id>1</id></update><group><update><id>2</id></update></group><update><id>3</id></update>")
        << true << 0 << "" << QStringList{"id=1", "id=2", "id=3"} << QStringList{}
        << updateStart("1") + updateStart("2") + updateStart("3");
    QTest::newRow("messages at any depth below the container")
        << news("<day><message><id>a</id></message></day><message><id>b</id></message>") << true << 0 << ""
        << QStringList{} << QStringList{"id=a", "id=b"} << newsStart("a") + newsStart("b");

    // The record's own id.
    QTest::newRow("update without id is skipped, the others read")
        << updates("<update><title>T</title></update><update><id>2</id></update>") << true << 0 << ""
        << QStringList{"id=2"} << QStringList{}
        << QStringList{line(1, U + "bad update (no id field)")} + updateStart("2");
    QTest::newRow("id nested inside another child is no id")
        << updates("<update><title><id>1</id></title></update>") << true << 0 << "" << QStringList{} << QStringList{}
        << QStringList{line(1, U + "bad update (no id field)")};
    QTest::newRow("id in upper case is no id, though accepted as a tag")
        << updates("<update><ID>1</ID></update>") << true << 0 << "" << QStringList{} << QStringList{}
        << QStringList{line(1, U + "bad update (no id field)")};
    QTest::newRow("first id names the update, the later one is kept in the map")
        << updates("<update><title>T</title><id>5</id><id>6</id></update>") << true << 0 << ""
        << QStringList{"id=6;title=T"} << QStringList{}
        << QStringList{line(1, U + "parsing update with id = ", "5"), trace(U + "update[title]=T"),
                       trace(U + "update[id]=5"), trace(U + "update[id]=6")};
    QTest::newRow("empty id still an id")
        << updates("<update><id/></update>") << true << 0 << "" << QStringList{"id="} << QStringList{}
        << QStringList{line(1, U + "parsing update with id = ", ""), trace(U + "update[id]=")};
    QTest::newRow("message without id is skipped")
        << news("<message><title>T</title></message><message><id>m</id></message>") << true << 0 << ""
        << QStringList{} << QStringList{"id=m"}
        << QStringList{line(1, N + "bad news message (no id field)")} + newsStart("m");

    // Tags of a record.
    QTest::newRow("all update fields stored as text")
        << updates("<update><id>1</id><download_cheksum>c1</download_cheksum><download_size> 12 </download_size>"
                   "<publish_date>2014-03-07</publish_date></update>")
        << true << 0 << "" << QStringList{"download_cheksum=c1;download_size= 12 ;id=1;publish_date=2014-03-07"}
        << QStringList{}
        << updateStart("1") + QStringList{trace(U + "update[download_cheksum]=c1"), trace(U + "update[download_size]= 12 "),
                                         trace(U + "update[publish_date]=2014-03-07")};
    QTest::newRow("unknown tag skipped")
        << updates("<update><id>1</id><download_checksum>x</download_checksum></update>") << true << 0 << ""
        << QStringList{"id=1"} << QStringList{}
        << updateStart("1") + QStringList{line(1, U + "unknown tag: ", "download_checksum")};
    QTest::newRow("update tag unknown to news")
        << news("<message><id>1</id><update_id>9</update_id></message>") << true << 0 << "" << QStringList{}
        << QStringList{"id=1"} << newsStart("1") + QStringList{line(1, N + "unknown tag: ", "update_id")};
    QTest::newRow("capitalised tag accepted, stored as written")
        << updates("<update><id>1</id><Title>T</Title></update>") << true << 0 << "" << QStringList{"Title=T;id=1"}
        << QStringList{} << updateStart("1") + QStringList{trace(U + "update[Title]=T")};
    QTest::newRow("capitalised news tag accepted, stored as written")
        << news("<message><id>1</id><PUBLISH_DATE>d</PUBLISH_DATE></message>") << true << 0 << "" << QStringList{}
        << QStringList{"PUBLISH_DATE=d;id=1"} << newsStart("1") + QStringList{trace(N + "new message[PUBLISH_DATE]=d")};
    QTest::newRow("tag twice keeps the later text")
        << updates("<update><id>1</id><title>a</title><title>b</title></update>") << true << 0 << ""
        << QStringList{"id=1;title=b"} << QStringList{}
        << updateStart("1") + QStringList{trace(U + "update[title]=a"), trace(U + "update[title]=b")};
    QTest::newRow("text of nested markup concatenated")
        << updates("<update><id>1</id><description>a<b>b<i>c</i></b>d</description></update>") << true << 0 << ""
        << QStringList{"description=abcd;id=1"} << QStringList{}
        << updateStart("1") + QStringList{trace(U + "update[description]=abcd")};
    QTest::newRow("attributes never read")
        << updates("<update lang=\"en\"><id kind=\"x\">1</id><title value=\"V\"/></update>") << true << 0 << ""
        << QStringList{"id=1;title="} << QStringList{}
        << updateStart("1") + QStringList{trace(U + "update[title]=")};

    // Related updates.
    QTest::newRow("related ids, duplicates dropped")
        << updates("<update><id>1</id><related_updates><id>3</id><id>2</id><id>3</id></related_updates></update>")
        << true << 0 << "" << QStringList{"id=1 rel=3,2"} << QStringList{}
        << updateStart("1") + QStringList{line(0, U + "looking for related updates"),
                                         line(0, U + "related update found = ", 3),
                                         line(0, U + "related update found = ", 2),
                                         line(0, U + "related update found = ", 3)};
    QTest::newRow("related id at any depth; a nested update is an update too")
        << updates("<update><id>1</id><related_updates><update><id>4</id><title>x</title></update>"
                   "<group><sub><id>5</id></sub></group></related_updates></update>")
        << true << 0 << "" << QStringList{"id=1 rel=4,5", "id=4;title=x"} << QStringList{}
        << updateStart("1")
               + QStringList{line(0, U + "looking for related updates"), line(0, U + "related update found = ", 4),
                             line(0, U + "related update found = ", 5)}
               + updateStart("4") + QStringList{trace(U + "update[title]=x")};
    QTest::newRow("related id not a number gives 0")
        << updates("<update><id>1</id><related_updates><id>x7</id></related_updates></update>") << true << 0 << ""
        << QStringList{"id=1 rel=0"} << QStringList{}
        << updateStart("1") + QStringList{line(0, U + "looking for related updates"),
                                         line(0, U + "related update found = ", 0)};
    QTest::newRow("empty related_updates")
        << updates("<update><id>1</id><related_updates/></update>") << true << 0 << "" << QStringList{"id=1"}
        << QStringList{}
        << updateStart("1") + QStringList{line(0, U + "looking for related updates"),
                                         line(0, U + "no related updates found")};
    QTest::newRow("related_updates with text but no id")
        << updates("<update><id>1</id><related_updates>4 5<ID>6</ID></related_updates></update>") << true << 0 << ""
        << QStringList{"id=1"} << QStringList{}
        << updateStart("1") + QStringList{line(0, U + "looking for related updates"),
                                         line(0, U + "no related updates found")};
    QTest::newRow("related_updates in capitals stored as text")
        << updates("<update><id>1</id><Related_Updates><id>2</id></Related_Updates></update>") << true << 0 << ""
        << QStringList{"Related_Updates=2;id=1"} << QStringList{}
        << updateStart("1") + QStringList{trace(U + "update[Related_Updates]=2")};
    QTest::newRow("related updates of two updates kept apart")
        << updates("<update><id>1</id><related_updates><id>2</id></related_updates></update>"
                   "<update><id>2</id><related_updates><id>1</id></related_updates></update>")
        << true << 0 << "" << QStringList{"id=1 rel=2", "id=2 rel=1"} << QStringList{}
        << updateStart("1") + QStringList{line(0, U + "looking for related updates"),
                                         line(0, U + "related update found = ", 2)}
               + updateStart("2")
               + QStringList{line(0, U + "looking for related updates"), line(0, U + "related update found = ", 1)};
    QTest::newRow("related_updates is no news tag")
        << news("<message><id>1</id><related_updates><id>2</id></related_updates></message>") << true << 0 << ""
        << QStringList{} << QStringList{"id=1"}
        << newsStart("1") + QStringList{line(1, N + "unknown tag: ", "related_updates")};

    // Nodes that are not elements.
    QTest::newRow("comment in an update is an unknown empty tag")
        << updates("<update><id>1</id><!-- note --></update>") << true << 0 << "" << QStringList{"id=1"}
        << QStringList{} << updateStart("1") + QStringList{line(1, U + "unknown tag: ", "")};
    QTest::newRow("text beside the fields is an unknown empty tag")
        << news("<message>loose<id>1</id></message>") << true << 0 << "" << QStringList{} << QStringList{"id=1"}
        << QStringList{line(1, N + "news message with id = ", "1"), line(1, N + "unknown tag: ", ""),
                       trace(N + "new message[id]=1")};
    QTest::newRow("processing instruction in an update")
        << updates("<update><?hint x?><id>1</id></update>") << true << 0 << "" << QStringList{"id=1"} << QStringList{}
        << QStringList{line(1, U + "parsing update with id = ", "1"), line(1, U + "unknown tag: ", ""),
                       trace(U + "update[id]=1")};
    QTest::newRow("CDATA directly in an update")
        << updates("<update><id>1</id><![CDATA[<title>x</title>]]></update>") << true << 0 << "" << QStringList{"id=1"}
        << QStringList{} << updateStart("1") + QStringList{line(1, U + "unknown tag: ", "")};
    QTest::newRow("CDATA and entities in a field are text")
        << updates("<update><id>1</id><title><![CDATA[a<b>]]> &amp; &lt;c&gt; &#65;</title></update>") << true << 0
        << "" << QStringList{"id=1;title=a<b> & <c> A"} << QStringList{}
        << updateStart("1") + QStringList{trace(U + "update[title]=a<b> & <c> A")};
    QTest::newRow("comment inside a field is no text")
        << updates("<update><id>1</id><title>a<!-- b -->c</title></update>") << true << 0 << ""
        << QStringList{"id=1;title=ac"} << QStringList{} << updateStart("1") + QStringList{trace(U + "update[title]=ac")};
    QTest::newRow("white space between elements is dropped")
        << "<r>\n  <return_code> 0 </return_code>\n  <updates>\n    <update>\n      <id>1</id>\n    </update>\n"
           "  </updates>\n</r>\n"
        << true << 0 << "" << QStringList{"id=1"} << QStringList{} << updateStart("1");
    QTest::newRow("undefined entity is dropped from the text, an unknown node beside fields")
        << updates("<update><id>1</id><title>a&nope;b</title>&nope;</update>") << true << 0 << ""
        << QStringList{"id=1;title=ab"} << QStringList{}
        << updateStart("1") + QStringList{trace(U + "update[title]=ab"), line(1, U + "unknown tag: ", "")};
    QTest::newRow("declaration and internal entity")
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?><!DOCTYPE r [<!ENTITY v \"2.0\">]>"
           "<r><return_code>1</return_code><updates><update><id>1</id><title>v&v;</title></update></updates></r>"
        << true << 1 << "" << QStringList{"id=1;title=v2.0"} << QStringList{}
        << updateStart("1") + QStringList{trace(U + "update[title]=v2.0")};
    QTest::newRow("non-ASCII text kept")
        << news("<message><id>1</id><title>Grüße €</title></message>") << true << 0 << "" << QStringList{}
        << QStringList{QString::fromUtf8("id=1;title=Grüße €")}
        << newsStart("1") + QStringList{trace(N + QString::fromUtf8("new message[title]=Grüße €"))};

    // Namespaces: names are matched as written.
    QTest::newRow("default namespace still matches")
        << "<r xmlns=\"urn:kep\"><return_code>0</return_code><updates><update><id>1</id></update></updates></r>" << true
        << 0 << "" << QStringList{"id=1"} << QStringList{} << updateStart("1");
    QTest::newRow("prefixed elements do not match")
        << "<k:r xmlns:k=\"urn:kep\"><return_code>0</return_code><k:updates><update><id>1</id></update></k:updates>"
           "<updates><update><k:id>2</k:id></update></updates></k:r>"
        << true << 0 << "" << QStringList{} << QStringList{} << QStringList{line(1, U + "bad update (no id field)")};
    QTest::newRow("prefixed return_code is not found")
        << "<r xmlns:k=\"urn:kep\"><k:return_code>0</k:return_code></r>" << false << -1 << "" << oldUpdates << oldNews
        << QStringList{line(2, P + "KEP returned incorrect data (no return_code tag)")};

    // Both kinds together, replacing what the product held.
    QTest::newRow("updates and news")
        << head + "<format>f</format><updates><update><id>1</id><title>U</title></update></updates>"
                  "<product_news><message><id>2</id><description>D</description></message></product_news></r>"
        << true << 0 << "f" << QStringList{"id=1;title=U"} << QStringList{"description=D;id=2"}
        << updateStart("1") + QStringList{trace(U + "update[title]=U")} + newsStart("2")
               + QStringList{trace(N + "new message[description]=D")};
}

void TestReplyParser::parse()
{
    QFETCH(QString, reply);
    QFETCH(bool, parsed);
    QFETCH(int, returnCode);
    QFETCH(QString, format);
    QFETCH(QStringList, updates);
    QFETCH(QStringList, news);
    QFETCH(QStringList, log);
    const QStringList fullLog = QStringList{trace(P + "rawData=[" + reply + "]")} + log;
    for (int level = 0; level <= 2; ++level) {
        Product product(QStringLiteral("guid"));
        product.addUpdate(new CountedUpdate("old"));
        product.addNews(new CountedNews("old-news"));
        KepRawXmlProductDataParser parser(&product);
        LogCapture capture(level);
        QCOMPARE(parser.parseRawXmlData(reply), parsed);
        QCOMPARE(capture.lines(), atLevel(fullLog, level));
        QCOMPARE(parser.kepReturnCode(), returnCode);
        QCOMPARE(parser.rawXmlDataFormat(), format);
        QCOMPARE(updatesOf(product), updates);
        QCOMPARE(newsOf(product), news);
    }
}

void TestReplyParser::formatKeepsEarlierValue()
{
    Product product(QStringLiteral("guid"));
    KepRawXmlProductDataParser parser(&product);
    LogCapture quiet(3);
    QVERIFY(parser.parseRawXmlData("<r><return_code>1</return_code><format>F1</format></r>"));
    QCOMPARE(parser.rawXmlDataFormat(), QString("F1"));
    QVERIFY(parser.parseRawXmlData("<r><return_code>2</return_code></r>"));
    QCOMPARE(parser.rawXmlDataFormat(), QString("F1"));
    QCOMPARE(parser.kepReturnCode(), 2);
    QVERIFY(!parser.parseRawXmlData("<r><format>F2</format></r>"));
    QCOMPARE(parser.rawXmlDataFormat(), QString("F1"));
    QCOMPARE(parser.kepReturnCode(), 2);
    QVERIFY(parser.parseRawXmlData("<r><return_code>3</return_code><format/></r>"));
    QCOMPARE(parser.rawXmlDataFormat(), QString());
}

void TestReplyParser::argumentReplacesStoredText()
{
    Product product(QStringLiteral("guid"));
    KepRawXmlProductDataParser parser(&product);
    LogCapture quiet(3);
    parser.setRawXmlData(updates("<update><id>1</id></update>"));
    QVERIFY(parser.parseRawXmlData(QString()));
    QCOMPARE(updatesOf(product), QStringList{"id=1"});
    QVERIFY(parser.parseRawXmlData(updates("<update><id>2</id></update>")));
    QCOMPARE(updatesOf(product), QStringList{"id=2"});
    QVERIFY(parser.parseRawXmlData(QString()));
    QCOMPARE(updatesOf(product), QStringList{"id=2"});
}

void TestReplyParser::nodeListsAppendWithoutClearing()
{
    Product product(QStringLiteral("guid"));
    product.addUpdate(new CountedUpdate("old"));
    product.addNews(new CountedNews("old-news"));
    QDomDocument document;
    QVERIFY(document.setContent(QStringLiteral("<r><update><id>1</id></update><message><id>2</id></message></r>")));
    KepRawXmlProductDataParser parser(&product);
    LogCapture quiet(3);
    QVERIFY(parser.parseRawXmlDataNodeUpdate(QDomNodeList()));
    QVERIFY(parser.parseRawXmlDataNodeNews(QDomNodeList()));
    QCOMPARE(updatesOf(product), oldUpdates);
    QVERIFY(parser.parseRawXmlDataNodeUpdate(document.elementsByTagName("update")));
    QVERIFY(parser.parseRawXmlDataNodeNews(document.elementsByTagName("message")));
    QCOMPARE(updatesOf(product), (QStringList{"id=old", "id=1"}));
    QCOMPARE(newsOf(product), (QStringList{"id=old-news", "id=2"}));
}

QTEST_GUILESS_MAIN(TestReplyParser)
#include "tst_replyparser.moc"
