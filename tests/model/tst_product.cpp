#include "LogCapture.h"
#include "RecordProbe.h"

#include <QMetaMethod>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

using namespace KepPlugin;
using namespace RecordProbe;
using Fields = QMap<QString, QString>;

// Product: its record map and signal, its meta-object, parsing on demand and the records it owns.
class TestProduct : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void constructed();
    void metaObject();
    void getDataByKey_data();
    void getDataByKey();
    void setDataByKey_data();
    void setDataByKey();
    void setDataEmitsNothing();
    void isLegacy_data();
    void isLegacy();
    void parseRawXmlData_data();
    void parseRawXmlData();
    void argumentDoesNotReplaceStoredText();
    void setRawXmlDataSlotOnlyStores();
    void ownership_data();
    void ownership();
    void listsAreCopies();
    void nullRecordsAreStored();
};

namespace {

const QString guid = QStringLiteral("{7c1a2b3c-0000-4000-8000-000000000001}");
const QString nothingToParse =
    QStringLiteral("1 KepDataProvider:Product:parseRawXmlData: nothing to parse (data is empty)");

QString replyWithUpdate(const QString& id)
{
    return QStringLiteral("<r><return_code>0</return_code><updates><update><id>%1</id></update></updates>"
                          "<product_news><message><id>n%1</id></message></product_news></r>")
        .arg(id);
}

} // namespace

void TestProduct::init()
{
    updatesDestroyed() = 0;
    newsDestroyed() = 0;
}

void TestProduct::constructed()
{
    Product product(guid);
    QCOMPARE(product.guid(), guid);
    QCOMPARE(product.parent(), nullptr);
    QVERIFY(product.updatesList().isEmpty());
    QVERIFY(product.newsList().isEmpty());
    QCOMPARE(product.getDataByKey("ProductName"), QString());
    QVERIFY(!product.isLegacy());
}

void TestProduct::metaObject()
{
    const QMetaObject* meta = &Product::staticMetaObject;
    QCOMPARE(meta->className(), "KepPlugin::Product");
    QCOMPARE(meta->superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta->propertyCount(), meta->propertyOffset());
    QCOMPARE(meta->methodCount() - meta->methodOffset(), 2);

    const QMetaMethod signal = meta->method(meta->methodOffset());
    QCOMPARE(signal.methodType(), QMetaMethod::Signal);
    QCOMPARE(signal.methodSignature(), QByteArray("regDataChanged(QString,QString,QString)"));
    QCOMPARE(signal.parameterNames(), (QList<QByteArray>{"guid", "key", "value"}));
    QCOMPARE(signal.access(), QMetaMethod::Public);

    const QMetaMethod slot = meta->method(meta->methodOffset() + 1);
    QCOMPARE(slot.methodType(), QMetaMethod::Slot);
    QCOMPARE(slot.methodSignature(), QByteArray("setRawXmlData(QString)"));
    QCOMPARE(slot.parameterNames(), QList<QByteArray>{"data"});
    QCOMPARE(slot.access(), QMetaMethod::Public);
    QCOMPARE(slot.returnType(), int(QMetaType::Void));
}

void TestProduct::getDataByKey_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::newRow("exact key") << "MediaID" << "42";
    QTest::newRow("lower-case key") << "mediaid" << "";
    QTest::newRow("never set") << "UpdateID" << "";
    QTest::newRow("any key, not only known ones") << "Custom Key" << "c";
    QTest::newRow("empty value") << "OwnerProductCode" << "";
    QTest::newRow("trailing blank in key") << "MediaID " << "";
}

void TestProduct::getDataByKey()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    Product product(guid);
    product.setData({{"MediaID", "42"}, {"Custom Key", "c"}, {"OwnerProductCode", ""}});
    QCOMPARE(product.getDataByKey(key), value);
}

void TestProduct::setDataByKey_data()
{
    QTest::addColumn<Fields>("before");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::addColumn<Fields>("after");
    const Fields record{{"ProductName", "Studio"}, {"RecordMigrated", "1"}};
    QTest::newRow("new key") << record << "AutoUninstallMode" << "2"
                             << Fields{{"ProductName", "Studio"}, {"RecordMigrated", "1"}, {"AutoUninstallMode", "2"}};
    QTest::newRow("changed value") << record << "RecordMigrated" << "0"
                                   << Fields{{"ProductName", "Studio"}, {"RecordMigrated", "0"}};
    QTest::newRow("same value again") << record << "ProductName" << "Studio" << record;
    QTest::newRow("empty value") << record << "ProductName" << ""
                                 << Fields{{"ProductName", ""}, {"RecordMigrated", "1"}};
    QTest::newRow("key differing in case is another key")
        << record << "productname" << "x"
        << Fields{{"ProductName", "Studio"}, {"RecordMigrated", "1"}, {"productname", "x"}};
}

