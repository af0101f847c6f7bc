#include "LogCapture.h"
#include "XmlOutline.h"
#include "model/KepRawXmlProductDataParser.h"
#include "model/News.h"
#include "model/PlainXmlTree.h"
#include "model/Product.h"
#include "model/Update.h"
#include "model/XmlNesting.h"

#include <QDomDocument>
#include <QMetaMethod>
#include <QtTest>

#include <memory>

using namespace KepPlugin;
using Fields = QMap<QString, QString>;

namespace {

const QString guid = QStringLiteral("{7c1a2b3c-0000-4000-8000-000000000001}");
const QString P = QStringLiteral("KepProductData::parseRawXmlData: ");
const QString U = QStringLiteral("KepProductData::parseRawXmlDataNodeUpdate: ");
const QString N = QStringLiteral("KepProductData::parseRawXmlDataNodeNews: ");
const QString head = QStringLiteral("<r><return_code>0</return_code>");
const QStringList kept{"", "news "}; // what each product holds before a parse, and keeps if it is refused
const QString nothingToParse = QStringLiteral("KepDataProvider:Product:parseRawXmlData: nothing to parse (data is empty)");

// A product's records with their whole maps (also keys getDataByKey refuses): "key=value;...",
// news after "news ", an update's related ids after " rel=".
struct Peek : MessageBase
{
    static QString text(const MessageBase* record, const QString& prefix, const QList<int>& related = {})
    {
        QStringList parts, ids;
        const Fields& fields = record->*(&Peek::data_);
        for (auto it = fields.cbegin(); it != fields.cend(); ++it)
            parts << it.key() + '=' + it.value();
        for (int id : related)
            ids << QString::number(id);
        return prefix + parts.join(';') + (ids.isEmpty() ? "" : " rel=" + ids.join(','));
    }
};

QStringList records(const Product& product)
{
    QStringList out;
    for (const Update* u : product.updatesList())
        out << Peek::text(u, "", u->relatedUpdates());
    for (const News* n : product.newsList())
        out << Peek::text(n, "news ");
    return out;
}

QString line(int level, const QString& text, const QVariant& item = {}) { return LogCapture::line(level, text, item); }
QString trace(const QString& text) { return LogCapture::line(0, {}, text).remove(1, 1); }
QStringList updateStart(const QString& id) { return {line(1, U + "parsing update with id = ", id), trace(U + "update[id]=" + id)}; }
QStringList newsStart(const QString& id) { return {line(1, N + "news message with id = ", id), trace(N + "new message[id]=" + id)}; }
QString reply(const QString& updates, const QString& news = {})
{
    return head + "<updates>" + updates + "</updates><product_news>" + news + "</product_news></r>";
}
QString nested(const QString& name, int depth, const QString& inner = {})
{
    return QString("<" + name + ">").repeated(depth) + inner + QString("</" + name + ">").repeated(depth);
}
// When the plain tree takes a text, the DOM takes it too and shows the parser the same.
void checkPlainTree(const QString& text, bool* plain = nullptr)
{
    PlainXmlTree tree;
    QDomDocument document;
    const bool taken = tree.read(text);
    if (plain)
        *plain = taken;
    if (!taken)
        return;
    QVERIFY2(document.setContent(text), qPrintable(text));
    QCOMPARE(xmlOutline(tree.documentElement()), xmlOutline(document.documentElement()));
}

} // namespace

