#include "LogCapture.h"
#include "localdb/KepLog.h"

#include <QtTest>

// The log convention: level gate, severity, category, and how items are joined.
class TestKepLog : public QObject
{
    Q_OBJECT
private slots:
    void gate_data();
    void gate();
    void format();
    void nestsInUnbracedIf();
};

void TestKepLog::gate_data()
{
    QTest::addColumn<int>("loggerLevel");
    QTest::addColumn<int>("lineLevel");
    QTest::addColumn<bool>("written");
    QTest::newRow("trace at trace") << 0 << 0 << true;
    QTest::newRow("failure at trace") << 0 << 2 << true;
    QTest::newRow("trace at notice") << 1 << 0 << false;
    QTest::newRow("notice at notice") << 1 << 1 << true;
    QTest::newRow("notice at failure") << 2 << 1 << false;
    QTest::newRow("failure at failure") << 2 << 2 << true;
    QTest::newRow("failure above every level") << 3 << 2 << false;
}

void TestKepLog::gate()
{
    QFETCH(int, loggerLevel);
    QFETCH(int, lineLevel);
    QFETCH(bool, written);
    LogCapture log(loggerLevel);
    KEP_LOG(lineLevel) << "Gate::line";
    QCOMPARE(log.lines(), written ? QStringList{QString::number(lineLevel) + QStringLiteral(" Gate::line")}
                                  : QStringList{});
}

void TestKepLog::format()
{
    LogCapture log(0);
    KEP_LOG(0) << "LocalDataBaseManager::readProductsDb: found product = " << QStringLiteral("a.ini");
    KEP_LOG(2) << "NetworkManager::checkNetworkReply(): error code parsed = " << QStringLiteral("326") << 7;
    KEP_LOG(1) << QStringLiteral("quoted \"inside\"");
    QCOMPARE(log.lines(), (QStringList{
                              QStringLiteral("0 LocalDataBaseManager::readProductsDb: found product =  \"a.ini\""),
                              QStringLiteral("2 NetworkManager::checkNetworkReply(): error code parsed =  \"326\" 7"),
                              QStringLiteral("1 \"quoted \\\"inside\\\"\""),
                          }));
}

void TestKepLog::nestsInUnbracedIf()
{
    LogCapture log(0);
    bool elseTaken = false;
    for (bool condition : {true, false}) {
        if (condition)
            KEP_LOG(0) << "taken";
        else
            elseTaken = true;
    }
    QCOMPARE(log.lines(), QStringList{QStringLiteral("0 taken")});
    QVERIFY(elseTaken);
}

QTEST_GUILESS_MAIN(TestKepLog)
#include "tst_keplog.moc"