void TestProduct::setDataByKey()
{
    QFETCH(Fields, before);
    QFETCH(QString, key);
    QFETCH(QString, value);
    QFETCH(Fields, after);
    Product product(guid);
    product.setData(before);
    QSignalSpy spy(&product, &Product::regDataChanged);
    QString seenDuringSignal;
    connect(&product, &Product::regDataChanged, this,
            [&](const QString&, const QString& changedKey, const QString&) {
                seenDuringSignal = product.getDataByKey(changedKey);
            });
    product.setDataByKey(key, value);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0), (QVariantList{guid, key, value}));
    QCOMPARE(seenDuringSignal, value);
    for (auto it = after.cbegin(); it != after.cend(); ++it)
        QCOMPARE(product.getDataByKey(it.key()), it.value());
}

void TestProduct::setDataEmitsNothing()
{
    Product product(guid);
    QSignalSpy spy(&product, &Product::regDataChanged);
    product.setData({{"MediaID", "1"}, {"UpdateID", "2"}});
    product.setData({{"UpdateID", "3"}});
    QCOMPARE(spy.count(), 0);
    QCOMPARE(product.getDataByKey("MediaID"), QString());
    QCOMPARE(product.getDataByKey("UpdateID"), QString("3"));
}

void TestProduct::isLegacy_data()
{
    QTest::addColumn<Fields>("record");
    QTest::addColumn<bool>("legacy");
    QTest::newRow("one") << Fields{{"RecordMigrated", "1"}} << true;
    QTest::newRow("absent") << Fields{} << false;
    QTest::newRow("empty") << Fields{{"RecordMigrated", ""}} << false;
    QTest::newRow("zero") << Fields{{"RecordMigrated", "0"}} << false;
    QTest::newRow("true") << Fields{{"RecordMigrated", "true"}} << false;
    QTest::newRow("leading blank") << Fields{{"RecordMigrated", " 1"}} << false;
    QTest::newRow("trailing blank") << Fields{{"RecordMigrated", "1 "}} << false;
    QTest::newRow("leading zero") << Fields{{"RecordMigrated", "01"}} << false;
    QTest::newRow("key in lower case") << Fields{{"recordmigrated", "1"}} << false;
}

void TestProduct::isLegacy()
{
    QFETCH(Fields, record);
    QFETCH(bool, legacy);
    Product product(guid);
    product.setData(record);
    QCOMPARE(product.isLegacy(), legacy);
}

void TestProduct::parseRawXmlData_data()
{
    QTest::addColumn<QString>("stored");
    QTest::addColumn<QString>("argument");
    QTest::addColumn<int>("logLevel");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("updates");
    QTest::addColumn<QStringList>("news");
    QTest::addColumn<QStringList>("log");
    const QStringList oldUpdates{"id=old"};
    const QStringList oldNews{"id=old-news"};
    const QString bad = QStringLiteral("<r><return_code>0</r>");
    QTest::newRow("nothing at all, notice level")
        << "" << "" << 1 << false << oldUpdates << oldNews << QStringList{nothingToParse};
    QTest::newRow("nothing at all, failure level") << "" << "" << 2 << false << oldUpdates << oldNews << QStringList{};
    QTest::newRow("stored text parsed") << replyWithUpdate("7") << "" << 2 << true << QStringList{"id=7"}
                                        << QStringList{"id=n7"} << QStringList{};
    QTest::newRow("argument preferred to stored text")
        << replyWithUpdate("7") << replyWithUpdate("8") << 2 << true << QStringList{"id=8"} << QStringList{"id=n8"}
        << QStringList{};
    QTest::newRow("malformed argument still true")
        << "" << bad << 2 << true << oldUpdates << oldNews
        << QStringList{line(2, "KepProductData::parseRawXmlData: bad XML format of raw data: ", bad)};
    QTest::newRow("malformed stored text still true")
        << bad << "" << 2 << true << oldUpdates << oldNews
        << QStringList{line(2, "KepProductData::parseRawXmlData: bad XML format of raw data: ", bad)};
    QTest::newRow("no return_code still true")
        << "" << "<r><updates/></r>" << 2 << true << oldUpdates << oldNews
        << QStringList{"2 KepProductData::parseRawXmlData: KEP returned incorrect data (no return_code tag)"};
    QTest::newRow("accepted reply without records empties both lists")
        << "" << "<r><return_code>3</return_code></r>" << 2 << true << QStringList{} << QStringList{} << QStringList{};
}

void TestProduct::parseRawXmlData()
{
    QFETCH(QString, stored);
    QFETCH(QString, argument);
    QFETCH(int, logLevel);
    QFETCH(bool, result);
    QFETCH(QStringList, updates);
    QFETCH(QStringList, news);
    QFETCH(QStringList, log);
    Product product(guid);
    product.addUpdate(new CountedUpdate("old"));
    product.addNews(new CountedNews("old-news"));
    if (!stored.isEmpty())
        product.setRawXmlData(stored);
    LogCapture capture(logLevel);
    QCOMPARE(product.parseRawXmlData(argument), result);
    QCOMPARE(capture.lines(), log);
    QCOMPARE(updatesOf(product), updates);
    QCOMPARE(newsOf(product), news);
    QCOMPARE(updatesDestroyed(), updates == QStringList{"id=old"} ? 0 : 1);
}

