#include "LogCapture.h"
#include "localdb/KepLog.h"

#include <QtTest>

// The log convention: level gate, and how the items of a line are joined.
class TestKepLog : public QObject
{
    Q_OBJECT
private slots:
    void gate_data()
    {
        QTest::addColumn<int>("loggerLevel");
        QTest::addColumn<int>("lineLevel");
        QTest::addColumn<bool>("written");
        QTest::newRow("trace at trace") << 0 << 0 << true;
        QTest::newRow("failure at trace") << 0 << 2 << true;
        QTest::newRow("notice at notice") << 1 << 1 << true;
        QTest::newRow("trace at notice") << 1 << 0 << false;
        QTest::newRow("notice at failure") << 2 << 1 << false;
        QTest::newRow("failure above every level") << 3 << 2 << false;
    }
    void gate()
    {
        QFETCH(int, loggerLevel);
        QFETCH(int, lineLevel);
        QFETCH(bool, written);
        LogCapture log(loggerLevel);
        int elses = 0;
        for (bool taken : {true, false}) // nests in an unbraced if
            if (taken)
                KEP_LOG(lineLevel) << "Gate::line = " << QStringLiteral("a \"b\"") << 7;
            else
                ++elses;
        QCOMPARE(elses, 1);
        QCOMPARE(log.lines(), written ? QStringList{QStringLiteral("%1 Gate::line =  \"a \\\"b\\\"\" 7").arg(lineLevel)}
                                      : QStringList{});
    }
};

QTEST_GUILESS_MAIN(TestKepLog)
#include "tst_keplog.moc"
