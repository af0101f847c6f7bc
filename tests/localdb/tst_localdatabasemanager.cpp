#include "LocalDbFixture.h"
#include "LogCapture.h"
#include "TestDb.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"

#include <QPointer>
#include <QTemporaryDir>
#include <QtTest>


using namespace LocalDbFixture;
using KepPlugin::LocalDataBaseManager;
using KepPlugin::Product;

namespace {

const QString readPrefix = QStringLiteral("LocalDataBaseManager::readProductsDb: ");

QString readLine(int level, const QString& text)
{
    return QString::number(level) + QLatin1Char(' ') + readPrefix + text;
}

QString foundLine(const QString& entry)
{
    return readLine(0, QStringLiteral("found product =  ") + quoted(entry));
}

QString unreadableLine(const QString& guid)
{
    return readLine(2, QStringLiteral("cannot read product record:  ") + quoted(guid));
}

const QString skipLine = readLine(0, QStringLiteral("skip product since it has been already added"));
const QString checkLine = readLine(0, QStringLiteral("check if product has been auto-uninstalled"));
const QString onLine = readLine(0, QStringLiteral("AUTOUNINSTALL flag is ON, removing db file"));
const QString offLine = readLine(0, QStringLiteral("AUTOUNINSTALL flag is OFF, continuing"));
const QString cannotRemoveLine = readLine(2, QStringLiteral("cannot remove db file"));

QString headerLine(bool peruser, const QString& path)
{
    return readLine(0, QStringLiteral("peruser= %1 ; db path= %2")
                           .arg(peruser ? QStringLiteral("true") : QStringLiteral("false"), quoted(path)));
}

QString convertHeader(const QString& path)
{
    return QStringLiteral("0 LocalDataBaseManager::convertRegDb: trying to find and convert FNC db from TAV 1.0: "
                          "path =  ")
        + quoted(path);
}

const QString convertDone =
    QStringLiteral("0 LocalDataBaseManager::convertRegDb: convertation of all products in this location is done");

QVariantMap named(const QString& name, const QVariantMap& more = {})
{
    QVariantMap values = more;
    values.insert(QStringLiteral("ProductName"), name);
    return values;
}

} // namespace

// Reading the two product databases into products, and writing values back.
class TestLocalDataBaseManager : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void reads_data();
    void reads();
    void oneRecordLogsEveryStep();
    void logLevelFiltersLines_data();
    void logLevelFiltersLines();
    void copiesOnlyTheFieldKeys();
    void autoUninstallDeletesTheGuidInTheWorkingDirectory();
    void clearDataDeletesAndForgets();
    void findAppendsWithoutClearing();
    void productChangeReachesTheRecord();
    void homeUnsetSkipsTheUserDatabase();
    void unprivilegedUser_data();
    void unprivilegedUser();

private:
    QTemporaryDir* workDir_ = nullptr;
    QString previousDir_;
};

void TestLocalDataBaseManager::initTestCase()
{
    QVERIFY2(TestDb::isolated(), "run through CTest, which gives the suite a temporary HOME and system database");
}

void TestLocalDataBaseManager::init()
{
    // Left by the row that puts a regular file where the system database belongs.
    if (QFileInfo(TestDb::systemDir()).isFile())
        QFile::remove(TestDb::systemDir());
    TestDb::reset();
    // An empty working directory: nothing may be read from or deleted in the real one.
    workDir_ = new QTemporaryDir;
    previousDir_ = QDir::currentPath();
    QVERIFY(QDir::setCurrent(workDir_->path()));
}

void TestLocalDataBaseManager::cleanup()
{
    QDir::setCurrent(previousDir_);
    delete workDir_;
    workDir_ = nullptr;
}

