#include "LocalDbFixture.h"
#include "LogCapture.h"
#include "TestDb.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace LocalDbFixture;
using KepPlugin::LocalDataBaseManager;

// What the manager hands the registration tool's two entry points, and when it loads the tool.
class TestRegToolCalls : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void registration_data();
    void registration();
    void valueChangeCallsSetValue();
    void toolLoadsOnFirstLookupAndUnloadsWithTheManager();

private:
    QStringList calls() const;
    static bool toolMapped();

    QTemporaryDir callDir_;
};

void TestRegToolCalls::initTestCase()
{
    QVERIFY2(TestDb::isolated(), "run through CTest, which gives the suite a temporary HOME and system database");
    QVERIFY2(QFile::exists(QStringLiteral(KEP_FAKE_REGTOOL_PATH)), KEP_FAKE_REGTOOL_PATH);
    QVERIFY(callDir_.isValid());
    qputenv("KEP_FAKE_REGTOOL_CALLS", QFile::encodeName(callDir_.filePath(QStringLiteral("calls"))));
}

void TestRegToolCalls::init()
{
    TestDb::reset();
    QFile::remove(callDir_.filePath(QStringLiteral("calls")));
}

void TestRegToolCalls::cleanup()
{
    qunsetenv("KEP_FAKE_REGISTER_RESULT");
}

QStringList TestRegToolCalls::calls() const
{
    return QString::fromLocal8Bit(readBytes(callDir_.filePath(QStringLiteral("calls"))))
        .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

bool TestRegToolCalls::toolMapped()
{
    // Whole lines: the versioned library beside it shares the path as a prefix.
    const QList<QByteArray> lines = readBytes(QStringLiteral("/proc/self/maps")).split('\n');
    for (const QByteArray& line : lines)
        if (line.endsWith(" " KEP_FAKE_REGTOOL_PATH))
            return true;
    return false;
}

void TestRegToolCalls::registration_data()
{
    QTest::addColumn<QByteArray>("result");
    QTest::addColumn<bool>("peruser");
    QTest::addColumn<QString>("lastLine");
    const QString done = QStringLiteral("0 LocalDataBaseManager::convertFncProductEntry: product convertation completed!");
    const QString failed = QStringLiteral("2 LocalDataBaseManager::convertFncProductEntry: error during convertation: # ");
    QTest::newRow("registered, system") << QByteArray("0") << false << done;
    QTest::newRow("registered, user") << QByteArray("0") << true << done;
    QTest::newRow("failure still marks the record") << QByteArray("5") << false << failed + QStringLiteral("5");
    QTest::newRow("negative error number") << QByteArray("-1") << true << failed + QStringLiteral("-1");
}

void TestRegToolCalls::registration()
{
    QFETCH(QByteArray, result);
    QFETCH(bool, peruser);
    QFETCH(QString, lastLine);
    qputenv("KEP_FAKE_REGISTER_RESULT", result);
    writeLegacy(TestDb::userDir(), QStringLiteral("studio"), "ProductCode=G1\nProductName=Studio Pro\nVersion=3.1\n",
                profileXml({{"MediaID", "M1"}, {"ProductID", "P1"}, {"UpdateID", "U1"}}));

    LogCapture log(0);
    LocalDataBaseManager manager;
    QCOMPARE(manager.convertFncProductEntry(TestDb::userDir() + QStringLiteral("/studio.properties"), peruser),
             result == "0");
    const QString flag = peruser ? QStringLiteral("1") : QStringLiteral("0");
    QCOMPARE(calls(), (QStringList{QStringLiteral("registerProduct|G1|Studio Pro|3.1|M1|P1|U1|") + flag,
                                   QStringLiteral("setValue|G1|RecordMigrated|1|") + flag}));
    QCOMPARE(log.lines().last(), lastLine);
}

void TestRegToolCalls::valueChangeCallsSetValue()
{
    TestDb::writeRecord(true, QStringLiteral("Prödukt"), {{"ProductName", "P"}});
    LocalDataBaseManager manager;
    manager.findRegisteredProducts();
    KepPlugin::Product* product = manager.getProductByGuid(QStringLiteral("Prödukt"));
    QVERIFY(product);
    product->setDataByKey(QStringLiteral("UpdateID"), QStringLiteral("Ü 2"));
    const QString flag = runningAsRoot() ? QStringLiteral("0") : QStringLiteral("1");
    QCOMPARE(calls(), QStringList{QStringLiteral("setValue|Prödukt|UpdateID|Ü 2|") + flag});
}

void TestRegToolCalls::toolLoadsOnFirstLookupAndUnloadsWithTheManager()
{
    QVERIFY(!toolMapped());
    TestDb::writeRecord(false, QStringLiteral("a"), {{"ProductName", "A"}});
    auto* manager = new LocalDataBaseManager;
    // Reading records goes through the linked record class, never through the lookup.
    manager->findRegisteredProducts();
    QCOMPARE(manager->productList().size(), 1);
    QVERIFY(!toolMapped());
    manager->setValueInRegDb(QStringLiteral("a"), QStringLiteral("k"), QStringLiteral("v"));
    QVERIFY(toolMapped());
    delete manager;
    QVERIFY(!toolMapped());
}

KEP_LOCALDB_TEST_MAIN(TestRegToolCalls)
#include "tst_regtoolcalls.moc"
