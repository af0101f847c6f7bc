#include "LogCapture.h"
#include "RecordProbe.h"
#include "model/KepRawXmlProductDataParser.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>

using namespace KepPlugin;
using namespace RecordProbe;

// The reply parser on hostile or broken text: it must come back with its result and its
// failure line, never crash, and keep the product's records when it refuses a reply.
class TestReplyParserBadInput : public QObject
{
    Q_OBJECT
private slots:
    void badInput_data();
    void badInput();
    void externalEntityIsNotRead();
    void hugeReply_data();
    void hugeReply();
};

namespace {

const QString P = QStringLiteral("KepProductData::parseRawXmlData: ");
const QString head = QStringLiteral("<r><return_code>0</return_code>");

QString nested(const QString& name, int depth, const QString& inner = QString())
{
    return QString(QStringLiteral("<%1>").arg(name)).repeated(depth) + inner
        + QString(QStringLiteral("</%1>").arg(name)).repeated(depth);
}

// A reply whose elements nest depth levels deep, the root counting as the first.
QString nestedReply(int depth)
{
    return head + nested(QStringLiteral("a"), depth - 1) + QStringLiteral("</r>");
}

QString entityChain(int links)
{
    QString dtd = QStringLiteral("<!DOCTYPE r [<!ENTITY e0 \"x\">");
    for (int k = 1; k <= links; ++k)
        dtd += QStringLiteral("<!ENTITY e%1 \"<a>&e%2;</a>\">").arg(k).arg(k - 1);
    return dtd + QStringLiteral("]>") + head + QStringLiteral("<format>&e%1;</format></r>").arg(links);
}

QString binary()
{
    QString text;
    for (int i = 0; i < 4096; ++i)
        text += QChar(ushort((i * 7919) % 256));
    return text;
}

} // namespace

void TestReplyParserBadInput::badInput_data()
{
    QTest::addColumn<QString>("reply");
    QTest::addColumn<bool>("parsed");
    QTest::addColumn<QString>("failure"); // the level 2 line, empty when the reply is read

    const QString badXml = P + QStringLiteral("bad XML format of raw data: ");
    auto bad = [&](const QString& text) { return line(2, badXml, text); };
    const QString noReturnCode = line(2, P + "KEP returned incorrect data (no return_code tag)");

    QTest::newRow("empty") << "" << false << line(2, P + "raw data is empty");
    QTest::newRow("plain words") << "not xml at all" << false << bad("not xml at all");
    QTest::newRow("blanks only") << "  \n\t" << false << bad("  \n\t");
    QTest::newRow("binary") << binary() << false << bad(binary());
    QTest::newRow("NUL in text is taken as text") << head + QChar(0) + "</r>" << true << "";
    QTest::newRow("truncated") << head + "<updates><update><id>1" << false << bad(head + "<updates><update><id>1");
    QTest::newRow("two roots") << head + "</r><r/>" << false << bad(head + "</r><r/>");
    QTest::newRow("mismatched end tag") << head + "<a></b></r>" << false << bad(head + "<a></b></r>");
    QTest::newRow("prolog and comment, no root") << "<?xml version=\"1.0\"?><!-- c -->" << false
                                                 << bad("<?xml version=\"1.0\"?><!-- c -->");
    QTest::newRow("HTML error page") << "<html><body><h1>502 Bad Gateway</h1><br></body></html>" << false
                                     << bad("<html><body><h1>502 Bad Gateway</h1><br></body></html>");
    QTest::newRow("unterminated comment") << head + "<!-- </r>" << false << bad(head + "<!-- </r>");
    QTest::newRow("unterminated attribute") << "<r a=\"1><return_code>0</return_code></r>" << false
                                            << bad("<r a=\"1><return_code>0</return_code></r>");
    QTest::newRow("well-formed, not a reply") << "<html><body/></html>" << false << noReturnCode;

    // Nesting: the DOM reader recurses per level, so depth is bounded before it runs.
    QTest::newRow("nesting at the limit") << nestedReply(256) << true << "";
    QTest::newRow("one level over the limit") << nestedReply(257) << false << bad(nestedReply(257));
    QTest::newRow("stack overflow on 100k levels") << nestedReply(100000) << false << bad(nestedReply(100000));
    const QString deepField = head + "<updates><update><id>1</id><title>" + nested("b", 100000, "x")
        + "</title></update></updates></r>";
    QTest::newRow("stack overflow on 100k levels inside a field") << deepField << false << bad(deepField);
    const QString deepUnclosed = QStringLiteral("<a>").repeated(100000);
    QTest::newRow("stack overflow on 100k unclosed start tags") << deepUnclosed << false << bad(deepUnclosed);
    QTest::newRow("100k empty siblings") << head + QStringLiteral("<a/>").repeated(100000) + "</r>" << true << "";
    QTest::newRow("100k closed siblings") << head + QStringLiteral("<a><b/></a>").repeated(100000) + "</r>" << true
                                          << "";
    const QString hidden = head + "<!--" + QStringLiteral("<a>").repeated(1000) + "--><f><![CDATA["
        + QStringLiteral("<b>").repeated(1000) + "]]></f><?pi " + QStringLiteral("<c>").repeated(1000) + "?></r>";
    QTest::newRow("start tags inside comment, CDATA, PI do not count") << hidden << true << "";
    const QString quotedMarkup =
        head + QStringLiteral("<a v=\"/>\" w='>'>").repeated(300) + QStringLiteral("</a>").repeated(300) + "</r>";
    QTest::newRow("'>' and '/>' in attribute values do not hide nesting") << quotedMarkup << false << bad(quotedMarkup);
    const QString quotedFew =
        head + QStringLiteral("<a v=\"/>\" w='>'>").repeated(100) + QStringLiteral("</a>").repeated(100) + "</r>";
    QTest::newRow("'>' and '/>' in attribute values, shallow") << quotedFew << true << "";
    QTest::newRow("entity chain nesting") << entityChain(250) << true << "";
    const QString laughs = QStringLiteral(
        "<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\">"
        "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">"
        "<!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\"><!ENTITY e \"&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;\">"
        "<!ENTITY f \"&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;\"><!ENTITY g \"&f;&f;&f;&f;&f;&f;&f;&f;&f;&f;\">]>"
        "<r><return_code>0</return_code><format>&g;</format></r>");
    QTest::newRow("entity expansion bomb") << laughs << false << bad(laughs);
}

