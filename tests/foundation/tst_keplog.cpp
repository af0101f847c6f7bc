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
        const int registered = registerProduct("g", "n", "v", "m", "p", "u", 1);
        printf("%s|%s|%s|%s|%s\n", qPrintable(Keys::USER_DB_DIR), qPrintable(Keys::SYSTEM_DB_DIR),
               ProductRecord::userDbDir().c_str(), ProductRecord::systemDbDir().c_str(), registered ? "refused" : "ok");
        return 0;
    }

private slots:
    void gate_data()
    {
        QTest::addColumn<int>("loggerLevel");
        QTest::addColumn<int>("lineLevel");
        QTest::addColumn<bool>("written");
        QTest::newRow("trace at trace") << 0 << 0 << true;
        QTest::newRow("failure at notice") << 1 << 2 << true;
        QTest::newRow("notice at notice") << 1 << 1 << true;
        QTest::newRow("trace at notice") << 1 << 0 << false;
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
    void homeIsReadOnce()
    {
        const QByteArray home = qgetenv("HOME");
        qputenv("HOME", "/home/elsewhere");
        const QString plugin = Keys::USER_DB_DIR, tool = QString::fromStdString(ProductRecord::userDbDir());
        qputenv("HOME", home);
        QCOMPARE(plugin, QString::fromLocal8Bit(home) + QStringLiteral("/vasko/tav/db"));
        QCOMPARE(tool, plugin);
    }
    void environmentAtLoad_data()
    {
        QTest::addColumn<QString>("home"); // null: unset; <tmp>: a temporary directory
        QTest::addColumn<QString>("systemDir");
        QTest::addColumn<QString>("expected"); // user db | system db, each for the plug-in and the tool | register
        const QString relocated = "<tmp>/vasko/tav/db|/srv/db|<tmp>/vasko/tav/db|/srv/db|ok";
        const QString fixed = "<tmp>/vasko/tav/db|/opt/vasko/tav/db|<tmp>/vasko/tav/db|/opt/vasko/tav/db|ok";
        QTest::newRow("both set") << "<tmp>" << "/srv/db" << relocated;
        QTest::newRow("HOME unset: no user database") << QString() << "/srv/db" << "|/srv/db||/srv/db|refused";
        QTest::newRow("HOME empty") << "" << "/srv/db" << "|/srv/db||/srv/db|refused";
        QTest::newRow("system directory not relocated") << "<tmp>" << QString() << fixed;
        QTest::newRow("system directory empty") << "<tmp>" << "" << fixed;
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
        env.remove(QStringLiteral("TAV_SYSTEM_DB_DIR"));
        if (!home.isNull())
            env.insert(QStringLiteral("HOME"), home.replace(QLatin1String("<tmp>"), tmp.path()));
        if (!systemDir.isNull())
            env.insert(QStringLiteral("TAV_SYSTEM_DB_DIR"), systemDir);
        const ChildRun run({}, env);
        QVERIFY(!run.crashed);
        QCOMPARE(run.out, QStringList{expected.replace(QLatin1String("<tmp>"), tmp.path())});
    }
};

KEP_TEST_MAIN_WITH_CHILD(TestKepLog)
#include "tst_keplog.moc"
