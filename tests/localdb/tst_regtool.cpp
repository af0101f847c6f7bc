#include "LogCapture.h"
#include "TestDb.h"
#include "localdb/LocalDataBaseManager.h"

#include <QtTest>

#include <unistd.h>

using KepPlugin::LocalDataBaseManager;

// What the manager hands the registration tool it looks up at run time, built twice: once where
// the lookup finds a tool that records its calls, once where the tool it finds has neither entry
// point (KEP_REGTOOL_FOUND 0).
class TestRegTool : public QObject
{
    Q_OBJECT
private slots:
    void registration_data()
    {
        QTest::addColumn<QByteArray>("result");
        QTest::addColumn<bool>("peruser");
        QTest::addColumn<QString>("lastLine");
        const QString prefix = QStringLiteral("%1 LocalDataBaseManager::convertFncProductEntry: ");
        QTest::newRow("registered, user") << QByteArray("0") << true << prefix.arg(0) + "product convertation completed!";
        QTest::newRow("failure still marks the record") << QByteArray("-5") << false << prefix.arg(2) + "error during convertation: # -5";
    }
    // A value change is written through the tool too, with no log line, and silently skipped without it.
    void registration()
    {
        QFETCH(QByteArray, result);
        QFETCH(bool, peruser);
        QFETCH(QString, lastLine);
        QVERIFY(TestDb::isolated());
        TestDb::reset();
        const QString calls = QDir::homePath() + QStringLiteral("/calls");
        QFile::remove(calls);
        qputenv("KEP_FAKE_REGTOOL_CALLS", QFile::encodeName(calls));
        qputenv("KEP_FAKE_REGISTER_RESULT", result);
        QVERIFY(TestDb::writeFile(TestDb::userDir() + "/studio.properties", "ProductCode=G1\nProductName=Studio Pro\nVersion=3.1\n")
                && TestDb::writeFile(TestDb::userDir() + "/studio.pf", "<profiles><profile><data id=\"MediaID\" value=\"M1\"/><data "
                                     "id=\"ProductID\" value=\"P1\"/><data id=\"UpdateID\" value=\"U1\"/></profile></profiles>"));
        LogCapture log(0);
        LocalDataBaseManager manager;
        QCOMPARE(manager.convertFncProductEntry(TestDb::userDir() + "/studio.properties", peruser), KEP_REGTOOL_FOUND && result == "0");
        manager.setValueInRegDb(QStringLiteral("Prödukt"), QStringLiteral("UpdateID"), QStringLiteral("Ü 2"));
        const QString flag = QString::number(int(peruser)), prefix = "2 LocalDataBaseManager::convertFncProductEntry: ";
        const QStringList expected{"registerProduct|G1|Studio Pro|3.1|M1|P1|U1|" + flag, "setValue|G1|RecordMigrated|1|" + flag,
                                   QStringLiteral("setValue|Prödukt|UpdateID|Ü 2|%1").arg(::geteuid() != 0)},
            noTool{prefix + "cannot load lib:  \"tav.dataprovider.kep.regtool\"", prefix + "convertation cannot be done"};
        QCOMPARE(QString::fromLocal8Bit(TestDb::readFile(calls)).split('\n', Qt::SkipEmptyParts), KEP_REGTOOL_FOUND ? expected : QStringList());
        QCOMPARE(log.lines().mid(1), KEP_REGTOOL_FOUND ? QStringList{lastLine} : noTool);
        QCOMPARE(TestDb::entries(TestDb::systemDir()) + TestDb::entries(TestDb::userDir()), (QStringList{"studio.pf", "studio.properties"}));
    }
};

QTEST_GUILESS_MAIN(TestRegTool)
#include "tst_regtool.moc"
