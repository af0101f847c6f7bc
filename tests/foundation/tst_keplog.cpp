#include "ChildRun.h"
#include "LogCapture.h"
#include "localdb/KepKeys.h"
#include "localdb/KepLog.h"
#include "regtool/ProductRecord.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace KepPlugin;

// The shared headers: the log line's gate and format, and the database directories that the
// plug-in and the registration tool both fix at load time.
class TestKepLog : public QObject
{
    Q_OBJECT
public:
    static int child(const QStringList&)
    {
        if (qEnvironmentVariableIsSet("HOME")) // too late: read once, at load
            qputenv("HOME", qgetenv("HOME") + "/elsewhere");
        printf("%s|%s|%s|%s|%s\n", qPrintable(Keys::USER_DB_DIR), qPrintable(Keys::SYSTEM_DB_DIR), ProductRecord::userDbDir().c_str(),
               ProductRecord::systemDbDir().c_str(), registerProduct("g", "n", "v", "m", "p", "u", 1) ? "refused" : "ok");
        return 0;
    }

private slots:
    void gate_data()
    {
        QTest::addColumn<int>("loggerLevel");
        QTest::addColumn<int>("lineLevel");
        QTest::newRow("failure at notice") << 1 << 2;
        QTest::newRow("notice at notice") << 1 << 1;
        QTest::newRow("trace at notice") << 1 << 0;
        QTest::newRow("failure above every level") << 3 << 2;
    }
    void gate()
    {
        QFETCH(int, loggerLevel);
        QFETCH(int, lineLevel);
        LogCapture log(loggerLevel);
        int elses = 0;
        for (bool taken : {true, false}) // nests in an unbraced if
            if (taken)
                KEP_LOG(lineLevel) << "Gate::line = " << QStringLiteral("a \"b\"") << 7;
            else
                ++elses;
        QCOMPARE(elses, 1);
        QCOMPARE(log.lines(), lineLevel >= loggerLevel ? QStringList{QStringLiteral("%1 Gate::line =  \"a \\\"b\\\"\" 7").arg(lineLevel)}
                                                       : QStringList{});
    }
    void environmentAtLoad_data()
    {
        QTest::addColumn<QString>("home"); // null: unset; <tmp>: a temporary directory
        QTest::addColumn<QString>("systemDir"); // empty: as if unset
        QTest::addColumn<QString>("expected"); // user db | system db, each for the plug-in and the tool | register
        QTest::newRow("both set") << "<tmp>" << "/srv/db" << "<tmp>/vasko/tav/db|/srv/db|<tmp>/vasko/tav/db|/srv/db|ok";
        QTest::newRow("HOME unset: no user database") << QString() << "/srv/db" << "|/srv/db||/srv/db|refused";
        QTest::newRow("system directory not relocated") << "<tmp>" << ""
                                                  << "<tmp>/vasko/tav/db|/opt/vasko/tav/db|<tmp>/vasko/tav/db|/opt/vasko/tav/db|ok";
    }
    // The child writes only below the temporary HOME; the real system directory is never touched.
    void environmentAtLoad()
    {
        QFETCH(QString, home);
        QFETCH(QString, systemDir);
        QFETCH(QString, expected);
        QTemporaryDir tmp;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("HOME"));
        if (!home.isNull())
            env.insert(QStringLiteral("HOME"), home.replace(QLatin1String("<tmp>"), tmp.path()));
        env.insert(QStringLiteral("TAV_SYSTEM_DB_DIR"), systemDir);
        const ChildRun run({}, env);
        QVERIFY(!run.crashed);
        QCOMPARE(run.out, QStringList{expected.replace(QLatin1String("<tmp>"), tmp.path())});
    }
};

KEP_TEST_MAIN_WITH_CHILD(TestKepLog)
#include "tst_keplog.moc"
