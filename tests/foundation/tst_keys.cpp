#include "ChildRun.h"
#include "localdb/KepKeys.h"
#include "regtool/ProductRecord.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace KepPlugin;

// The two database directories as the plug-in and the registration tool fix them at load time.
class TestKeys : public QObject
{
    Q_OBJECT
public:
    static int child(const QStringList& args)
    {
        if (args.isEmpty())
            return 0;
        const int registered = registerProduct("g", "n", "v", "m", "p", "u", 1);
        printf("%s|%s|%s|%s|%s\n", qPrintable(Keys::USER_DB_DIR), qPrintable(Keys::SYSTEM_DB_DIR),
               ProductRecord::userDbDir().c_str(), ProductRecord::systemDbDir().c_str(), registered ? "refused" : "ok");
        return 0;
    }

private slots:
    void homeIsReadOnce()
    {
        const QByteArray home = qgetenv("HOME");
        QCOMPARE(Keys::USER_DB_DIR, QString::fromLocal8Bit(home) + QStringLiteral("/vasko/tav/db"));
        qputenv("HOME", "/home/elsewhere");
        const QString plugin = Keys::USER_DB_DIR;
        const std::string tool = ProductRecord::userDbDir();
        qputenv("HOME", home);
        QCOMPARE(plugin, QString::fromLocal8Bit(home) + QStringLiteral("/vasko/tav/db"));
        QCOMPARE(QString::fromStdString(tool), plugin);
    }
    void environmentAtLoad_data()
    {
        QTest::addColumn<QString>("home"); // null: unset; <tmp>: a temporary directory
        QTest::addColumn<QString>("systemDir");
        QTest::addColumn<QString>("expected"); // user db | system db, each for the plug-in and the tool | register
        QTest::newRow("both set") << "<tmp>" << "/srv/db" << "<tmp>/vasko/tav/db|/srv/db|<tmp>/vasko/tav/db|/srv/db|ok";
        QTest::newRow("HOME unset: no user database") << QString() << "/srv/db" << "|/srv/db||/srv/db|refused";
        QTest::newRow("HOME empty") << "" << "/srv/db" << "|/srv/db||/srv/db|refused";
        QTest::newRow("system directory not relocated")
            << "<tmp>" << QString() << "<tmp>/vasko/tav/db|/opt/vasko/tav/db|<tmp>/vasko/tav/db|/opt/vasko/tav/db|ok";
        QTest::newRow("system directory empty")
            << "<tmp>" << "" << "<tmp>/vasko/tav/db|/opt/vasko/tav/db|<tmp>/vasko/tav/db|/opt/vasko/tav/db|ok";
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
        const ChildRun run({QStringLiteral("keys")}, env);
        QVERIFY(!run.crashed);
        QCOMPARE(run.out, QStringList{expected.replace(QLatin1String("<tmp>"), tmp.path())});
    }
};

KEP_TEST_MAIN_WITH_CHILD(TestKeys)
#include "tst_keys.moc"