// The product data model: records, the Product and the reply parser, whose every log line is
// checked at each logger level. That records are freed once is left to the sanitizer build.
class TestModel : public QObject
{
    Q_OBJECT
private slots:
    void keys_data()
    {
        QTest::addColumn<QString>("kind"); // update, news, product, or set: the product's key set to the value
        QTest::addColumn<Fields>("record");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("value");
        QTest::addColumn<bool>("legacy");
        const Fields sums{{"download_cheksum", "abc"}, {"download_checksum", "xyz"}}, titles{{"Title", "T"}, {"title", "t"}};
        const Fields studio{{"MediaID", "42"}, {"RecordMigrated", "1"}};
        QTest::newRow("cheksum, the service's spelling") << "update" << sums << "download_cheksum" << "abc" << false;
        QTest::newRow("checksum, the usual spelling") << "update" << sums << "download_checksum" << "" << false;
        QTest::newRow("update tag stored in a news") << "news" << Fields{{"update_id", "9"}} << "update_id" << "" << false;
        QTest::newRow("capitalised tag stored and asked") << "news" << titles << "Title" << "" << false;
        QTest::newRow("tag beside a capitalised one") << "news" << titles << "title" << "t" << false;
        QTest::newRow("product: keys are case-sensitive") << "product" << studio << "mediaid" << "" << true;
        QTest::newRow("legacy: leading blank") << "product" << Fields{{"RecordMigrated", " 1"}} << "" << "" << false;
        QTest::newRow("legacy: true") << "product" << Fields{{"RecordMigrated", "true"}} << "" << "" << false;
        QTest::newRow("set a new key") << "set" << studio << "AutoUninstallMode" << "2" << true;
        QTest::newRow("set the value already stored") << "set" << studio << "MediaID" << "42" << true;
        QTest::newRow("set unmakes legacy") << "set" << studio << "RecordMigrated" << "" << false;
    }
    void keys()
    {
        QFETCH(QString, kind);
        QFETCH(Fields, record);
        QFETCH(QString, key);
        QFETCH(QString, value);
        QFETCH(bool, legacy);
        if (kind == "update" || kind == "news") {
            const std::unique_ptr<MessageBase> message(kind == "update" ? static_cast<MessageBase*>(new Update) : new News);
            message->setData(record);
            QCOMPARE(message->getDataByKey(key), value);
            return;
        }
        Product product(guid);
        QVariantList seen; // each signal, with the value as the receiver reads it back
        connect(&product, &Product::regDataChanged, this,
                [&](QString g, QString k, QString v) { seen << g << k << v << product.getDataByKey(k); });
        product.setData({{"Stale", "x"}});
        product.setData(record);
        if (kind == "set")
            product.setDataByKey(key, value);
        QCOMPARE(seen, (kind == "set" ? QVariantList{guid, key, value, value} : QVariantList{}));
        QCOMPARE(product.getDataByKey(key), value);
        QCOMPARE(product.getDataByKey("Stale"), QString());
        QCOMPARE(product.isLegacy(), legacy);
    }

