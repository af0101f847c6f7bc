#include "HelperProcess.h"
#include "localdb/KepKeys.h"
#include "regtool/ProductRecord.h"

#include <QtTest>

using namespace KepPlugin;

// The shared keys and the two database directories, as fixed when a library is loaded.
class TestKeys : public QObject
{
    Q_OBJECT
private slots:
    void fieldKeysInOrder();
    void pluginAndToolAgree();
    void homeIsReadOnce();
    void environmentAtLoad_data();
    void environmentAtLoad();
};

void TestKeys::fieldKeysInOrder()
{
    QCOMPARE(Keys::REG_TOOL_FIELD_KEYS,
             (QStringList{"ProductName", "ProductVersion", "MediaID", "ProductID", "UpdateID", "OwnerProductCode",
                          "AutoUninstallMode", "RecordMigrated"}));
}

void TestKeys::pluginAndToolAgree()
{
    QCOMPARE(QString::fromStdString(ProductRecord::userDbDir()), Keys::USER_DB_DIR);
    QCOMPARE(QString::fromStdString(ProductRecord::systemDbDir()), Keys::SYSTEM_DB_DIR);
    QCOMPARE(Keys::USER_DB_DIR, qEnvironmentVariable("HOME") + QStringLiteral("/vasko/tav/db"));
    QCOMPARE(Keys::SYSTEM_DB_DIR, qEnvironmentVariable("TAV_SYSTEM_DB_DIR"));
}

void TestKeys::homeIsReadOnce()
{
    const QByteArray home = qgetenv("HOME");
    const QString before = Keys::USER_DB_DIR;
    qputenv("HOME", "/home/elsewhere");
    const QString after = Keys::USER_DB_DIR;
    const std::string tool = ProductRecord::userDbDir();
    qputenv("HOME", home);
    QCOMPARE(after, before);
    QCOMPARE(QString::fromStdString(tool), before);
}

void TestKeys::environmentAtLoad_data()
{
    QTest::addColumn<QString>("home");      // null: unset
    QTest::addColumn<QString>("systemDir"); // null: unset
    QTest::addColumn<QString>("userDb");
    QTest::addColumn<QString>("systemDb");
    QTest::newRow("HOME set") << "/home/a" << "/srv/db" << "/home/a/vasko/tav/db" << "/srv/db";
    QTest::newRow("HOME unset") << QString() << "/srv/db" << "" << "/srv/db";
    QTest::newRow("HOME empty") << "" << "/srv/db" << "" << "/srv/db";
    QTest::newRow("system directory not relocated") << "/home/a" << QString() << "/home/a/vasko/tav/db"
                                                    << "/opt/vasko/tav/db";
    QTest::newRow("system directory empty") << "/home/a" << "" << "/home/a/vasko/tav/db" << "/opt/vasko/tav/db";
}

// The child only reads the constants: the real system directory is never touched.
void TestKeys::environmentAtLoad()
{
    QFETCH(QString, home);
    QFETCH(QString, systemDir);
    QFETCH(QString, userDb);
    QFETCH(QString, systemDb);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("HOME"));
    env.remove(QStringLiteral("TAV_SYSTEM_DB_DIR"));
    if (!home.isNull())
        env.insert(QStringLiteral("HOME"), home);
    if (!systemDir.isNull())
        env.insert(QStringLiteral("TAV_SYSTEM_DB_DIR"), systemDir);
    const HelperProcess::Result child = HelperProcess::run({QStringLiteral("keys")}, env);
    QVERIFY(child.finished);
    QCOMPARE(child.status, QProcess::NormalExit);
    QCOMPARE(child.exitCode, 0);
    QCOMPARE(child.output, QStringLiteral("user=%1\nsystem=%2\ntool-user=%1\ntool-system=%2\n").arg(userDb, systemDb));
    if (userDb.isEmpty()) {
        // No user database: registering there fails instead of writing somewhere odd.
        const HelperProcess::Result registered = HelperProcess::run({"register-user", "g"}, env);
        QCOMPARE(registered.status, QProcess::NormalExit);
        QVERIFY2(registered.output.startsWith(QLatin1String("register=")) && registered.output != "register=0\n",
                 qPrintable(registered.output));
    }
}

QTEST_GUILESS_MAIN(TestKeys)
#include "tst_keys.moc"