void TestReplyParserBadInput::badInput()
{
    QFETCH(QString, reply);
    QFETCH(bool, parsed);
    QFETCH(QString, failure);
    Product product(QStringLiteral("guid"));
    product.addUpdate(new CountedUpdate("old"));
    product.addNews(new CountedNews("old-news"));
    KepRawXmlProductDataParser parser(&product);
    LogCapture capture(2);
    QCOMPARE(parser.parseRawXmlData(reply), parsed);
    QCOMPARE(capture.lines(), failure.isEmpty() ? QStringList{} : QStringList{failure});
    QCOMPARE(updatesOf(product), parsed ? QStringList{} : QStringList{"id=old"});
    QCOMPARE(newsOf(product), parsed ? QStringList{} : QStringList{"id=old-news"});
}

void TestReplyParserBadInput::externalEntityIsNotRead()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QFile secret(dir.filePath("secret.txt"));
    QVERIFY(secret.open(QIODevice::WriteOnly));
    secret.write("top-secret");
    secret.close();
    const QString reply = QStringLiteral("<!DOCTYPE r [<!ENTITY s SYSTEM \"file://%1\">]>"
                                         "<r><return_code>0</return_code><updates><update><id>1</id>"
                                         "<title>[&s;]</title></update></updates></r>")
                              .arg(secret.fileName());
    Product product(QStringLiteral("guid"));
    KepRawXmlProductDataParser parser(&product);
    LogCapture capture(0);
    parser.parseRawXmlData(reply);
    for (const QString& l : capture.lines())
        QVERIFY2(!l.contains("top-secret"), qPrintable(l));
    for (const Update* update : product.updatesList())
        QVERIFY2(!describe(update).contains("top-secret"), qPrintable(describe(update)));
}

void TestReplyParserBadInput::hugeReply_data()
{
    QTest::addColumn<int>("updateCount");
    QTest::addColumn<int>("fieldSize");
    QTest::newRow("one 32 MB description") << 1 << 32 * 1024 * 1024;
    QTest::newRow("100k updates") << 100000 << 16;
}

void TestReplyParserBadInput::hugeReply()
{
    QFETCH(int, updateCount);
    QFETCH(int, fieldSize);
    const QString field = QString(fieldSize, QLatin1Char('d'));
    QString reply = head + QStringLiteral("<updates>");
    for (int i = 0; i < updateCount; ++i)
        reply += QStringLiteral("<update><id>%1</id><description>").arg(i) + field
            + QStringLiteral("</description></update>");
    reply += QStringLiteral("</updates></r>");

    Product product(QStringLiteral("guid"));
    KepRawXmlProductDataParser parser(&product);
    LogCapture capture(2);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(parser.parseRawXmlData(reply));
    qInfo("%d characters parsed in %lld ms", int(reply.size()), timer.elapsed());
    QVERIFY(capture.lines().isEmpty());
    const QList<Update*> updates = product.updatesList();
    QCOMPARE(updates.size(), updateCount);
    QCOMPARE(updates.last()->getDataByKey("id"), QString::number(updateCount - 1));
    QCOMPARE(updates.last()->getDataByKey("description").size(), fieldSize);
}

QTEST_GUILESS_MAIN(TestReplyParserBadInput)
#include "tst_replyparser_badinput.moc"