void TestProduct::argumentDoesNotReplaceStoredText()
{
    Product product(guid);
    product.setRawXmlData(replyWithUpdate("1"));
    QVERIFY(product.parseRawXmlData(replyWithUpdate("2")));
    QCOMPARE(updatesOf(product), QStringList{"id=2"});
    QVERIFY(product.parseRawXmlData(QString()));
    QCOMPARE(updatesOf(product), QStringList{"id=1"});
}

void TestProduct::setRawXmlDataSlotOnlyStores()
{
    Product product(guid);
    product.addUpdate(new CountedUpdate("old"));
    QVERIFY(QMetaObject::invokeMethod(&product, "setRawXmlData", Q_ARG(QString, replyWithUpdate("5"))));
    QCOMPARE(updatesOf(product), QStringList{"id=old"});
    QCOMPARE(updatesDestroyed(), 0);
    QVERIFY(product.parseRawXmlData(QString()));
    QCOMPARE(updatesOf(product), QStringList{"id=5"});
    QCOMPARE(updatesDestroyed(), 1);
}

void TestProduct::ownership_data()
{
    QTest::addColumn<QString>("action");
    QTest::addColumn<int>("updatesGone");
    QTest::addColumn<int>("newsGone");
    QTest::addColumn<int>("updatesLeft");
    QTest::newRow("clearUpdates") << "clearUpdates" << 2 << 0 << 0;
    QTest::newRow("clearNews") << "clearNews" << 0 << 3 << 2;
    QTest::newRow("clear both twice") << "clearTwice" << 2 << 3 << 0;
    QTest::newRow("accepted reply replaces") << "accepted" << 2 << 3 << 1;
    QTest::newRow("rejected reply keeps") << "rejected" << 0 << 0 << 2;
    QTest::newRow("nothing to parse keeps") << "empty" << 0 << 0 << 2;
    QTest::newRow("no action") << "none" << 0 << 0 << 2;
}

// Every record added is destroyed exactly once: by the action, or else by the product's end.
void TestProduct::ownership()
{
    QFETCH(QString, action);
    QFETCH(int, updatesGone);
    QFETCH(int, newsGone);
    QFETCH(int, updatesLeft);
    auto product = std::make_unique<Product>(guid);
    for (int i = 0; i < 2; ++i)
        product->addUpdate(new CountedUpdate(QString::number(i)));
    for (int i = 0; i < 3; ++i)
        product->addNews(new CountedNews(QString::number(i)));
    LogCapture quiet(3);
    if (action == QLatin1String("clearUpdates")) {
        product->clearUpdates();
    } else if (action == QLatin1String("clearNews")) {
        product->clearNews();
    } else if (action == QLatin1String("clearTwice")) {
        for (int i = 0; i < 2; ++i) {
            product->clearUpdates();
            product->clearNews();
        }
    } else if (action == QLatin1String("accepted")) {
        QVERIFY(product->parseRawXmlData(replyWithUpdate("9")));
    } else if (action == QLatin1String("rejected")) {
        QVERIFY(product->parseRawXmlData("<r/>"));
    } else if (action == QLatin1String("empty")) {
        QVERIFY(!product->parseRawXmlData(QString()));
    }
    QCOMPARE(updatesDestroyed(), updatesGone);
    QCOMPARE(newsDestroyed(), newsGone);
    QCOMPARE(product->updatesList().size(), updatesLeft);
    product.reset();
    QCOMPARE(updatesDestroyed(), 2);
    QCOMPARE(newsDestroyed(), 3);
}

void TestProduct::listsAreCopies()
{
    Product product(guid);
    product.addUpdate(new CountedUpdate("1"));
    product.addNews(new CountedNews("1"));
    QList<Update*> updates = product.updatesList();
    QList<News*> news = product.newsList();
    updates.clear();
    news.clear();
    QCOMPARE(product.updatesList().size(), 1);
    QCOMPARE(product.newsList().size(), 1);
    const QList<Update*> before = product.updatesList();
    product.clearUpdates();
    QVERIFY(product.updatesList().isEmpty());
    QCOMPARE(before.size(), 1); // a dangling pointer now; only its count may be looked at
}

void TestProduct::nullRecordsAreStored()
{
    Product product(guid);
    product.addUpdate(nullptr);
    product.addNews(nullptr);
    product.addNews(new CountedNews("1"));
    QCOMPARE(product.updatesList(), QList<Update*>{nullptr});
    QCOMPARE(product.newsList().size(), 2);
    QCOMPARE(product.newsList().first(), nullptr);
    product.clearNews();
    QCOMPARE(newsDestroyed(), 1);
}

QTEST_GUILESS_MAIN(TestProduct)
#include "tst_product.moc"