void TestLocalDataBaseManager::reads_data()
{
    QTest::addColumn<DbFiles>("files");
    QTest::addColumn<QString>("systemLocation"); // "dir", "missing" or "file"
    QTest::addColumn<QStringList>("products");
    QTest::addColumn<QStringList>("linesPresent");
    QTest::addColumn<QStringList>("linesAbsent");

    const QString dir = QStringLiteral("dir");
    QTest::newRow("empty databases") << DbFiles{} << dir << QStringList{} << QStringList{} << QStringList{};
    QTest::newRow("one record in each location")
        << DbFiles{record(true, "u1.ini", named("User One")), record(false, "s1.ini", named("System One"))} << dir
        << QStringList{"s1=System One", "u1=User One"} << QStringList{foundLine("u1.ini"), foundLine("s1.ini"), offLine}
        << QStringList{};
    QTest::newRow("user record wins over the system one")
        << DbFiles{record(true, "dup.ini", named("from user")), record(false, "dup.ini", named("from system"))}
        << dir << QStringList{"dup=from user"} << QStringList{skipLine} << QStringList{};
    QTest::newRow("upper-case suffix is no record")
        << DbFiles{record(false, "A.INI", named("A")), record(false, "b.ini", named("B"))} << dir
        << QStringList{"b=B"} << QStringList{foundLine("b.ini")} << QStringList{foundLine("A.INI")};
    QTest::newRow("every .ini is removed from the name")
        << DbFiles{record(false, "a.ini.ini", named("twice")), record(false, "a.ini", named("once"))} << dir
        << QStringList{"a=once"} << QStringList{foundLine("a.ini.ini"), foundLine("a.ini"), skipLine}
        << QStringList{};
    QTest::newRow("double suffix without its stem")
        << DbFiles{record(false, "c.ini.ini", named("C")), record(false, "d.ini", named("D"))} << dir
        << QStringList{"d=D"} << QStringList{unreadableLine("c")} << QStringList{};
    QTest::newRow("auto-uninstalled record is dropped, even when its deletion fails")
        << DbFiles{record(false, "gone.ini", named("Gone", {{"AutoUninstallMode", "1"}})),
                   record(true, "kept.ini", named("Kept", {{"AutoUninstallMode", "0"}}))}
        << dir << QStringList{"kept=Kept"} << QStringList{foundLine("gone.ini"), checkLine, onLine, cannotRemoveLine}
        << QStringList{};
    QTest::newRow("only an exact 1 means auto-uninstalled")
        << DbFiles{record(false, "x.ini", named("X", {{"AutoUninstallMode", "01"}})),
                   record(false, "y.ini", named("Y", {{"AutoUninstallMode", "true"}})),
                   record(false, "z.ini", named("Z", {{"AutoUninstallMode", ""}}))}
        << dir << QStringList{"x=X", "y=Y", "z=Z"} << QStringList{offLine} << QStringList{onLine};
    QTest::newRow("record that will not load")
        << DbFiles{rawFile(true, "broken.ini", "[broken\nProductName=Broken\n"), record(true, "fine.ini", named("Fine"))}
        << dir << QStringList{"fine=Fine"} << QStringList{foundLine("broken.ini"), unreadableLine("broken")}
        << QStringList{};
    QTest::newRow("spaces and non-ASCII letters")
        << DbFiles{record(true, QStringLiteral("Ünïcode Stüdio 2024.ini"), named(QStringLiteral("Ünïcode Stüdio")))}
        << dir << QStringList{QStringLiteral("Ünïcode Stüdio 2024=Ünïcode Stüdio")}
        << QStringList{foundLine(QStringLiteral("Ünïcode Stüdio 2024.ini"))} << QStringList{};
    QTest::newRow("other files are ignored")
        << DbFiles{rawFile(false, "notes.txt", "x"), rawFile(false, "y.ini.bak", "ProductName=Y\n"),
                   rawFile(false, "x.PROPERTIES", "ProductCode=X\n"), record(false, "real.ini", named("Real"))}
        << dir << QStringList{"real=Real"} << QStringList{}
        << QStringList{foundLine("notes.txt"), foundLine("y.ini.bak"), foundLine("x.PROPERTIES")};
    QTest::newRow("missing system location")
        << DbFiles{record(true, "u.ini", named("U"))} << QStringLiteral("missing") << QStringList{"u=U"}
        << QStringList{headerLine(false, TestDb::systemDir())} << QStringList{};
    QTest::newRow("system location is a regular file")
        << DbFiles{record(true, "u.ini", named("U"))} << QStringLiteral("file") << QStringList{"u=U"}
        << QStringList{headerLine(false, TestDb::systemDir())} << QStringList{};
}

