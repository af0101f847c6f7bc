#include "model/News.h"
#include "model/Product.h"
#include "model/Update.h"
#include "plugin/ConsolidatedResponseWriter.h"

#include <QXmlStreamReader>
#include <QtTest>

#include <memory>

using namespace KepPlugin;
using Fields = QMap<QString, QString>;

// One product of a table row: legacy or not, its updates (fields, related ids) and news.
struct ProductRow
{
    bool legacy = false;
    QList<QPair<Fields, QList<int>>> updates;
    QList<Fields> news;
};
Q_DECLARE_METATYPE(QList<ProductRow>)

namespace {

QString write(const QList<ProductRow>& rows)
{
    std::vector<std::unique_ptr<Product>> owned;
    QList<Product*> products;
    for (const ProductRow& row : rows) {
        owned.push_back(std::make_unique<Product>(QStringLiteral("guid")));
        Product* product = owned.back().get();
        product->setData({{QStringLiteral("RecordMigrated"), row.legacy ? "1" : "true"}});
        for (const auto& entry : row.updates) {
            auto* update = new Update;
            update->setData(entry.first);
            for (int id : entry.second)
                update->addRelatedUpdate(id);
            product->addUpdate(update);
        }
        for (const Fields& fields : row.news) {
            auto* news = new News;
            news->setData(fields);
            product->addNews(news);
        }
        products.append(product);
    }
    return ConsolidatedResponseWriter::toXml(products);
}

// The ten text elements of an update between id and one_click..., with the given values.
QString updateBlock(const QString& id, const QStringList& texts, const QString& oneClick, const QString& related)
{
    static const QStringList names = {"title", "description", "download_url", "download_url_online",
                                      "download_file_name", "download_file_name_online", "download_size",
                                      "publish_date", "additional_info_url"};
    QString block = QStringLiteral("        <update>\n            <id>%1</id>\n").arg(id);
    for (int i = 0; i < names.size(); ++i)
        block += QStringLiteral("            <%1>%2</%1>\n").arg(names[i], texts.value(i));
    return block
        + QStringLiteral("            <one_click_update_mode_is_supported>%1</one_click_update_mode_is_supported>\n")
              .arg(oneClick)
        + related + QStringLiteral("        </update>\n");
}

} // namespace

class TestConsolidatedResponse : public QObject
{
    Q_OBJECT
private slots:
    void document_data();
    void document();
    void alwaysWellFormed_data();
    void alwaysWellFormed();
};

void TestConsolidatedResponse::document_data()
{
    QTest::addColumn<QList<ProductRow>>("products");
    QTest::addColumn<QString>("expected");
    const QString head = QStringLiteral("<?xml version=\"1.0\"?>\n<root>\n");
    QTest::newRow("no updates, no news")
        << QList<ProductRow>{{}, {}} << head + "    <updates/>\n    <product_news/>\n</root>";

    ProductRow current;
    current.updates = {{Fields{{"id", " 42 "}, {"title", "  New version  "}, {"description", " Fixes\n"},
                               {"update_id", "u"}, {"media_id", "m"}, {"download_url", " http://h/a "},
                               {"download_url_akamai", "x"}, {"download_url_online", "http://h/o"},
                               {"download_file_name", "a.zip"}, {"download_file_name_online", "o"},
                               {"download_size", " 1024 "}, {"download_cheksum", "c"},
                               {"publish_date", " 2014-03-07T10:20:30 "}, {"additional_info_url", "http://h/i "},
                               {"Title", "not carried"}},
                        {12, 5}}};
    ProductRow legacy;
    legacy.legacy = true;
    legacy.updates = {{Fields{{"id", "7"}, {"title", "a < b & \"c\""}, {"publish_date", "07.03.2014"}}, {}}};
    QTest::newRow("updates side by side: order, trimming, related ids, legacy, escaping")
        << QList<ProductRow>{current, legacy}
        << head + "    <updates>\n"
               + updateBlock("42", {"  New version  ", " Fixes\n", "http://h/a", "http://h/o", "a.zip", "o", "1024",
                                    "3/7/14", "http://h/i"},
                             "1",
                             "            <related_updates>\n                <id>12</id>\n"
                             "                <id>5</id>\n            </related_updates>\n")
               + updateBlock("7", {"a &lt; b &amp; &quot;c&quot;"}, "0", "            <related_updates/>\n")
               + "    </updates>\n    <product_news/>\n</root>";

    ProductRow first;
    first.news = {Fields{{"id", "7"}, {"title", "  First  "}, {"description", " one "}, {"publish_date", "2014-03-07"}},
                  Fields{{"title", "no id"}}, Fields{{"id", ""}, {"title", "empty id again"}}};
    ProductRow second;
    second.news = {Fields{{"id", " 7 "}, {"title", "Second"}}, Fields{{"id", "8"}, {"update_id", "not news"}}};
    const QString message = QStringLiteral("        <message>\n            <id>%1</id>\n            <title>%2</title>\n"
                                           "            <description>%3</description>\n"
                                           "            <publish_date>%4</publish_date>\n        </message>\n");
    QTest::newRow("news: first of each trimmed id, across products")
        << QList<ProductRow>{first, second}
        << head + "    <updates/>\n    <product_news>\n" + message.arg("7", "First", "one", "3/7/14")
               + message.arg("", "no id", "", "") + message.arg("8", "", "", "") + "    </product_news>\n</root>";
}

void TestConsolidatedResponse::document()
{
    QFETCH(QList<ProductRow>, products);
    QFETCH(QString, expected);
    QCOMPARE(write(products), expected);
}

void TestConsolidatedResponse::alwaysWellFormed_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("kept");
    QTest::newRow("control characters") << QStringLiteral("a\x01" "b\x1f\x0b") << QStringLiteral("ab");
    QTest::newRow("NUL") << QString::fromUtf16(u"x\0y", 3) << QStringLiteral("xy");
    QTest::newRow("lone surrogates") << QString::fromUtf16(u"p\xd800q\xdc00") << QStringLiteral("pq");
    QTest::newRow("surrogate pair") << QString::fromUtf16(u"\xd83d\xde00") << QString::fromUtf16(u"\xd83d\xde00");
    QTest::newRow("non-characters") << QString(QChar(0xfffe)) + QChar(0xffff) + QLatin1Char('z') << QStringLiteral("z");
    QTest::newRow("markup") << QStringLiteral("]]> &amp; <!--") << QStringLiteral("]]> &amp; <!--");
}

// Whatever a record holds, the host must be able to read the document back.
void TestConsolidatedResponse::alwaysWellFormed()
{
    QFETCH(QString, text);
    QFETCH(QString, kept);
    ProductRow row;
    row.updates = {{Fields{{"id", text}, {"title", text}}, {}}};
    QXmlStreamReader reader(write({row}));
    QStringList texts;
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::Characters && !reader.isWhitespace())
            texts.append(reader.text().toString());
    }
    QVERIFY2(!reader.hasError(), qPrintable(reader.errorString()));
    QCOMPARE(texts, (QStringList{kept, kept, "1"}));
}

QTEST_GUILESS_MAIN(TestConsolidatedResponse)
#include "tst_consolidatedresponse.moc"
