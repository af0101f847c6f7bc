#include "ChildRun.h"
#include "LogCapture.h"
#include "TestDb.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"
#include "tavcore/Logger.h"

#include <QPointer>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

using KepPlugin::LocalDataBaseManager;
using Record = QMap<QString, QString>;

namespace {

QString q(const QString& text) { return QLatin1Char('"') + text + QLatin1Char('"'); }
QString u(const QString& name) { return TestDb::userDir() + QLatin1Char('/') + name; }
// "N LocalDataBaseManager::METHOD: TEXT", the reader's own lines by default.
QString line(int level, const QString& text, const char* method = "readProductsDb")
{
    return QStringLiteral("%1 LocalDataBaseManager::%2: %3").arg(level).arg(QLatin1String(method), text);
}
QString found(const QString& entry) { return line(0, "found product =  " + q(entry)); }
QString unreadable(const QString& guid) { return line(2, "cannot read product record:  " + q(guid)); }
QString header(bool peruser, const QString& dir) { return line(0, QStringLiteral("peruser= %1 ; db path= ").arg(peruser ? "true" : "false") + q(dir)); }
QString convertHeader(const QString& dir) { return line(0, "trying to find and convert FNC db from TAV 1.0: path =  " + q(dir), "convertRegDb"); }
QString entry(int level, const QString& text) { return line(level, text, "convertFncProductEntry"); }
const QString skip = line(0, "skip product since it has been already added"), check = line(0, "check if product has been auto-uninstalled"),
              on = line(0, "AUTOUNINSTALL flag is ON, removing db file"), off = line(0, "AUTOUNINSTALL flag is OFF, continuing"),
              cannotRemove = line(2, "cannot remove db file"), completed = entry(0, "product convertation completed!"),
              convertDone = line(0, "convertation of all products in this location is done", "convertRegDb"),
              unchanged = entry(1, "skip convertation since legacy updateId is not changed");

// "u/NAME|TEXT", "s/..." or "w/...": a file in the user's or the system's database or the working directory.
void lay(const QStringList& files)
{
    for (const QString& file : files) {
        const QString dir = file[0] == 'u' ? TestDb::userDir() : file[0] == 's' ? TestDb::systemDir() : QDir::currentPath();
        QVERIFY(TestDb::writeFile(dir + file.mid(1).section('|', 0, 0), file.section('|', 1).toUtf8()));
    }
}
// A legacy profile of "ID=VALUE ..." data items.
QString profile(const QString& items)
{
    QString xml = "<profiles><profile>";
    for (const QString& item : items.split(' ', Qt::SkipEmptyParts))
        xml += "<data id=\"" + item.section('=', 0, 0) + "\" value=\"" + item.section('=', 1) + "\"/>";
    return xml + "</profile></profiles>";
}
// Sorted "guid=ProductName" of the products, or "key=value" of a record, blank-separated.
QString names(const QList<KepPlugin::Product*>& products)
{
    QStringList names;
    for (const KepPlugin::Product* product : products)
        names << product->guid() + '=' + product->getDataByKey(QStringLiteral("ProductName"));
    names.sort();
    return names.join(' ');
}
QString joined(const Record& record)
{
    QStringList pairs;
    for (auto it = record.cbegin(); it != record.cend(); ++it)
        pairs << it.key() + '=' + it.value();
    return pairs.join(' ');
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
    // An empty working directory: nothing may be read from or deleted in the real one.
    void init()
    {
        QVERIFY2(TestDb::isolated(), "run through CTest, which gives the suite a temporary HOME and system database");
        TestDb::reset();
        work_.reset(new QTemporaryDir);
        previousDir_ = QDir::currentPath();
        QVERIFY(QDir::setCurrent(work_->path()));
    }
    void cleanup()
    {
        QDir::setCurrent(previousDir_);
        if (TestDb::isolated()) // userBranch may have shut it
            QFile::setPermissions(TestDb::systemDir(), QFileDevice::Permissions(0x7700));
    }
    void reads_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QString>("products");
        QTest::addColumn<QStringList>("lines"); // logged, or with '!' never logged
        QTest::newRow("user record wins over the system one")
            << QStringList{"u/dup.ini|ProductName=user", "s/dup.ini|ProductName=system", "s/s.ini|ProductName=S"}
            << "dup=user s=S" << QStringList{found("dup.ini"), skip, off};
        QTest::newRow("upper-case suffixes are not records")
            << QStringList{"s/A.INI|ProductName=A", "s/b.ini|ProductName=B", "s/x.ini.bak|", "s/x.PROPERTIES|ProductCode=X"}
            << "b=B" << QStringList{found("b.ini"), '!' + found("A.INI"), '!' + found("x.ini.bak")};
        QTest::newRow("every .ini is removed from the name")
            << QStringList{"s/a.ini.ini|ProductName=twice", "s/a.ini|ProductName=once", "s/c.ini.ini|ProductName=C"}
            << "a=once" << QStringList{found("a.ini.ini"), found("c.ini.ini"), skip, unreadable("c")};
        QTest::newRow("auto-uninstalled record dropped even when its deletion fails; broken one skipped")
            << QStringList{"s/gone.ini|AutoUninstallMode=1", "u/kept.ini|ProductName=K\nAutoUninstallMode=01",
                           "u/k2.ini|ProductName=K2\nAutoUninstallMode=true", "u/broken.ini|[broken\nProductName=B"}
            << "k2=K2 kept=K" << QStringList{check, on, cannotRemove, off, unreadable("broken")};
        // The bare guid, relative to the working directory, is what gets removed; the record stays.
        QTest::newRow("auto-uninstall removes the guid in the working directory")
            << QStringList{"s/victim.ini|AutoUninstallMode=1", "w/victim|named like the guid"} << "" << QStringList{on, '!' + cannotRemove};
        QTest::newRow("spaces and non-ASCII letters") << QStringList{QStringLiteral("u/Ünï Stüdio.ini|ProductName=Ü")}
                                                      << QStringLiteral("Ünï Stüdio=Ü") << QStringList{found(QStringLiteral("Ünï Stüdio.ini"))};
    }
    void reads()
    {
        QFETCH(QStringList, files);
        QFETCH(QString, products);
        QFETCH(QStringList, lines);
        lay(files);
        const Record before = TestDb::snapshot({TestDb::userDir(), TestDb::systemDir()});
        LogCapture log(0);
        LocalDataBaseManager manager;
        manager.findRegisteredProducts();
        QCOMPARE(names(manager.productList()), products);
        for (const QString& wanted : lines)
            QVERIFY2(log.contains(wanted.mid(wanted.startsWith('!'))) != wanted.startsWith('!'),
                     qPrintable(wanted + "\nin:\n" + log.lines().join('\n')));
        QCOMPARE(TestDb::snapshot({TestDb::userDir(), TestDb::systemDir()}), before); // reading never writes
        QCOMPARE(QDir::current().entryList(QDir::Files), QStringList());
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
        QVERIFY(manager.productList().first() == product && names(manager.productList()) == "b=B full=S");
        manager.clearData();
        QVERIFY(manager.productList().isEmpty() && !manager.getProductByGuid(QStringLiteral("full")) && product.isNull());
    }
    void convert_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QString>("name"); // NAME.properties in the user database is converted
        QTest::addColumn<bool>("result");
        QTest::addColumn<QString>("record"); // the system record G1 afterwards
        QTest::addColumn<QStringList>("lines"); // after "converting"
        const QString studio = "u/l.properties|ProductCode=G1\nProductName=Studio Pro\nVersion=3.1\n";
        const QString pf = "u/l.pf|" + profile("MediaID=M1 ProductID=P1 UpdateID=U1");
        const QString full = "MediaID=M1 ProductID=P1 ProductName=Studio Pro ProductVersion=3.1 RecordMigrated=1 UpdateID=U1";
        const QString noIds = "MediaID= ProductID= ProductName=Studio Pro ProductVersion=3.1 RecordMigrated=1 UpdateID=";
        QTest::newRow("new product is registered") << QStringList{studio, pf} << "l" << true << full << QStringList{completed};
        QTest::newRow("changed update id is refreshed, not registered again")
            << QStringList{studio, pf, "s/G1.ini|ProductName=Old\nUpdateID=U0"} << "l" << false << "ProductName=Old UpdateID=U1"
            << QStringList{entry(0, "legacy updateId was updated, set it in new db")};
        QTest::newRow("unchanged update id is skipped")
            << QStringList{studio, pf, "s/G1.ini|UpdateID=U1"} << "l" << false << "UpdateID=U1" << QStringList{unchanged};
        QTest::newRow("empty legacy update id registers again")
            << QStringList{studio, "u/l.pf|" + profile("MediaID=M1 ProductID=P1"), "s/G1.ini|UpdateID=U0\nKeep=me"} << "l" << true
            << "Keep=me " + QString(full).remove("U1") << QStringList{completed};
        QTest::newRow("record that will not load is registered again")
            << QStringList{studio, pf, "s/G1.ini|[broken\nUpdateID=U1"} << "l" << true << full << QStringList{completed};
        QTest::newRow("no profile: empty ids") << QStringList{studio} << "l" << true << noIds
            << QStringList{"2 LocalDataBaseManager: openXML: cannot open file for reading:  " + q(u("l.pf")), completed};
        QTest::newRow("profile cut short")
            << QStringList{studio, "u/l.pf|<profiles><profile><data id=\"MediaID\" value=\"M1\"/>"} << "l" << true << noIds
            << QStringList{"2 LocalDataBaseManager: openXML: ERROR: failed to read:  " + q(u("l.pf")),
                           "2 Error message:  \"unexpected end of file\"", "2 Line:  1 ; Column:  51", completed};
        QTest::newRow("first profile only, later data wins, other elements ignored")
            << QStringList{studio, "u/l.pf|<profiles><x><data id=\"ProductID\" value=\"X\"/></x><profile><data id=\"MediaID\" "
                                   "value=\"old\"/><item id=\"ProductID\" value=\"Y\"/><data id=\"MediaID\" value=\"M1\"/>"
                                   "<data id=\"ProductID\" value=\"P1\"/><data id=\"UpdateID\" value=\"U1\"/></profile>"
                                   "<profile><data id=\"UpdateID\" value=\"2nd\"/></profile></profiles>"}
            << "l" << true << full << QStringList{completed};
        QTest::newRow("every .properties in the name becomes .pf")
            << QStringList{QString(studio).replace("l.", "g.properties."), QString(pf).replace("l.pf", "g.pf.pf")}
            << "g.properties" << true << full << QStringList{completed};
        QTest::newRow("no product code") << QStringList{"u/l.properties|ProductName=S", pf} << "l" << false << ""
                                         << QStringList{entry(2, "found guid is not valid:  \"\"")};
        QTest::newRow("missing file") << QStringList{} << "l" << false << ""
                                      << QStringList{entry(2, "file isn't exist  " + q(u("l.properties")))};
    }
    void convert()
    {
        QFETCH(QStringList, files);
        QFETCH(QString, name);
        QFETCH(bool, result);
        QFETCH(QString, record);
        QFETCH(QStringList, lines);
        lay(files);
        const Record legacy = TestDb::snapshot({TestDb::userDir()});
        LogCapture log(0);
        LocalDataBaseManager manager;
        QCOMPARE(manager.convertFncProductEntry(u(name + ".properties"), false), result);
        QCOMPARE(log.lines(), QStringList{entry(0, "converting  " + q(u(name + ".properties")))} + lines);
        QCOMPARE(joined(TestDb::readRecord(false, QStringLiteral("G1"))), record);
        QCOMPARE(TestDb::snapshot({TestDb::userDir()}), legacy); // legacy files are only read
    }
    void repeatedReadsWriteNothingNew_data()
    {
        QTest::addColumn<QStringList>("extra");
        QTest::addColumn<QString>("products");
        QTest::newRow("settled database") << QStringList() << "A=A B=B C=C";
        QTest::newRow("legacy product without update id") << QStringList{"s/d.properties|ProductCode=D\nProductName=D"} << "A=A B=B C=C D=D";
    }
    void repeatedReadsWriteNothingNew()
    {
        QFETCH(QStringList, extra);
        QFETCH(QString, products);
        lay(extra + QStringList{"u/a.properties|ProductCode=A\nProductName=A", "u/a.pf|" + profile("MediaID=MA UpdateID=1"),
                                "u/C.ini|ProductName=C\nUpdateID=3", "s/b.properties|ProductCode=B\nProductName=B",
                                "s/b.pf|" + profile("MediaID=MB UpdateID=2")});
        Record settled;
        for (int round = 1; round <= 3; ++round) {
            LogCapture log(1);
            LocalDataBaseManager manager;
            manager.findRegisteredProducts();
            QCOMPARE(names(manager.productList()), products);
            QCOMPARE(log.lines().count(unchanged), round == 1 ? 0 : 2);
            Record files = TestDb::snapshot({TestDb::userDir(), TestDb::systemDir()});
            QString& d = files[TestDb::systemDir() + "/D.ini"]; // registered again each time: the same content
            d = d.section(' ', 2);
            QVERIFY(round == 1 || files == settled);
            settled = files;
        }
    }
    void homeUnset()
    {
        // Traps in the working directory: reading it as the user database would list or convert them.
        lay({"s/sys.ini|ProductName=Sys", "w/trap.ini|ProductName=Trap", "w/trap.properties|ProductCode=trapped"});
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(QStringLiteral("HOME"));
        const ChildRun run({}, env, false, QDir::currentPath());
        QVERIFY(!run.crashed && run.exitCode == 0);
        QCOMPARE(run.out, QStringList{"sys"});
        QVERIFY2(run.err.contains(convertHeader(QString())) && run.err.contains(header(true, QString())), qPrintable(run.err.join('\n')));
        QVERIFY(run.err.filter("trap").isEmpty() && !QFile::exists(TestDb::systemDir() + "/trapped.ini"));
    }
    void userBranch_data()
    {
        QTest::addColumn<bool>("root");
        QTest::addColumn<bool>("systemLocked");
        QTest::addColumn<QString>("products");
        QTest::newRow("root: all in the system database") << true << false << "L1 L2 P S1 S2 U1";
        QTest::newRow("anyone else: in the user's own") << false << false << "L1 L2 P S1 U1";
        QTest::newRow("anyone else, system database shut") << false << true << "L1 P U1";
    }
    // Root registers and writes what it finds in both locations in the system database, anyone else in
    // the user's own database (a child run as nobody); what the process cannot read is skipped.
    void userBranch()
    {
        QFETCH(bool, root);
        QFETCH(bool, systemLocked);
        QFETCH(QString, products);
        if (root && ::geteuid() != 0)
            QSKIP("the root branch needs a root process");
        const QString whyNot = root ? QString() : ChildRun::unprivilegedUnavailable();
        if (!whyNot.isEmpty())
            QSKIP(qPrintable(whyNot));
        lay({"u/L1.properties|ProductCode=L1\nProductName=L1", "u/L1.pf|" + profile("UpdateID=7"), "u/U1.ini|ProductName=U1",
             "u/p.properties|ProductCode=P\nProductName=P", "u/p.pf|" + profile("UpdateID=7"), "s/S1.ini|ProductName=S1",
             "s/L2.properties|ProductCode=L2\nProductName=L2", "s/L2.pf|" + profile("UpdateID=7"), "s/S2.ini|ProductName=S2"});
        const QString home = QDir::homePath(), own = TestDb::dir(!root), other = TestDb::dir(root);
        // nobody enters the run's temporary directory and owns the home below it
        QVERIFY(QFile::setPermissions(QFileInfo(home).absolutePath(), QFileDevice::Permissions(0x7755)));
        for (const QString& path : {home, home + "/vasko", home + "/vasko/tav", u(""), u("U1.ini")})
            QVERIFY(::geteuid() != 0 || ::chown(QFile::encodeName(path).constData(), 65534, 65534) == 0);
        QVERIFY(QFile::setPermissions(TestDb::systemDir() + "/S2.ini", {}) && QFile::setPermissions(u("p.pf"), {}));
        QVERIFY(!systemLocked || QFile::setPermissions(TestDb::systemDir(), {}));
        const Record before = TestDb::snapshot({other});
        const ChildRun run({"U1", "UpdateID", "42"}, QProcessEnvironment::systemEnvironment(), !root, home);
        QVERIFY2(!run.crashed && run.exitCode == 0, qPrintable(run.err.join('\n')));
        QStringList listed = run.out;
        listed.sort();
        QCOMPARE(listed.join(' '), products);
        QCOMPARE(QSettings(own + "/L1.ini", QSettings::IniFormat).value("RecordMigrated").toString(), QString("1"));
        QCOMPARE(QSettings(own + "/U1.ini", QSettings::IniFormat).value("UpdateID").toString(), QString("42"));
        QCOMPARE(QFile::exists(own + "/L2.ini"), !systemLocked);
        QCOMPARE(TestDb::snapshot({other}), before);
        QVERIFY(run.err.contains(line(0, "found TAV 1.0 property file:  " + q(u("L1.properties")), "convertRegDb")));
        QCOMPARE(run.err.contains("2 LocalDataBaseManager: openXML: cannot open file for reading:  " + q(u("p.pf"))), !root);
        QCOMPARE(run.err.contains(unreadable("S2")), !root && !systemLocked);
    }
};

KEP_TEST_MAIN_WITH_CHILD(TestLocalDataBaseManager)
#include "tst_localdatabasemanager.moc"