void TestLocalDataBaseManager::reads()
{
    QFETCH(DbFiles, files);
    QFETCH(QString, systemLocation);
    QFETCH(QStringList, products);
    QFETCH(QStringList, linesPresent);
    QFETCH(QStringList, linesAbsent);

    for (const DbFile& file : files)
        write(file);
    if (systemLocation != QLatin1String("dir")) {
        QVERIFY(QDir(TestDb::systemDir()).removeRecursively());
        if (systemLocation == QLatin1String("file"))
            writeBytes(TestDb::systemDir(), "not a directory");
    }
    const QMap<QString, QString> before = snapshot({TestDb::userDir(), TestDb::systemDir()});

    LogCapture log(0);
    LocalDataBaseManager manager;
    manager.findRegisteredProducts();

    QCOMPARE(namesByGuid(manager.productList()), products);
    for (const QString& guid : guids(manager.productList()))
        QCOMPARE(manager.getProductByGuid(guid)->guid(), guid);
    const QStringList lines = log.lines();
    for (const QString& line : linesPresent)
        QVERIFY2(lines.contains(line), qPrintable(line + QStringLiteral("\nin:\n") + lines.join('\n')));
    for (const QString& line : linesAbsent)
        QVERIFY2(!lines.contains(line), qPrintable(line));
    // Reading never changes the database, whatever it holds.
    QCOMPARE(snapshot({TestDb::userDir(), TestDb::systemDir()}), before);
}

void TestLocalDataBaseManager::oneRecordLogsEveryStep()
{
    write(record(false, "only.ini", named("Only")));
    LogCapture log(0);
    LocalDataBaseManager manager;
    manager.findRegisteredProducts();
    QCOMPARE(log.lines(), (QStringList{convertHeader(TestDb::userDir()), convertDone,
                                       convertHeader(TestDb::systemDir()), convertDone,
                                       headerLine(true, TestDb::userDir()), headerLine(false, TestDb::systemDir()),
                                       foundLine("only.ini"), checkLine, offLine}));
}

void TestLocalDataBaseManager::logLevelFiltersLines_data()
{
    QTest::addColumn<int>("level");
    for (int level : {0, 1, 2, 3})
        QTest::addRow("logger level %d", level) << level;
}

void TestLocalDataBaseManager::logLevelFiltersLines()
{
    QFETCH(int, level);
    // One entry per location keeps the order independent of the file system.
    write(record(true, "gone.ini", named("Gone", {{"AutoUninstallMode", "1"}})));
    write(rawFile(false, "bad.ini", "[bad\n"));
    const QStringList all{convertHeader(TestDb::userDir()),
                          convertDone,
                          convertHeader(TestDb::systemDir()),
                          convertDone,
                          headerLine(true, TestDb::userDir()),
                          foundLine("gone.ini"),
                          checkLine,
                          onLine,
                          cannotRemoveLine,
                          headerLine(false, TestDb::systemDir()),
                          foundLine("bad.ini"),
                          unreadableLine("bad")};
    QStringList expected;
    for (const QString& line : all)
        if (line.section(QLatin1Char(' '), 0, 0).toInt() >= level)
            expected << line;

    LogCapture log(level);
    LocalDataBaseManager manager;
    manager.findRegisteredProducts();
    QCOMPARE(log.lines(), expected);
    QVERIFY(manager.productList().isEmpty());
}

