#include "model/News.h"
#include "model/Product.h"
#include "model/Update.h"
#include "plugin/ConsolidatedResponseWriter.h"

#include <QXmlStreamReader>
#include <QtTest>

#include <memory>

using namespace KepPlugin;

using Fields = QMap<QString, QString>;

// A product as a row describes it: legacy or not, its updates (fields, related ids), its news.
struct ProductSpec
{
    bool legacy = false;
    QList<QPair<Fields, QList<int>>> updates;
    QList<Fields> news;
};
Q_DECLARE_METATYPE(QList<ProductSpec>)

namespace {

std::vector<std::unique_ptr<Product>> makeProducts(const QList<ProductSpec>& specs)
{
    std::vector<std::unique_ptr<Product>> products;
    for (const ProductSpec& spec : specs) {
        auto product = std::make_unique<Product>(QStringLiteral("guid-%1").arg(products.size()));
        if (spec.legacy)
            product->setData({{QStringLiteral("RecordMigrated"), QStringLiteral("1")}});
        for (const auto& entry : spec.updates) {
            auto* update = new Update;
            update->setData(entry.first);
            for (int id : entry.second)
                update->addRelatedUpdate(id);
            product->addUpdate(update);
        }
        for (const Fields& fields : spec.news) {
            auto* news = new News;
            news->setData(fields);
            product->addNews(news);
        }
        products.push_back(std::move(product));
    }
    return products;
}

QString write(const QList<ProductSpec>& specs)
{
    const auto owned = makeProducts(specs);
    QList<Product*> products;
    for (const auto& product : owned)
        products.append(product.get());
    return ConsolidatedResponseWriter::toXml(products);
}

QString document(const QString& updates, const QString& news)
{
    return QStringLiteral("<?xml version=\"1.0\"?>\n<root>\n") + updates + news + QStringLiteral("</root>");
}

const QString noUpdates = QStringLiteral("    <updates/>\n");
const QString noNews = QStringLiteral("    <product_news/>\n");

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
    QTest::addColumn<QList<ProductSpec>>("products");
    QTest::addColumn<QString>("expected");

    QTest::newRow("products without updates or news") << QList<ProductSpec>{{}, {}} << ::document(noUpdates, noNews);

    ProductSpec full;
    full.updates = {{Fields{{"id", " 42 "},
                            {"title", "  New version  "},
                            {"description", " Fixes\n"},
                            {"update_id", "u-9"},
                            {"media_id", "m-1"},
                            {"download_url", " http://h/a.zip "},
                            {"download_url_akamai", "http://akamai/a.zip"},
                            {"download_url_online", "http://h/o.exe"},
                            {"download_url_online_akamai", "http://akamai/o.exe"},
                            {"download_file_name", "a.zip"},
                            {"download_file_name_online", "o.exe"},
                            {"download_size", " 1024 "},
                            {"download_cheksum", "abc"},
                            {"download_cheksum_online", "def"},
                            {"publish_date", " 2014-03-07T10:20:30 "},
                            {"additional_info_url", "http://h/info "},
                            {"Title", "capitalised keys are not carried"}},
                     {12, 5}}};
    QTest::newRow("update: order, trimming, related ids, dropped keys")
        << QList<ProductSpec>{full}
        << ::document(QStringLiteral("    <updates>\n"
                                     "        <update>\n"
                                     "            <id>42</id>\n"
                                     "            <title>  New version  </title>\n"
                                     "            <description> Fixes\n</description>\n"
                                     "            <download_url>http://h/a.zip</download_url>\n"
                                     "            <download_url_online>http://h/o.exe</download_url_online>\n"
                                     "            <download_file_name>a.zip</download_file_name>\n"
                                     "            <download_file_name_online>o.exe</download_file_name_online>\n"
                                     "            <download_size>1024</download_size>\n"
                                     "            <publish_date>3/7/14</publish_date>\n"
                                     "            <additional_info_url>http://h/info</additional_info_url>\n"
                                     "            <one_click_update_mode_is_supported>1</one_click_update_mode_is_supported>\n"
                                     "            <related_updates>\n"
                                     "                <id>12</id>\n"
                                     "                <id>5</id>\n"
                                     "            </related_updates>\n"
                                     "        </update>\n"
                                     "    </updates>\n"),
                      noNews);

    ProductSpec legacy;
    legacy.legacy = true;
    legacy.updates = {{Fields{{"id", "7"}, {"publish_date", "07.03.2014"}}, {}}};
    QTest::newRow("legacy product, missing keys, unparsable date")
        << QList<ProductSpec>{legacy}
        << ::document(QStringLiteral("    <updates>\n"
                                     "        <update>\n"
                                     "            <id>7</id>\n"
                                     "            <title></title>\n"
                                     "            <description></description>\n"
                                     "            <download_url></download_url>\n"
                                     "            <download_url_online></download_url_online>\n"
                                     "            <download_file_name></download_file_name>\n"
                                     "            <download_file_name_online></download_file_name_online>\n"
                                     "            <download_size></download_size>\n"
                                     "            <publish_date></publish_date>\n"
                                     "            <additional_info_url></additional_info_url>\n"
                                     "            <one_click_update_mode_is_supported>0</one_click_update_mode_is_supported>\n"
                                     "            <related_updates/>\n"
                                     "        </update>\n"
                                     "    </updates>\n"),
                      noNews);

