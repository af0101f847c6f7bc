#include "model/News.h"
#include "model/Product.h"
#include "model/Update.h"
#include "tavcore/Logger.h"

#include <QDomDocument>
#include <QtTest>

using namespace KepPlugin;

// Cost of one parse of a reply with 1,000 updates and 1,000 news, against a bare DOM parse
// of the same text.
class BenchReplyParse : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void freshProduct();
    void replaceRecords();
    void domOnly();

private:
    QString reply_;
};

void BenchReplyParse::initTestCase()
{
    TavCoreShared::TavLogger::Logger::instance()->setLogLevel(2);
    reply_ = QStringLiteral("<product><return_code>0</return_code><format>2</format><updates>");
    for (int i = 0; i < 1000; ++i) {
        reply_ += QStringLiteral(
                      "<update><id>%1</id><title>Service pack %1</title>"
                      "<description>Fixes and improvements of release %1, see the notes for details.</description>"
                      "<update_id>%1</update_id><download_url>https://dl.example.invalid/sp%1.run</download_url>"
                      "<download_url_online>https://dl.example.invalid/web/sp%1.run</download_url_online>"
                      "<download_file_name>sp%1.run</download_file_name><download_size>104857600</download_size>"
                      "<download_cheksum>9e107d9d372bb6826bd81d3542a419d6</download_cheksum>"
                      "<publish_date>2014-03-07</publish_date><media_id>4711</media_id>"
                      "<package_name>studio-sp%1</package_name>"
                      "<related_updates><id>%2</id><id>%3</id></related_updates></update>")
                      .arg(i)
                      .arg(i + 1)
                      .arg(i + 2);
    }
    reply_ += QStringLiteral("</updates><product_news>");
    for (int i = 0; i < 1000; ++i) {
        reply_ += QStringLiteral("<message><id>%1</id><title>News %1</title>"
                                 "<description>Announcement number %1 about the product.</description>"
                                 "<publish_date>2014-03-07</publish_date></message>")
                      .arg(i);
    }
    reply_ += QStringLiteral("</product_news></product>");
    qInfo("reply of %d characters", int(reply_.size()));
}

// One gathering run: a new product parses its reply once and is released with its records.
void BenchReplyParse::freshProduct()
{
    QBENCHMARK {
        Product product(QStringLiteral("{bench}"));
        product.parseRawXmlData(reply_);
        if (product.updatesList().size() != 1000 || product.newsList().size() != 1000)
            QFAIL("reply not read");
    }
}

// The same product parsing again: its previous records are deleted on the way.
void BenchReplyParse::replaceRecords()
{
    Product product(QStringLiteral("{bench}"));
    QBENCHMARK {
        product.parseRawXmlData(reply_);
    }
    QCOMPARE(product.updatesList().size(), 1000);
    QCOMPARE(product.newsList().size(), 1000);
    QCOMPARE(product.updatesList().last()->relatedUpdates(), (QList<int>{1000, 1001}));
}

void BenchReplyParse::domOnly()
{
    QBENCHMARK {
        QDomDocument document;
        document.setContent(reply_);
    }
}

QTEST_GUILESS_MAIN(BenchReplyParse)
#include "bench_replyparse.moc"
