#include "ChildRun.h"
#include "LogCapture.h"
#include "TestDb.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"
#include "tavcore/Logger.h"

#include <QPointer>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using KepPlugin::LocalDataBaseManager;
using Record = QMap<QString, QString>;

namespace {

QString q(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

// "N LocalDataBaseManager::METHOD: TEXT"; METHOD "" gives the reader's own lines.
QString line(int level, const QString& text, const QString& method = QStringLiteral("readProductsDb"))
{
    return QStringLiteral("%1 LocalDataBaseManager::%2: %3").arg(level).arg(method, text);
}

QString found(const QString& entry) { return line(0, "found product =  " + q(entry)); }
QString unreadable(const QString& guid) { return line(2, "cannot read product record:  " + q(guid)); }
QString header(bool peruser, const QString& dir) { return line(0, QStringLiteral("peruser= %1 ; db path= ").arg(peruser ? "true" : "false") + q(dir)); }
QString convertHeader(const QString& dir) { return line(0, "trying to find and convert FNC db from TAV 1.0: path =  " + q(dir), "convertRegDb"); }
QString entry(int level, const QString& text) { return line(level, text, "convertFncProductEntry"); }
const QString skip = line(0, "skip product since it has been already added");
const QString check = line(0, "check if product has been auto-uninstalled");
const QString on = line(0, "AUTOUNINSTALL flag is ON, removing db file");
const QString off = line(0, "AUTOUNINSTALL flag is OFF, continuing");
const QString cannotRemove = line(2, "cannot remove db file");
const QString convertDone = line(0, "convertation of all products in this location is done", "convertRegDb");
const QString completed = entry(0, "product convertation completed!");
const QString unchanged = entry(1, "skip convertation since legacy updateId is not changed");

// "u/NAME" or "s/NAME" then '|' and the bytes of the file in the user's or the system's database.
void lay(const QStringList& files)
{
    for (const QString& file : files)
        QVERIFY(TestDb::writeFile(TestDb::dir(file.startsWith('u')) + file.mid(1).section('|', 0, 0), file.section('|', 1).toUtf8()));
}

QStringList namesByGuid(const QList<KepPlugin::Product*>& products)
{
    QStringList names;
    for (const KepPlugin::Product* product : products)
        names << product->guid() + '=' + product->getDataByKey(QStringLiteral("ProductName"));
    names.sort();
    return names;
}

} // namespace

// Reading the two product databases into products, converting legacy records, writing values back.
class TestLocalDataBaseManager : public QObject
{
    Q_OBJECT
public:
    // Reads the databases at log level 0, prints one guid a line, then sets GUID's KEY to VALUE.
    static int child(const QStringList& args)
    {
        TavCoreShared::TavLogger::Logger::instance()->setLogLevel(0);
        LocalDataBaseManager manager;
        manager.findRegisteredProducts();
        for (const KepPlugin::Product* product : manager.productList())
            printf("%s\n", qPrintable(product->guid()));
        if (args.size() == 3 && manager.getProductByGuid(args[0]))
            manager.getProductByGuid(args[0])->setDataByKey(args[1], args[2]);
        return 0;
    }

private:
    QScopedPointer<QTemporaryDir> work_;
    QString previousDir_;

private slots:
    void init()
    {
        QVERIFY2(TestDb::isolated(), "run through CTest, which gives the suite a temporary HOME and system database");
        if (QFileInfo(TestDb::systemDir()).isFile())
            QFile::remove(TestDb::systemDir());
        TestDb::reset();
        // An empty working directory: nothing may be read from or deleted in the real one.
        work_.reset(new QTemporaryDir);
        previousDir_ = QDir::currentPath();
        QVERIFY(QDir::setCurrent(work_->path()));
    }
    void cleanup() { QDir::setCurrent(previousDir_); }
    void reads_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QStringList>("products");
        QTest::addColumn<QStringList>("present");
        QTest::addColumn<QStringList>("absent");
        QTest::newRow("user record wins over the system one")
            << QStringList{"u/dup.ini|ProductName=user", "s/dup.ini|ProductName=system", "s/s.ini|ProductName=S"}
            << QStringList{"dup=user", "s=S"} << QStringList{found("dup.ini"), skip, off} << QStringList{};
        QTest::newRow("upper-case suffix is no record")
            << QStringList{"s/A.INI|ProductName=A", "s/b.ini|ProductName=B", "s/x.ini.bak|", "s/x.PROPERTIES|ProductCode=X"}
            << QStringList{"b=B"} << QStringList{found("b.ini")} << QStringList{found("A.INI"), found("x.ini.bak")};
        QTest::newRow("every .ini is removed from the name")
            << QStringList{"s/a.ini.ini|ProductName=twice", "s/a.ini|ProductName=once", "s/c.ini.ini|ProductName=C"}
            << QStringList{"a=once"} << QStringList{found("a.ini.ini"), found("c.ini.ini"), skip, unreadable("c")}
            << QStringList{};
        QTest::newRow("auto-uninstalled record is dropped, even when its deletion fails")
            << QStringList{"s/gone.ini|ProductName=G\nAutoUninstallMode=1", "u/kept.ini|ProductName=K\nAutoUninstallMode=01",
                           "u/k2.ini|ProductName=K2\nAutoUninstallMode=true"}
            << QStringList{"k2=K2", "kept=K"} << QStringList{check, on, cannotRemove, off} << QStringList{};
        QTest::newRow("broken record is skipped, the others read")
            << QStringList{"u/broken.ini|[broken\nProductName=B", "u/fine.ini|ProductName=Fine"}
            << QStringList{"fine=Fine"} << QStringList{unreadable("broken")} << QStringList{};
        QTest::newRow("spaces and non-ASCII letters")
            << QStringList{QStringLiteral("u/Ünï Stüdio 2024.ini|ProductName=Ünï")} << QStringList{QStringLiteral("Ünï Stüdio 2024=Ünï")}
            << QStringList{found(QStringLiteral("Ünï Stüdio 2024.ini"))} << QStringList{};
        QTest::newRow("system location is a regular file")
            << QStringList{"u/u.ini|ProductName=U"} << QStringList{"u=U"} << QStringList{header(false, TestDb::systemDir())}
            << QStringList{};
    }
    void reads()
    {
        QFETCH(QStringList, files);
        QFETCH(QStringList, products);
        QFETCH(QStringList, present);
        QFETCH(QStringList, absent);
        lay(files);
        if (QTest::currentDataTag() == QLatin1String("system location is a regular file"))
            QVERIFY(QDir(TestDb::systemDir()).removeRecursively() && TestDb::writeFile(TestDb::systemDir(), "not a directory"));
        const Record before = TestDb::snapshot({TestDb::userDir(), TestDb::systemDir()});
        LogCapture log(0);
        LocalDataBaseManager manager;
        manager.findRegisteredProducts();
        QCOMPARE(namesByGuid(manager.productList()), products);
        for (const QString& wanted : present)
            QVERIFY2(log.contains(wanted), qPrintable(wanted + "\nin:\n" + log.lines().join('\n')));
        for (const QString& unwanted : absent)
            QVERIFY2(!log.contains(unwanted), qPrintable(unwanted));
        QCOMPARE(TestDb::snapshot({TestDb::userDir(), TestDb::systemDir()}), before); // reading never writes
    }
    void logLevels_data()
    {
        QTest::addColumn<int>("level");
        for (int level : {0, 1, 2, 3})
            QTest::addRow("logger level %d", level) << level;
    }
    // One entry per location keeps the order independent of the file system.
    void logLevels()
    {
        QFETCH(int, level);
        lay({"u/gone.ini|ProductName=G\nAutoUninstallMode=1", "s/bad.ini|[bad\n"});
        QStringList expected;
        for (const QString& wanted : {convertHeader(TestDb::userDir()), convertDone, convertHeader(TestDb::systemDir()), convertDone,
                                      header(true, TestDb::userDir()), found("gone.ini"), check, on, cannotRemove,
                                      header(false, TestDb::systemDir()), found("bad.ini"), unreadable("bad")})
            if (wanted.at(0).digitValue() >= level)
                expected << wanted;
        LogCapture log(level);
        LocalDataBaseManager manager;
        manager.findRegisteredProducts();
        QCOMPARE(log.lines(), expected);
        QVERIFY(manager.productList().isEmpty());
    }
    void productsAndClear()
    {
        lay({"u/full.ini|ProductName=S\nProductVersion=3\nMediaID=M\nProductID=P\nUpdateID=U\nOwnerProductCode=O\n"
             "AutoUninstallMode=0\nRecordMigrated=1\nCommandLineInstallFullImage=i.sh\nproductname=lower"});
        LocalDataBaseManager manager;
        manager.findRegisteredProducts();
        QPointer<KepPlugin::Product> product = manager.getProductByGuid(QStringLiteral("full"));
        QVERIFY(product);
        QStringList values;
        for (const char* key : {"ProductName", "ProductVersion", "MediaID", "ProductID", "UpdateID", "OwnerProductCode",
                                   "AutoUninstallMode", "RecordMigrated", "CommandLineInstallFullImage", "productname"})
            values << product->getDataByKey(key);
        QCOMPARE(values, (QStringList{"S", "3", "M", "P", "U", "O", "0", "1", "", ""}));
        lay({"s/b.ini|ProductName=B"});
        manager.findRegisteredProducts(); // appends without clearing
        QCOMPARE(manager.productList().first(), product.data());
        QCOMPARE(namesByGuid(manager.productList()), (QStringList{"b=B", "full=S"}));
        manager.clearData();
        QVERIFY(manager.productList().isEmpty() && !manager.getProductByGuid(QStringLiteral("full")) && product.isNull());
    }
    // The bare guid, relative to the working directory, is what gets removed; the record stays.
    void autoUninstallRemovesTheGuidInTheWorkingDirectory()
    {
        lay({"s/victim.ini|ProductName=V\nAutoUninstallMode=1"});
        QVERIFY(TestDb::writeFile(QDir::current().filePath(QStringLiteral("victim")), "named like the guid"));
        LogCapture log(0);
        LocalDataBaseManager manager;
        manager.findRegisteredProducts();
        QVERIFY(manager.productList().isEmpty() && log.contains(on) && !log.contains(cannotRemove));
        QVERIFY(!QFile::exists(QStringLiteral("victim")) && QFile::exists(TestDb::systemDir() + "/victim.ini"));
    }
    void convert_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("properties"); // null: no such file
        QTest::addColumn<QByteArray>("profile");    // null: no .pf file
        QTest::addColumn<QByteArray>("existing");   // null: no current record
        QTest::addColumn<bool>("result");
        QTest::addColumn<QString>("expected"); // the system record G1.ini afterwards, sorted key=value; "": none
        QTest::addColumn<QStringList>("lines"); // after "converting"; <F>: the profile file
        const QByteArray studio = "ProductCode=G1\nProductName=Studio Pro\nVersion=3.1\n", none;
        const QByteArray profile = TestDb::profileXml({{"MediaID", "M1"}, {"ProductID", "P1"}, {"UpdateID", "U1"}});
        const QString full = "MediaID=M1 ProductID=P1 ProductName=Studio Pro ProductVersion=3.1 RecordMigrated=1 UpdateID=U1";
        const QString noIds = "MediaID= ProductID= ProductName=Studio Pro ProductVersion=3.1 RecordMigrated=1 UpdateID=";
        const QString failed = QStringLiteral("2 LocalDataBaseManager: openXML: ERROR: failed to read:  \"<F>\"");
        QTest::newRow("new product is registered") << "l" << studio << profile << none << true << full << QStringList{completed};
        QTest::newRow("changed update id is refreshed, not registered again")
            << "l" << studio << profile << QByteArray("ProductName=Old\nUpdateID=U0\n") << false
            << "ProductName=Old UpdateID=U1" << QStringList{entry(0, "legacy updateId was updated, set it in new db")};
        QTest::newRow("unchanged update id is skipped") << "l" << studio << profile << QByteArray("UpdateID=U1\n") << false
                                                        << "UpdateID=U1" << QStringList{unchanged};
        QTest::newRow("empty legacy update id registers again")
            << "l" << studio << TestDb::profileXml({{"MediaID", "M1"}, {"ProductID", "P1"}}) << QByteArray("UpdateID=U0\nKeep=me\n")
            << true << "Keep=me " + QString(full).replace("U1", "") << QStringList{completed};
        QTest::newRow("record that will not load is registered again")
            << "l" << studio << profile << QByteArray("[broken\nUpdateID=U1\n") << true << full << QStringList{completed};
        QTest::newRow("no profile: empty ids")
            << "l" << studio << none << none << true << noIds
            << QStringList{"2 LocalDataBaseManager: openXML: cannot open file for reading:  \"<F>\"", completed};
        QTest::newRow("profile is not XML")
            << "l" << studio << QByteArray("MediaID=M1\n") << none << true << noIds
            << QStringList{failed, "2 Error message:  \"error occurred while parsing element\"", "2 Line:  1 ; Column:  1", completed};
        QTest::newRow("profile cut short")
            << "l" << studio << QByteArray("<profiles><profile><data id=\"MediaID\" value=\"M1\"/>") << none << true << noIds
            << QStringList{failed, "2 Error message:  \"unexpected end of file\"", "2 Line:  1 ; Column:  51", completed};
        QTest::newRow("first profile only, later data wins, other elements ignored")
            << "l" << studio << QByteArray("<profiles><x><data id=\"ProductID\" value=\"X\"/></x><profile><data id=\"MediaID\" "
                                           "value=\"old\"/><item id=\"ProductID\" value=\"Y\"/><data id=\"MediaID\" value=\"M1\"/>"
                                           "<data id=\"ProductID\" value=\"P1\"/><data id=\"UpdateID\" value=\"U1\"/></profile>"
                                           "<profile><data id=\"UpdateID\" value=\"2nd\"/></profile></profiles>")
            << none << true << full << QStringList{completed};
        QTest::newRow("every .properties in the name becomes .pf")
            << "g.properties" << studio << profile << none << true << full << QStringList{completed};
        QTest::newRow("no product code") << "l" << QByteArray("ProductName=S\n") << profile << none << false << ""
                                         << QStringList{entry(2, "found guid is not valid:  \"\"")};
        QTest::newRow("missing file") << "l" << none << none << none << false << ""
                                      << QStringList{entry(2, "file isn't exist  \"" + TestDb::userDir() + "/l.properties\"")};
        QTest::newRow("non-ASCII name and version")
            << "l" << QByteArray("ProductCode=G1\nProductName=Gr\\x00fcne\nVersion=3.1 \\x03b2\n") << profile << none << true
            << QStringLiteral("MediaID=M1 ProductID=P1 ProductName=Grüne ProductVersion=3.1 β RecordMigrated=1 UpdateID=U1")
            << QStringList{completed};
    }
    void convert()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, properties);
        QFETCH(QByteArray, profile);
        QFETCH(QByteArray, existing);
        QFETCH(bool, result);
        QFETCH(QString, expected);
        QFETCH(QStringList, lines);
        const QString file = TestDb::userDir() + '/' + name + ".properties";
        if (!properties.isNull())
            TestDb::writeLegacy(TestDb::userDir(), name, properties, profile);
        if (!existing.isNull())
            QVERIFY(TestDb::writeFile(TestDb::systemDir() + "/G1.ini", existing));
        const Record legacy = TestDb::snapshot({TestDb::userDir()});
        LogCapture log(0);
        LocalDataBaseManager manager;
        QCOMPARE(manager.convertFncProductEntry(file, false), result);
        lines.replaceInStrings("<F>", QString(file).replace(".properties", ".pf")).prepend(entry(0, "converting  " + q(file)));
        QCOMPARE(log.lines(), lines);
        QStringList record;
        const Record values = TestDb::readRecord(false, QStringLiteral("G1"));
        for (auto it = values.cbegin(); it != values.cend(); ++it)
            record << it.key() + '=' + it.value();
        QCOMPARE(record.join(' '), expected);
        QCOMPARE(TestDb::snapshot({TestDb::userDir()}), legacy); // legacy files are only read
    }
    // root registers what it finds in both locations in the system database, and writes there.
    void rootBranch()
    {
        if (::geteuid() != 0)
            QSKIP("the root branch needs a root process; the other one runs in unprivilegedBranch");
        TestDb::writeLegacy(TestDb::userDir(), "mine", "ProductCode=U-G\nProductName=Mine\n", TestDb::profileXml({}));
        TestDb::writeLegacy(TestDb::systemDir(), "shared", "ProductCode=S-G\nProductName=Shared\n", QByteArray());
        lay({"s/loud.PROPERTIES|ProductCode=LOUD", "u/u1.ini|ProductName=U1\nUpdateID=1"});
        LogCapture log(0);
        LocalDataBaseManager manager;
        manager.convertRegDb(TestDb::userDir());
        const QString file = TestDb::userDir() + "/mine.properties";
        QCOMPARE(log.lines(), (QStringList{convertHeader(TestDb::userDir()), line(0, "found TAV 1.0 property file:  " + q(file), "convertRegDb"),
                                           entry(0, "converting  " + q(file)), completed, convertDone}));
        manager.findRegisteredProducts();
        QCOMPARE(namesByGuid(manager.productList()), (QStringList{"S-G=Shared", "U-G=Mine", "u1=U1"}));
        QCOMPARE(TestDb::entries(TestDb::systemDir()), (QStringList{"S-G.ini", "U-G.ini", "loud.PROPERTIES", "shared.properties"}));
        manager.getProductByGuid("u1")->setDataByKey("UpdateID", QStringLiteral("Ü-2"));
        QCOMPARE(TestDb::readRecord(false, "u1"), (Record{{"UpdateID", QStringLiteral("Ü-2")}}));
        QCOMPARE(TestDb::readRecord(true, "u1").value("UpdateID"), QStringLiteral("1"));
    }
    void repeatedReadsWriteNothingNew_data()
    {
        QTest::addColumn<bool>("withoutUpdateId");
        QTest::newRow("settled database") << false;
        QTest::newRow("legacy product without update id") << true; // registered again each time: same content
    }
    void repeatedReadsWriteNothingNew()
    {
        QFETCH(bool, withoutUpdateId);
        TestDb::writeLegacy(TestDb::userDir(), "a", "ProductCode=A\nProductName=A\n", TestDb::profileXml({{"MediaID", "MA"}, {"UpdateID", "1"}}));
        TestDb::writeLegacy(TestDb::systemDir(), "b", "ProductCode=B\nProductName=B\n", TestDb::profileXml({{"MediaID", "MB"}, {"UpdateID", "2"}}));
        lay({"u/C.ini|ProductName=C\nUpdateID=3"});
        if (withoutUpdateId)
            TestDb::writeLegacy(TestDb::systemDir(), "d", "ProductCode=D\nProductName=D\n", QByteArray());
        Record settled;
        for (int round = 1; round <= 3; ++round) {
            LogCapture log(1);
            LocalDataBaseManager manager;
            manager.findRegisteredProducts();
            QCOMPARE(namesByGuid(manager.productList()).join(' '), withoutUpdateId ? "A=A B=B C=C D=D" : "A=A B=B C=C");
            Record files = TestDb::snapshot({TestDb::userDir(), TestDb::systemDir()});
            if (withoutUpdateId) // content (the hash) only: the record is rewritten
                files[TestDb::systemDir() + "/D.ini"] = files[TestDb::systemDir() + "/D.ini"].section(' ', 2);
            QCOMPARE(log.lines().count(unchanged), round == 1 ? 0 : 2);
            if (round > 1)
                QCOMPARE(files, settled);
            settled = files;
        }
    }
    void homeUnset()
    {
        lay({"s/sys.ini|ProductName=Sys"});
        // Traps in the working directory: reading it as the user database would list or convert them.
        QVERIFY(TestDb::writeFile("trap.ini", "ProductName=Trap\n") && TestDb::writeFile("trap.properties", "ProductCode=trapped\n"));
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("HOME"));
        const ChildRun run({}, env, false, QDir::currentPath());
        QVERIFY(!run.crashed && run.exitCode == 0);
        QCOMPARE(run.out, QStringList{"sys"});
        QVERIFY2(run.err.contains(convertHeader(QString())) && run.err.contains(header(true, QString())), qPrintable(run.err.join('\n')));
        QVERIFY(run.err.filter("trap").isEmpty() && !QFile::exists(TestDb::systemDir() + "/trapped.ini"));
    }
    void unprivilegedBranch_data()
    {
        QTest::addColumn<bool>("systemLocked");
        QTest::addColumn<QStringList>("products");
        QTest::newRow("readable system database") << false << QStringList{"L1", "L2", "P", "S1", "U1"};
        QTest::newRow("system database it cannot enter") << true << QStringList{"L1", "P", "U1"};
    }
    // Anyone but root registers and writes in the user's own database; what it cannot read is skipped.
    void unprivilegedBranch()
    {
        QFETCH(bool, systemLocked);
        QFETCH(QStringList, products);
        const QString whyNot = ChildRun::unprivilegedUnavailable();
        if (!whyNot.isEmpty())
            QSKIP(qPrintable(whyNot));
        QTemporaryDir base;
        const QString home = base.filePath("home"), userDb = home + "/vasko/tav/db", systemDb = base.filePath("sys");
        QVERIFY(ChildRun::openToOthers(base.path()) && QDir().mkpath(userDb) && QDir().mkpath(systemDb));
        const QByteArray profile = TestDb::profileXml({{"UpdateID", "7"}});
        TestDb::writeLegacy(userDb, "L1", "ProductCode=L1\nProductName=L1\n", profile);
        TestDb::writeLegacy(userDb, "p", "ProductCode=P\nProductName=P\n", profile);
        TestDb::writeLegacy(systemDb, "L2", "ProductCode=L2\nProductName=L2\n", profile);
        QVERIFY(TestDb::writeFile(userDb + "/U1.ini", "ProductName=U1\n") && TestDb::writeFile(systemDb + "/S1.ini", "ProductName=S1\n")
                && TestDb::writeFile(systemDb + "/S2.ini", "ProductName=S2\n"));
        for (const QString& path : {home, home + "/vasko", home + "/vasko/tav", userDb, userDb + "/U1.ini"})
            QVERIFY(ChildRun::giveAway(path));
        QVERIFY(QFile::setPermissions(systemDb + "/S2.ini", {}) && QFile::setPermissions(userDb + "/p.pf", {}));
        if (systemLocked)
            QVERIFY(QFile::setPermissions(systemDb, {}));
        const Record systemBefore = TestDb::snapshot({systemDb});
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", home);
        env.insert("TAV_SYSTEM_DB_DIR", systemDb);
        const ChildRun run({"U1", "UpdateID", "42"}, env, true, home);
        QVERIFY2(!run.crashed && run.exitCode == 0, qPrintable(run.err.join('\n')));
        QStringList listed = run.out;
        listed.sort();
        QCOMPARE(listed, products);
        const QSettings migrated(userDb + "/L1.ini", QSettings::IniFormat);
        QCOMPARE(migrated.value("UpdateID").toString() + migrated.value("RecordMigrated").toString(), QString("71"));
        QCOMPARE(QFile::exists(userDb + "/L2.ini"), !systemLocked);
        QCOMPARE(QSettings(userDb + "/U1.ini", QSettings::IniFormat).value("UpdateID").toString(), QString("42"));
        QCOMPARE(TestDb::snapshot({systemDb}), systemBefore);
        QVERIFY(run.err.contains("2 LocalDataBaseManager: openXML: cannot open file for reading:  " + q(userDb + "/p.pf")));
        QCOMPARE(run.err.contains(unreadable("S2")), !systemLocked);
        QFile::setPermissions(systemDb, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
};

KEP_TEST_MAIN_WITH_CHILD(TestLocalDataBaseManager)
#include "tst_localdatabasemanager.moc"