    ProductSpec first;
    first.news = {Fields{{"id", "7"}, {"title", "  First  "}, {"description", " one "}, {"publish_date", "2014-03-07"}},
                  Fields{{"title", "no id"}},
                  Fields{{"id", ""}, {"title", "empty id again"}}};
    ProductSpec second;
    second.news = {Fields{{"id", " 7 "}, {"title", "Second"}},
                   Fields{{"id", "8"}, {"title", "Eight"}, {"update_id", "not a news key"}}};
    QTest::newRow("news: de-duplicated by trimmed id across products, trimmed fields")
        << QList<ProductSpec>{first, second}
        << ::document(noUpdates, QStringLiteral("    <product_news>\n"
                                                "        <message>\n"
                                                "            <id>7</id>\n"
                                                "            <title>First</title>\n"
                                                "            <description>one</description>\n"
                                                "            <publish_date>3/7/14</publish_date>\n"
                                                "        </message>\n"
                                                "        <message>\n"
                                                "            <id></id>\n"
                                                "            <title>no id</title>\n"
                                                "            <description></description>\n"
                                                "            <publish_date></publish_date>\n"
                                                "        </message>\n"
                                                "        <message>\n"
                                                "            <id>8</id>\n"
                                                "            <title>Eight</title>\n"
                                                "            <description></description>\n"
                                                "            <publish_date></publish_date>\n"
                                                "        </message>\n"
                                                "    </product_news>\n"));

    ProductSpec markup;
    markup.updates = {{Fields{{"id", "1"}, {"title", "a < b & \"c\" > d"}}, {}}};
    ProductSpec later;
    later.updates = {{Fields{{"id", "2"}}, {}}};
    QTest::newRow("updates of all products side by side, markup escaped")
        << QList<ProductSpec>{markup, later}
        << ::document(QStringLiteral("    <updates>\n"
                                     "        <update>\n"
                                     "            <id>1</id>\n"
                                     "            <title>a &lt; b &amp; &quot;c&quot; &gt; d</title>\n"
                                     "            <description></description>\n"
                                     "            <download_url></download_url>\n"
                                     "            <download_url_online></download_url_online>\n"
                                     "            <download_file_name></download_file_name>\n"
                                     "            <download_file_name_online></download_file_name_online>\n"
                                     "            <download_size></download_size>\n"
                                     "            <publish_date></publish_date>\n"
                                     "            <additional_info_url></additional_info_url>\n"
                                     "            <one_click_update_mode_is_supported>1</one_click_update_mode_is_supported>\n"
                                     "            <related_updates/>\n"
                                     "        </update>\n"
                                     "        <update>\n"
                                     "            <id>2</id>\n"
                                     "            <title></title>\n"
                                     "            <description></description>\n"
                                     "            <download_url></download_url>\n"
                                     "            <download_url_online></download_url_online>\n"
                                     "            <download_file_name></download_file_name>\n"
                                     "            <download_file_name_online></download_file_name_online>\n"
                                     "            <download_size></download_size>\n"
                                     "            <publish_date></publish_date>\n"
                                     "            <additional_info_url></additional_info_url>\n"
                                     "            <one_click_update_mode_is_supported>1</one_click_update_mode_is_supported>\n"
                                     "            <related_updates/>\n"
                                     "        </update>\n"
                                     "    </updates>\n"),
                      noNews);
}

void TestConsolidatedResponse::document()
{
    QFETCH(QList<ProductSpec>, products);
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
    QTest::newRow("surrogate pair kept") << QString::fromUtf16(u"\xd83d\xde00") << QString::fromUtf16(u"\xd83d\xde00");
    QTest::newRow("non-characters") << QString(QChar(0xfffe)) + QChar(0xffff) + QLatin1Char('z') << QStringLiteral("z");
    QTest::newRow("CDATA end and entities") << QStringLiteral("]]> &amp; <!--") << QStringLiteral("]]> &amp; <!--");
}

// Whatever a record holds, the host must be able to read the document back.
void TestConsolidatedResponse::alwaysWellFormed()
{
    QFETCH(QString, text);
    QFETCH(QString, kept);
    ProductSpec spec;
    spec.updates = {{Fields{{"id", text}, {"title", text}}, {}}};
    spec.news = {Fields{{"id", text}, {"description", text}}};
    QXmlStreamReader reader(write({spec}));
    QStringList texts;
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::Characters && !reader.isWhitespace())
            texts.append(reader.text().toString());
    }
    QVERIFY2(!reader.hasError(), qPrintable(reader.errorString()));
    QCOMPARE(texts.value(0), kept.trimmed());
    QCOMPARE(texts.value(1), kept);
}

QTEST_GUILESS_MAIN(TestConsolidatedResponse)
#include "tst_consolidatedresponse.moc"