void TestLocalDataBaseManager::copiesOnlyTheFieldKeys()
{
    const QVariantMap values{{"ProductName", "Studio"},     {"ProductVersion", "3.1"},
                             {"MediaID", "M-1"},            {"ProductID", "P-1"},
                             {"UpdateID", "U-1"},           {"OwnerProductCode", "owner"},
                             {"AutoUninstallMode", "0"},    {"RecordMigrated", "1"},
                             {"CommandLineInstallFullImage", "install.sh"}, {"productname", "lower"}};
    write(record(true, "full.ini", values));
    LocalDataBaseManager manager;
    manager.findRegisteredProducts();
    Product* product = manager.getProductByGuid(QStringLiteral("full"));
    QVERIFY(product);
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        const bool copied = it.key() != QLatin1String("CommandLineInstallFullImage")
            && it.key() != QLatin1String("productname");
        QCOMPARE(product->getDataByKey(it.key()), copied ? it.value().toString() : QString());
    }
    QVERIFY(product->isLegacy());
    QVERIFY(!manager.getProductByGuid(QStringLiteral("FULL")));
}

void TestLocalDataBaseManager::autoUninstallDeletesTheGuidInTheWorkingDirectory()
{
    write(record(false, "victim.ini", named("Victim", {{"AutoUninstallMode", "1"}})));
    const QString stray = QDir::current().filePath(QStringLiteral("victim"));
    writeBytes(stray, "named like the guid");

    LogCapture log(0);
    LocalDataBaseManager manager;
    manager.findRegisteredProducts();
    QVERIFY(manager.productList().isEmpty());
    QVERIFY(!QFile::exists(stray));
    QVERIFY(log.contains(onLine));
    QVERIFY(!log.contains(cannotRemoveLine));
    // The record itself stays, so the product is dropped again on every read.
    QVERIFY(QFile::exists(TestDb::systemDir() + QStringLiteral("/victim.ini")));
}

void TestLocalDataBaseManager::clearDataDeletesAndForgets()
{
    write(record(true, "a.ini", named("A")));
    write(record(false, "b.ini", named("B")));
    LocalDataBaseManager manager;
    manager.findRegisteredProducts();
    QCOMPARE(manager.productList().size(), 2);
    QList<QPointer<Product>> watched;
    for (Product* product : manager.productList())
        watched << product;

    manager.clearData();
    QVERIFY(manager.productList().isEmpty());
    QVERIFY(!manager.getProductByGuid(QStringLiteral("a")));
    for (const QPointer<Product>& product : watched)
        QVERIFY(product.isNull());

    manager.findRegisteredProducts();
    QCOMPARE(namesByGuid(manager.productList()), (QStringList{"a=A", "b=B"}));
}

void TestLocalDataBaseManager::findAppendsWithoutClearing()
{
    write(record(false, "a.ini", named("A")));
    LogCapture log(0);
    LocalDataBaseManager manager;
    manager.findRegisteredProducts();
    Product* first = manager.getProductByGuid(QStringLiteral("a"));
    write(record(true, "b.ini", named("B")));
    manager.findRegisteredProducts();
    QCOMPARE(manager.productList().size(), 2);
    QCOMPARE(manager.productList().first(), first);
    QVERIFY(log.contains(skipLine));
}

void TestLocalDataBaseManager::productChangeReachesTheRecord()
{
    if (!runningAsRoot())
        QSKIP("the root branch needs a root process; the other branch runs in unprivilegedUser");
    write(record(true, "mine.ini", named("Mine", {{"UpdateID", "1"}})));
    LocalDataBaseManager manager;
    manager.findRegisteredProducts();
    Product* product = manager.getProductByGuid(QStringLiteral("mine"));
    QVERIFY(product);
    product->setDataByKey(QStringLiteral("UpdateID"), QStringLiteral("Ü-2"));
    // root writes to the system database, even for a product read from the user's.
    QCOMPARE(TestDb::readRecord(false, QStringLiteral("mine")),
             (QMap<QString, QString>{{"UpdateID", QStringLiteral("Ü-2")}}));
    QCOMPARE(TestDb::readRecord(true, QStringLiteral("mine")).value("UpdateID"), QStringLiteral("1"));

    manager.setValueInRegDb(QStringLiteral("mine"), QStringLiteral("Note"), QStringLiteral("direct"));
    QCOMPARE(TestDb::readRecord(false, QStringLiteral("mine")).value("Note"), QStringLiteral("direct"));
}