    // The host holds its own copy of this type information: name, no properties, these methods.
    void metaObject()
    {
        const QMetaObject& meta = Product::staticMetaObject;
        QStringList seen{meta.className(), QString::number(meta.propertyCount() - meta.propertyOffset())};
        for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
            const QMetaMethod m = meta.method(i);
            seen << QString("%1 %2 %3 ").arg(m.methodType()).arg(m.access()).arg(QString(m.methodSignature())) + m.parameterNames().join(',');
        }
        QCOMPARE(seen, (QStringList{"KepPlugin::Product", "0", "1 2 regDataChanged(QString,QString,QString) guid,key,value",
                                    "2 2 setRawXmlData(QString) data"}));
    }

    // The parser reads plain product XML without a DOM. What the plain tree takes must look the
    // same to the parser as the DOM; what it cannot vouch for goes to the DOM.
    void plainTree_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("plain");
        auto in = [](const QString& inner) { return "<r>" + inner + "</r>"; };
        QTest::newRow("product with declaration, attributes and blanks")
            << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<product_info>\n  <return_code>0</return_code>\n  <updates>\n"
               "    <update test=\"1\" b='x y'>\n      <id>1</id><title>T &amp; U</title>\n    </update>\n  </updates>\n</product_info>\n"
            << true;
        QTest::newRow("blanks alone are no text, any kind of blank")
            << in(QString(" <a>\t\n</a> <b>") + QChar(0xa0) + QChar(0x3000) + QChar(0x2028) + "</b>") << true;
        QTest::newRow("text around and between elements") << in(" x <b>y</b> z <c/>w") << true;
        QTest::newRow("the five references, '>' and ']'") << in("<a>&lt;&gt;&amp;&quot;&apos;></a><b> &amp; </b><c>]] ]></c>") << true;
        QTest::newRow("empty elements, blanks inside tags") << "<r ><a/><b /><c\t></c\n></r >" << true;
        QTest::newRow("declaration in single quotes, no encoding") << "<?xml version='1.0'?><r/>" << true;
        QTest::newRow("letters beyond ASCII, a surrogate pair") << in(QString::fromUtf8("<a>Grüße \xf0\x9d\x84\x9e</a>")) << true;
        for (const char* text : {"<r>&#65;</r>", "<r>&nbsp;</r>", "<r>&lt</r>", "<r><![CDATA[x]]></r>", "<r><!-- c --></r>",
                                 "<r><?p x?></r>", "<!DOCTYPE r><r/>", "<r>a\rb</r>", "<r>a\x01b</r>", "<r>a]]>b</r>",
                                 "<k:r/>", "<r a=b/>", "<r a=\"1\" a=\"2\"/>", "<r a=\"1\"b=\"2\"/>", "<r a = \"1\"/>",
                                 "<r a=\"<\"/>", "<r a=\"&amp;\"/>", "<?xml version=\"1.1\"?><r/>", "<?xml version=\"1.0\" encoding=\"latin1\"?><r/>",
                                 " <?xml version=\"1.0\"?><r/>", "<r/><r/>", "<r/>x", "<r></s>", "<r>", "</r>", "x<r/>", "<1/>"})
            QTest::newRow(text) << QString::fromUtf8(text) << false;
        QTest::newRow("nested as deep as the DOM may") << nested("a", XmlNesting::maxElementNesting, "x") << true;
        QTest::newRow("one level deeper") << nested("a", XmlNesting::maxElementNesting + 1, "x") << false;
        QString attributes;
        for (int i = 0; i < 17; ++i)
            attributes += QString(" a%1=\"\"").arg(i);
        QTest::newRow("16 attributes") << "<r" + attributes.section(' ', 0, 16) + "/>" << true;
        QTest::newRow("17 attributes") << "<r" + attributes + "/>" << false; // each name is checked against the others
        QString names;
        for (int i = 1; i < 65; ++i)
            names += QString("<a%1/>").arg(i);
        QTest::newRow("64 element names") << in(names.section('/', 0, 62) + "/>") << true;
        QTest::newRow("65 element names") << in(names) << false; // each name is looked up among the others
        QTest::newRow("lone surrogate") << in(QString("a") + QChar(0xd800) + "b") << false;
        QTest::newRow("non-character") << in(QString("a") + QChar(0xfffe)) << false;
    }
    void plainTree()
    {
        QFETCH(QString, text);
        QFETCH(bool, plain);
        bool taken = false;
        checkPlainTree(text, &taken);
        QCOMPARE(taken, plain);
    }

    void parse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("read"); // the return code and format the parser read; "-1 ": none
        QTest::addColumn<QStringList>("held");
        QTest::addColumn<QStringList>("log"); // every line after the raw-data trace, at level 0
        const QString noCode = line(2, P + "KEP returned incorrect data (no return_code tag)");
        const QString noId = line(1, U + "bad update (no id field)");
        auto bad = [&](const QString& text) { return QStringList{line(2, P + "bad XML format of raw data: ", text)}; };
        auto row = [&](const char* name, const QString& text, const QStringList& records, const QStringList& log) {
            QTest::newRow(name) << text << "0 " << records << log;
        };
        auto refused = [&](const char* name, const QString& text, const QStringList& log) {
            QTest::newRow(name) << text << "-1 " << kept << log;
        };

        QTest::newRow("only return_code, any root, format") << "<x><format>2.1</format><return_code>-3</return_code></x>"
                                                            << "-3 2.1" << QStringList() << QStringList();
        refused("return_code nested deeper", "<r><x><return_code>0</return_code></x></r>", {noCode});
        row("at any depth in the first container, in document order; none outside it",
            head + "<update><id>0</id></update><x><updates><update><id>9</id></update></updates></x>"
                + reply("<update><id>1</id></update><g><update><id>2</id></update></g></updates><updates><update><id>3</id></update>",
                        "<d><message><id>a</id></message></d>").mid(head.size()),
            {"id=1", "id=2", "news id=a"}, updateStart("1") + updateStart("2") + newsStart("a"));
        row("records without a direct id are skipped, the others read",
            reply("<update><title><id>1</id></title></update><update><ID>2</ID></update><update><id>3</id></update>",
                  "<message><title>T</title></message>"),
            {"id=3"},
            QStringList{noId, noId} + updateStart("3") + QStringList{line(1, N + "bad news message (no id field)")});
        row("first id names the update, the later one is stored", reply("<update><title>T</title><id>5</id><id>6</id></update>"),
            {"id=6;title=T"}, {line(1, U + "parsing update with id = ", "5"), trace(U + "update[title]=T"), trace(U + "update[id]=5"),
                               trace(U + "update[id]=6")});
        // related_updates in capitals is a plain field.
        row("tags accepted whatever their case, stored as written, unknown ones skipped",
            reply("<update><id>1</id><Title>T</Title><download_checksum>x</download_checksum><Related_Updates><id>2</id>"
                  "</Related_Updates></update>", "<message><id>2</id><PUBLISH_DATE>d</PUBLISH_DATE><update_id>9</update_id></message>"),
            {"Related_Updates=2;Title=T;id=1", "news PUBLISH_DATE=d;id=2"},
            updateStart("1") + QStringList{trace(U + "update[Title]=T"), line(1, U + "unknown tag: ", "download_checksum"),
                                           trace(U + "update[Related_Updates]=2")}
                + newsStart("2") + QStringList{trace(N + "new message[PUBLISH_DATE]=d"), line(1, N + "unknown tag: ", "update_id")});
        row("field text: nested markup, CDATA, entities, non-ASCII, attributes never read",
            reply("<update k=\"v\"><id>1</id><title a=\"b\">x<b>y</b><![CDATA[<c>]]> &amp;&#65;&lt; Grüße</title></update>"),
            {"id=1;title=xy<c> &A< Grüße"}, updateStart("1") + QStringList{trace(U + "update[title]=xy<c> &A< Grüße")});
        const QString looking = line(0, U + "looking for related updates");
        auto found = [&](int id) { return line(0, U + "related update found = ", id); };
        row("related ids at any depth, duplicates dropped, a nested update is an update too; none in bare text",
            reply("<update><id>1</id><related_updates><id>3</id><update><id>4</id></update><g><id>x</id></g><id>3</id>"
                  "</related_updates></update><update><id>5</id><related_updates>4 5<ID>6</ID></related_updates></update>"),
            {"id=1 rel=3,4,0", "id=4", "id=5"},
            updateStart("1") + QStringList{looking, found(3), found(4), found(0), found(3)} + updateStart("4") + updateStart("5")
                + QStringList{looking, line(0, U + "no related updates found")});
        row("comment, PI and CDATA beside fields are unknown empty tags",
            reply("<update><!-- c --><id>1</id><?pi x?><![CDATA[x]]></update>"), {"id=1"},
            QStringList{line(1, U + "parsing update with id = ", "1"), line(1, U + "unknown tag: ", ""), trace(U + "update[id]=1"),
                        line(1, U + "unknown tag: ", ""), line(1, U + "unknown tag: ", "")});
        row("default namespace matches, prefixed names do not",
            "<r xmlns=\"urn:k\" xmlns:k=\"urn:k\"><return_code>0</return_code><updates><update><id>1</id></update>"
            "<update><k:id>2</k:id></update></updates><k:product_news><message><id>3</id></message></k:product_news></r>",
            {"id=1"}, updateStart("1") + QStringList{noId});

        refused("empty", "", {line(2, P + "raw data is empty")});
        for (const QString& text : {QString("not xml"), head + "<updates><update><id>1", head + "<a></b></r>",
                                    QString("<html><body><h1>502</h1><br></body></html>")})
            refused(qPrintable("malformed: " + text), text, bad(text));
        // The DOM reader recurses once per level and overflowed the stack; depth is now bounded.
        row("nesting at the limit, start tags in comment, CDATA and PI not counted",
            head + nested("a", 255, "<!--<a>--><![CDATA[<b>]]><?p <c>?>") + "</r>", {}, {});
        const QString over = head + nested("a", 256) + "</r>";
        refused("nesting one level over the limit", over, bad(over));
        const QString deep = reply("<update><id>1</id><title>" + nested("b", 100000, "x") + "</title></update>");
        refused("regression_stackOverflowOn100kLevels", deep, bad(deep));
        refused("regression_stackOverflowOn100kUnclosedTags", QString("<a>").repeated(100000),
                bad(QString("<a>").repeated(100000)));
        const QString quoted = head + nested("a v=\"/>\" w='>'", 300).replace("</a v=\"/>\" w='>'>", "</a>") + "</r>";
        refused("'>' in attribute values hides no nesting", quoted, bad(quoted));
    }

    void parse()
    {
        QFETCH(QString, text);
        QFETCH(QString, read);
        QFETCH(QStringList, held);
        QFETCH(QStringList, log);
        checkPlainTree(text);
        log.prepend(trace(P + "rawData=[" + text + "]"));
        // Through the parser, and through the product: with the text as argument, or stored by its slot.
        for (int level = 0, path = 0; level <= 2; path = (path + 1) % 3, level += path == 0) {
            Product product(guid);
            product.addUpdate(new Update);
            product.addNews(new News);
            KepRawXmlProductDataParser parser(&product);
            if (path == 2)
                QVERIFY(QMetaObject::invokeMethod(&product, "setRawXmlData", Q_ARG(QString, text)));
            LogCapture capture(level);
            // Once there was text, the product reports success whatever the parser made of it.
            QCOMPARE(path == 0 ? parser.parseRawXmlData(text) : product.parseRawXmlData(path == 1 ? text : QString()),
                     path == 0 ? held != kept : !text.isEmpty());
            QStringList expected;
            for (const QString& l : path > 0 && text.isEmpty() ? QStringList{line(1, nothingToParse)} : log)
                if (l.left(1).toInt() >= level)
                    expected << l;
            QCOMPARE(capture.lines(), expected);
            QCOMPARE(records(product), held);
            QCOMPARE(QString::number(parser.kepReturnCode()) + ' ' + parser.rawXmlDataFormat(), path == 0 ? read : "-1 ");
        }
    }
};

QTEST_GUILESS_MAIN(TestModel)
#include "tst_model.moc"
