#include "model/News.h"
#include "model/Product.h"
#include "model/Update.h"
#include "plugin/ConsolidatedResponseWriter.h"
#include "plugin/IndentedXmlWriter.h"

#include <QXmlStreamWriter>
#include <QtTest>

#include <memory>

using namespace KepPlugin;
using Fields = QMap<QString, QString>;
using Products = QList<std::shared_ptr<Product>>;
Q_DECLARE_METATYPE(Products)

namespace {

const QString head = "<?xml version=\"1.0\"?>\n<root>\n", noNews = "    <product_news/>\n</root>";

// A product, legacy or not, with its updates (fields and related ids) and news.
std::shared_ptr<Product> product(bool legacy, const QList<QPair<Fields, QList<int>>>& updates, const QList<Fields>& news = {})
{
    auto product = std::make_shared<Product>("guid");
    product->setData({{"RecordMigrated", legacy ? "1" : "true"}});
    for (const auto& entry : updates) {
        auto* update = new Update;
        update->setData(entry.first);
        for (int id : entry.second)
            update->addRelatedUpdate(id);
        product->addUpdate(update);
    }
    for (const Fields& fields : news) {
        auto* message = new News;
        message->setData(fields);
        product->addNews(message);
    }
    return product;
}

// An update's elements, with the texts from title to additional_info_url.
QString update(const QString& id, const QStringList& texts, const QString& oneClick,
               const QString& related = "<related_updates/>")
{
    static const QStringList names = {"title", "description", "download_url", "download_url_online", "download_file_name",
                                      "download_file_name_online", "download_size", "publish_date", "additional_info_url"};
    QString block = "        <update>\n            <id>" + id + "</id>\n";
    for (int i = 0; i < names.size(); ++i)
        block += QStringLiteral("            <%1>%2</%1>\n").arg(names[i], texts.value(i));
    return block + "            <one_click_update_mode_is_supported>" + oneClick
        + "</one_click_update_mode_is_supported>\n            " + related + "\n        </update>\n";
}

} // namespace

// The whole document the host reads, from products built in memory.
class TestConsolidatedResponse : public QObject
{
    Q_OBJECT
private slots:
    void document_data()
    {
        QTest::addColumn<Products>("products");
        QTest::addColumn<QString>("expected");
        const Fields current{{"id", " 42 "}, {"title", "  New version  "}, {"description", " Fixes\n"}, {"update_id", "u"},
            {"media_id", "m"}, {"download_url", " http://h/a "}, {"download_url_akamai", "x"}, {"download_url_online", "http://h/o"},
            {"download_file_name", "a.zip"}, {"download_file_name_online", "o"}, {"download_size", " 1024 "},
            {"download_cheksum", "c"}, {"publish_date", " 2014-03-07T10:20:30 "}, {"additional_info_url", "http://h/i "},
            {"Title", "not carried"}};
        QTest::newRow("updates side by side: order, trimming, related ids, legacy, escaping")
            << Products{product(false, {{current, {12, 5}}}),
                        product(true, {{{{"id", "7"}, {"title", "a < b & \"c\""}, {"publish_date", "07.03.2014"}}, {}}})}
            << head + "    <updates>\n"
                   + update("42", {"  New version  ", " Fixes\n", "http://h/a", "http://h/o", "a.zip", "o", "1024",
                                   "3/7/14", "http://h/i"}, "1",
                            "<related_updates>\n                <id>12</id>\n                <id>5</id>\n"
                            "            </related_updates>")
                   + update("7", {"a &lt; b &amp; &quot;c&quot;"}, "0") + "    </updates>\n" + noNews;

        const QString message = "        <message>\n            <id>%1</id>\n            <title>%2</title>\n"
                                "            <description>%3</description>\n"
                                "            <publish_date>%4</publish_date>\n        </message>\n";
        QTest::newRow("news: first of each trimmed id, across products")
            << Products{product(false, {}, {{{"id", "7"}, {"title", "  First  "}, {"description", " one "},
                                              {"publish_date", "2014-03-07"}},
                                             {{"title", "no id"}}, {{"id", ""}, {"title", "empty id again"}}}),
                        product(false, {}, {{{"id", " 7 "}, {"title", "Second"}}, {{"id", "8"}, {"update_id", "not news"}}})}
            << head + "    <updates/>\n    <product_news>\n" + message.arg("7", "First", "one", "3/7/14")
                   + message.arg("", "no id", "", "") + message.arg("8", "", "", "") + "    </product_news>\n</root>";

        // Whatever a record holds, the host must be able to read the document back.
        const QList<QStringList> unsafe = {{"control characters", "a\x01" "b\x1f\x0b", "ab"},
                                           {"NUL", QString::fromUtf16(u"x\0y", 3), "xy"},
                                           {"lone surrogates", QString::fromUtf16(u"p\xd800q\xdc00"), "pq"},
                                           {"surrogate pair", QString::fromUtf16(u"\xd83d\xde00"), QString::fromUtf16(u"\xd83d\xde00")},
                                           {"non-characters", QString(QChar(0xfffe)) + QChar(0xffff) + 'z', "z"}};
        for (const QStringList& row : unsafe)
            QTest::newRow(qPrintable(row[0])) << Products{product(false, {{{{"id", row[1]}, {"title", row[1]}}, {}}})}
                                              << head + "    <updates>\n" + update(row[2], {row[2]}, "1") + "    </updates>\n" + noNews;
    }

