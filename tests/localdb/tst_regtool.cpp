#include "LogCapture.h"
#include "TestDb.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"

#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using KepPlugin::LocalDataBaseManager;

// What the manager hands the registration tool it looks up at run time, built twice: once where
// the lookup finds a tool that records its calls, once where it finds none (KEP_NO_REGTOOL).
class TestRegTool : public QObject
{
    Q_OBJECT
private:
    QTemporaryDir dir_;
    QStringList calls() const
    {
        return QString::fromLocal8Bit(TestDb::readFile(dir_.filePath("calls"))).split('\n', Qt::SkipEmptyParts);
    }

private slots:
    void init()
    {
        QVERIFY(TestDb::isolated());
        TestDb::reset();
        qputenv("KEP_FAKE_REGTOOL_CALLS", QFile::encodeName(dir_.filePath(QStringLiteral("calls"))));
        QFile::remove(dir_.filePath(QStringLiteral("calls")));
    }
    void registration_data()
    {
        QTest::addColumn<QByteArray>("result");
        QTest::addColumn<bool>("peruser");
        QTest::addColumn<QString>("lastLine");
        const QString done = QStringLiteral("0 LocalDataBaseManager::convertFncProductEntry: product convertation completed!");
        const QString failed = "2 LocalDataBaseManager::convertFncProductEntry: error during convertation: # ";
        QTest::newRow("registered, system") << QByteArray("0") << false << done;
        QTest::newRow("registered, user") << QByteArray("0") << true << done;
        QTest::newRow("failure still marks the record") << QByteArray("5") << false << failed + "5";
        QTest::newRow("negative error number") << QByteArray("-1") << true << failed + "-1";
    }
    void registration()
    {
        QFETCH(QByteArray, result);
        QFETCH(bool, peruser);
        QFETCH(QString, lastLine);
        qputenv("KEP_FAKE_REGISTER_RESULT", result);
        TestDb::writeLegacy(TestDb::userDir(), "studio", "ProductCode=G1\nProductName=Studio Pro\nVersion=3.1\n",
                            TestDb::profileXml({{"MediaID", "M1"}, {"ProductID", "P1"}, {"UpdateID", "U1"}}));
        LogCapture log(0);
        LocalDataBaseManager manager;
        const bool converted = manager.convertFncProductEntry(TestDb::userDir() + "/studio.properties", peruser);
#ifdef KEP_NO_REGTOOL
        const QString prefix = QStringLiteral("2 LocalDataBaseManager::convertFncProductEntry: ");
        QCOMPARE(log.lines().mid(1), (QStringList{prefix + "cannot load lib:  \"tav.dataprovider.kep.regtool\"",
                                                  prefix + "convertation cannot be done"}));
        QCOMPARE(calls(), QStringList());
        Q_UNUSED(lastLine)
        QVERIFY(!converted);
#else
        QCOMPARE(converted, result == "0");
        const QString flag = QString::number(int(peruser));
        QCOMPARE(calls(), (QStringList{"registerProduct|G1|Studio Pro|3.1|M1|P1|U1|" + flag,
                                       "setValue|G1|RecordMigrated|1|" + flag}));
        QCOMPARE(log.lines().last(), lastLine);
#endif
        QCOMPARE(TestDb::entries(TestDb::systemDir()), QStringList());
    }
    // Records are read through the linked record class; the lookup is only for writing.
    void valueChange()
    {
        TestDb::writeRecord(true, QStringLiteral("Prödukt"), {{"ProductName", "P"}});
        LogCapture log(0);
        LocalDataBaseManager manager;
        manager.findRegisteredProducts();
        QVERIFY(manager.getProductByGuid(QStringLiteral("Prödukt")));
        log.clear();
        manager.getProductByGuid(QStringLiteral("Prödukt"))->setDataByKey("UpdateID", QStringLiteral("Ü 2"));
        QCOMPARE(log.lines(), QStringList());
#ifdef KEP_NO_REGTOOL
        QCOMPARE(TestDb::readRecord(true, QStringLiteral("Prödukt")), (QMap<QString, QString>{{"ProductName", "P"}}));
#else
        QCOMPARE(calls(), QStringList{QStringLiteral("setValue|Prödukt|UpdateID|Ü 2|%1").arg(::geteuid() != 0)});
#endif
    }
};

QTEST_GUILESS_MAIN(TestRegTool)
#include "tst_regtool.moc"
