#include "LocalDbFixture.h"
#include "LogCapture.h"
#include "TestDb.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"

#include <QtTest>

using namespace LocalDbFixture;
using KepPlugin::LocalDataBaseManager;

// A machine where the registration tool cannot be looked up at run time.
class TestRegToolMissing : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void conversionCannotBeDone();
    void valueChangeIsDroppedQuietly();
};

void TestRegToolMissing::initTestCase()
{
    QVERIFY2(TestDb::isolated(), "run through CTest, which gives the suite a temporary HOME and system database");
    TestDb::reset();
    QVERIFY2(!QLibrary(QStringLiteral("tav.dataprovider.kep.regtool")).load(),
             "the registration tool is on the loader's path; this suite needs it absent");
}

void TestRegToolMissing::conversionCannotBeDone()
{
    writeLegacy(TestDb::userDir(), QStringLiteral("studio"), "ProductCode=G1\nProductName=Studio\n",
                profileXml({{"UpdateID", "U1"}}));
    TestDb::writeRecord(false, QStringLiteral("kept"), {{"ProductName", "Kept"}});
    const QString file = TestDb::userDir() + QStringLiteral("/studio.properties");

    LogCapture log(0);
    LocalDataBaseManager manager;
    QVERIFY(!manager.convertFncProductEntry(file, false));
    const QString prefix = QStringLiteral("LocalDataBaseManager::convertFncProductEntry: ");
    QCOMPARE(log.lines(), (QStringList{QStringLiteral("0 ") + prefix + QStringLiteral("converting  ") + quoted(file),
                                       QStringLiteral("2 ") + prefix
                                           + QStringLiteral("cannot load lib:  \"tav.dataprovider.kep.regtool\""),
                                       QStringLiteral("2 ") + prefix + QStringLiteral("convertation cannot be done")}));
    QVERIFY(!QFile::exists(TestDb::systemDir() + QStringLiteral("/G1.ini")));

    // The records themselves are still read.
    manager.findRegisteredProducts();
    QCOMPARE(guids(manager.productList()), QStringList{"kept"});
}

void TestRegToolMissing::valueChangeIsDroppedQuietly()
{
    TestDb::writeRecord(false, QStringLiteral("quiet"), {{"ProductName", "Quiet"}});
    LogCapture log(0);
    LocalDataBaseManager manager;
    manager.readProductsDb(false);
    log.clear();
    manager.getProductByGuid(QStringLiteral("quiet"))->setDataByKey(QStringLiteral("UpdateID"), QStringLiteral("2"));
    QCOMPARE(log.lines(), QStringList{});
    QCOMPARE(TestDb::readRecord(false, QStringLiteral("quiet")), (QMap<QString, QString>{{"ProductName", "Quiet"}}));
}

KEP_LOCALDB_TEST_MAIN(TestRegToolMissing)
#include "tst_regtoolmissing.moc"
