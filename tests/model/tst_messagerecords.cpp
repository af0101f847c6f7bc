#include "RecordProbe.h"
#include "model/KepXmlTags.h"

#include <QtTest>

#include <memory>

using namespace KepPlugin;
using Fields = QMap<QString, QString>;

// Update and News: the tags each kind answers for, and the related update numbers.
class TestMessageRecords : public QObject
{
    Q_OBJECT
private slots:
    void supportedTags_data();
    void supportedTags();
    void getDataByKey_data();
    void getDataByKey();
    void setDataReplacesWholeMap();
    void addRelatedUpdate_data();
    void addRelatedUpdate();
    void relatedUpdatesIsACopy();
    void deleteThroughBase_data();
    void deleteThroughBase();
};

namespace {

std::unique_ptr<MessageBase> makeRecord(const QString& kind)
{
    if (kind == QLatin1String("update"))
        return std::make_unique<Update>();
    return std::make_unique<News>();
}

} // namespace

void TestMessageRecords::supportedTags_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QStringList>("tags");
    QTest::newRow("update") << "update"
                            << QStringList{"id",
                                           "title",
                                           "description",
                                           "update_id",
                                           "download_url",
                                           "download_url_akamai",
                                           "download_url_online",
                                           "download_url_online_akamai",
                                           "download_file_name",
                                           "download_file_name_online",
                                           "download_size",
                                           "download_cheksum",
                                           "download_cheksum_online",
                                           "publish_date",
                                           "additional_info_url",
                                           "media_id",
                                           "package_name",
                                           "related_updates"};
    QTest::newRow("news") << "news" << QStringList{"id", "title", "description", "publish_date"};
}

void TestMessageRecords::supportedTags()
{
    QFETCH(QString, kind);
    QFETCH(QStringList, tags);
    const auto record = makeRecord(kind);
    QStringList first = record->getSupportedXmlTags();
    QCOMPARE(first, tags);
    // Callers may change the list they got without changing the next one.
    first.clear();
    QCOMPARE(record->getSupportedXmlTags(), tags);
}

void TestMessageRecords::getDataByKey_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<Fields>("fields");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    const Fields checksums{{"download_cheksum", "abc"}, {"download_checksum", "xyz"}};
    QTest::newRow("service spelling of cheksum") << "update" << checksums << "download_cheksum" << "abc";
    QTest::newRow("usual spelling of checksum") << "update" << checksums << "download_checksum" << "";
    QTest::newRow("update tag stored in a news") << "news" << Fields{{"update_id", "9"}} << "update_id" << "";
    QTest::newRow("update tag in an update") << "update" << Fields{{"update_id", "9"}} << "update_id" << "9";
    QTest::newRow("capitalised key stored and asked")
        << "news" << Fields{{"Title", "T"}, {"title", "t"}} << "Title" << "";
    QTest::newRow("lower-case key beside a capitalised one")
        << "news" << Fields{{"Title", "T"}, {"title", "t"}} << "title" << "t";
    QTest::newRow("supported tag never set") << "update" << Fields{{"id", "1"}} << "title" << "";
    QTest::newRow("empty key") << "update" << Fields{{"", "x"}} << "" << "";
    QTest::newRow("related_updates set directly") << "update" << Fields{{"related_updates", "1 2"}}
                                                   << "related_updates" << "1 2";
    QTest::newRow("related_updates is no news tag") << "news" << Fields{{"related_updates", "1"}}
                                                    << "related_updates" << "";
    QTest::newRow("text kept untrimmed") << "update" << Fields{{"download_size", " 12 kB\n"}} << "download_size"
                                         << " 12 kB\n";
    QTest::newRow("publish_date on news") << "news" << Fields{{"publish_date", "2014-03-07"}} << "publish_date"
                                          << "2014-03-07";
}

void TestMessageRecords::getDataByKey()
{
    QFETCH(QString, kind);
    QFETCH(Fields, fields);
    QFETCH(QString, key);
    QFETCH(QString, value);
    const auto record = makeRecord(kind);
    record->setData(fields);
    const QString found = record->getDataByKey(key);
    QCOMPARE(found, value);
    // Every entry is stored, whether answered or not.
    QCOMPARE(RecordProbe::Peek::fields(record.get()), fields);
}

void TestMessageRecords::setDataReplacesWholeMap()
{
    Update update;
    update.setData({{"id", "1"}, {"title", "old"}});
    update.setData({{"id", "2"}});
    QCOMPARE(update.getDataByKey("id"), QString("2"));
    QCOMPARE(update.getDataByKey("title"), QString());
    QCOMPARE(RecordProbe::Peek::fields(&update), (Fields{{"id", "2"}}));
}

void TestMessageRecords::addRelatedUpdate_data()
{
    QTest::addColumn<QList<int>>("added");
    QTest::addColumn<QList<int>>("held");
    QTest::newRow("none") << QList<int>{} << QList<int>{};
    QTest::newRow("same id twice") << QList<int>{5, 5} << QList<int>{5};
    QTest::newRow("zero is an id") << QList<int>{0} << QList<int>{0};
    QTest::newRow("order of first addition") << QList<int>{3, 1, 3, 2, 1} << QList<int>{3, 1, 2};
    QTest::newRow("negative and extreme") << QList<int>{-1, INT_MAX, INT_MIN, -1} << QList<int>{-1, INT_MAX, INT_MIN};
}

void TestMessageRecords::addRelatedUpdate()
{
    QFETCH(QList<int>, added);
    QFETCH(QList<int>, held);
    Update update;
    for (int id : added)
        update.addRelatedUpdate(id);
    QCOMPARE(update.relatedUpdates(), held);
    QCOMPARE(update.getDataByKey("related_updates"), QString());
}

void TestMessageRecords::relatedUpdatesIsACopy()
{
    Update update;
    update.addRelatedUpdate(4);
    QList<int> copy = update.relatedUpdates();
    copy.append(8);
    QCOMPARE(update.relatedUpdates(), QList<int>{4});
}

void TestMessageRecords::deleteThroughBase_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("update") << "update";
    QTest::newRow("news") << "news";
}

void TestMessageRecords::deleteThroughBase()
{
    QFETCH(QString, kind);
    RecordProbe::updatesDestroyed() = 0;
    RecordProbe::newsDestroyed() = 0;
    MessageBase* record = kind == QLatin1String("update") ? static_cast<MessageBase*>(new RecordProbe::CountedUpdate("1"))
                                                          : new RecordProbe::CountedNews("1");
    delete record;
    QCOMPARE(RecordProbe::updatesDestroyed(), kind == QLatin1String("update") ? 1 : 0);
    QCOMPARE(RecordProbe::newsDestroyed(), kind == QLatin1String("news") ? 1 : 0);
}

QTEST_GUILESS_MAIN(TestMessageRecords)
#include "tst_messagerecords.moc"