    // The document's writer stands in for Qt's stream writer and must write what it writes.
    // A script: "+name" starts an element, "name=text" writes a text element, "-" ends one.
    void writer_data()
    {
        QTest::addColumn<QStringList>("script");
        QTest::newRow("root alone") << QStringList{"+root", "-"};
        QTest::newRow("nested, empty containers closed short")
            << QStringList{"+root", "+updates", "+update", "id=1", "+related_updates", "-", "-", "-", "+product_news", "-", "-"};
        QTest::newRow("empty text") << QStringList{"+root", "title=", "-"};
        QTest::newRow("escaping") << QStringList{"+root", "d=a<b>&c\"d'e ]]> \r\n\t x", "-"};
        QTest::newRow("beyond ASCII") << QStringList{"+root", QString::fromUtf8("d=Grüße \xf0\x9d\x84\x9e") + QChar(0xa0), "-"};
        QTest::newRow("open elements closed at the end") << QStringList{"+root", "+a", "+b", "c=x"};
        QTest::newRow("deep") << QStringList{"+a", "+b", "+c", "+d", "e=1", "-", "f=2", "-", "-", "-"};
    }
    void writer()
    {
        QFETCH(QStringList, script);
        QString ours, qts;
        IndentedXmlWriter writer(&ours);
        QXmlStreamWriter reference(&qts);
        reference.setAutoFormatting(true);
        reference.writeStartDocument();
        for (QString step : script) {
            step.replace("\\r", "\r").replace("\\n", "\n").replace("\\t", "\t");
            if (step.startsWith('+')) {
                writer.writeStartElement(step.mid(1));
                reference.writeStartElement(step.mid(1));
            } else if (step == "-") {
                writer.writeEndElement();
                reference.writeEndElement();
            } else {
                writer.writeTextElement(step.section('=', 0, 0), step.section('=', 1));
                reference.writeTextElement(step.section('=', 0, 0), step.section('=', 1));
            }
        }
        writer.writeEndDocument();
        reference.writeEndDocument();
        QCOMPARE(ours, qts);
    }

    void document()
    {
        QFETCH(Products, products);
        QList<Product*> list;
        for (const auto& product : products)
            list.append(product.get());
        QTEST(ConsolidatedResponseWriter::toXml(list), "expected");
    }
};

QTEST_GUILESS_MAIN(TestConsolidatedResponse)
#include "tst_consolidatedresponse.moc"