void TestLocalDataBaseManager::homeUnsetSkipsTheUserDatabase()
{
    write(record(false, "sys.ini", named("Sys")));
    // Traps in the working directory: reading it as the user database would list or convert them.
    writeBytes(QDir::current().filePath("trap.ini"), "ProductName=Trap\n");
    writeBytes(QDir::current().filePath("trap.properties"), "ProductCode=trapped\n");

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("HOME"));
    const ChildRun run = runChild(env, QDir::currentPath());
    QVERIFY(run.started);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringList{"sys"});
    QVERIFY2(run.errLines.contains(convertHeader(QString())), qPrintable(run.errLines.join('\n')));
    QVERIFY(run.errLines.contains(headerLine(true, QString())));
    QVERIFY(!QFile::exists(TestDb::systemDir() + QStringLiteral("/trapped.ini")));
    for (const QString& line : run.errLines)
        QVERIFY2(!line.contains(QLatin1String("trap")), qPrintable(line));
}

void TestLocalDataBaseManager::unprivilegedUser_data()
{
    QTest::addColumn<bool>("systemLocked");
    QTest::addColumn<QStringList>("products");
    QTest::newRow("readable system database") << false << QStringList{"L1", "L2", "S1", "U1"};
    QTest::newRow("system database it cannot enter") << true << QStringList{"L1", "U1"};
}

void TestLocalDataBaseManager::unprivilegedUser()
{
    QFETCH(bool, systemLocked);
    QFETCH(QStringList, products);
    UnprivilegedLayout layout;
    if (!layout.skipReason().isEmpty())
        QSKIP(qPrintable(layout.skipReason()));
    QVERIFY(layout.create());
    const QString& userDb = layout.userDb;
    const QString& systemDb = layout.systemDb;
    const QByteArray profile = profileXml({{"UpdateID", "7"}});
    writeBytes(userDb + QStringLiteral("/U1.ini"), "ProductName=U1\n");
    writeLegacy(userDb, QStringLiteral("L1"), "ProductCode=L1\nProductName=L1\n", profile);
    writeBytes(systemDb + QStringLiteral("/S1.ini"), "ProductName=S1\n");
    writeBytes(systemDb + QStringLiteral("/S2.ini"), "ProductName=S2\n");
    writeLegacy(systemDb, QStringLiteral("L2"), "ProductCode=L2\nProductName=L2\n", profile);
    QFile::setPermissions(systemDb + QStringLiteral("/S2.ini"), QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    if (systemLocked)
        QFile::setPermissions(systemDb, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QVERIFY(layout.giveToUser(userDb + QStringLiteral("/U1.ini")));
    const QMap<QString, QString> systemBefore = snapshot({systemDb});

    QProcessEnvironment env = layout.environment();
    env.insert(QStringLiteral("KEP_CHILD_SET_VALUE"), QStringLiteral("U1|UpdateID|42"));
    const ChildRun run = runChild(env, layout.home, layout.uid);
    QVERIFY(run.started);
    QVERIFY2(run.exitCode == 0, qPrintable(run.errLines.join('\n')));
    QStringList listed = run.out;
    listed.sort();
    QCOMPARE(listed, products);

    // Anyone but root registers, and writes, in the user's own database.
    QCOMPARE(readBytes(userDb + QStringLiteral("/L1.ini")).isEmpty(), false);
    QSettings migrated(userDb + QStringLiteral("/L1.ini"), QSettings::IniFormat);
    QCOMPARE(migrated.value("RecordMigrated").toString(), QStringLiteral("1"));
    QCOMPARE(migrated.value("UpdateID").toString(), QStringLiteral("7"));
    QCOMPARE(QFile::exists(userDb + QStringLiteral("/L2.ini")), !systemLocked);
    QCOMPARE(QSettings(userDb + QStringLiteral("/U1.ini"), QSettings::IniFormat).value("UpdateID").toString(),
             QStringLiteral("42"));
    QCOMPARE(snapshot({systemDb}), systemBefore);
    if (!systemLocked)
        QVERIFY2(run.errLines.contains(unreadableLine("S2")), qPrintable(run.errLines.join('\n')));
}

KEP_LOCALDB_TEST_MAIN(TestLocalDataBaseManager)
#include "tst_localdatabasemanager.moc"
