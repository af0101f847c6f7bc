#include "ChildRun.h"
#include "TestDb.h"
#include "regtool/ProductRecord.h"

#include <QLibrary>
#include <QTemporaryDir>
#include <QTextCodec>
#include <QtTest>

#include <cerrno>
#include <sys/stat.h>

using Record = QMap<QString, QString>;

namespace {

std::string narrow(const QString& text)
{
    return text.toLocal8Bit().toStdString();
}

QString pathOf(bool peruser, const QString& guid)
{
    return TestDb::dir(peruser) + QLatin1Char('/') + guid + QStringLiteral(".ini");
}

int registerDefault(const char* guid, int peruser)
{
    return registerProduct(guid, "Studio", "2.1", "M-77", "P-5", "100", peruser);
}

const Record registered{{"ProductName", "Studio"}, {"ProductVersion", "2.1"}, {"MediaID", "M-77"},
                        {"ProductID", "P-5"},      {"UpdateID", "100"}};

} // namespace

// The registration tool: one record on disk, and its two C entry points.
class TestProductRecord : public QObject
{
    Q_OBJECT
public:
    // Loads the system record GUID, sets KEY=VALUE and saves, as whichever user runs it.
    static int child(const QStringList& args)
    {
        if (args.size() != 3)
            return 0;
        ProductRecord record(narrow(args[0]), false);
        const bool loaded = record.load();
        printf("load=%d ProductName=%s", loaded, record.getValue("ProductName").c_str());
        record.setValue(narrow(args[1]), narrow(args[2]));
        if (loaded)
            printf(" save=%d", record.save());
        printf("\n");
        return 0;
    }

private slots:
    void initTestCase()
    {
        if (!TestDb::isolated())
            QSKIP("run through CTest: the suite needs the temporary HOME and system database");
    }
    void init() { TestDb::reset(); }
    void roundTrip_data()
    {
        QTest::addColumn<bool>("peruser");
        QTest::addColumn<QString>("guid");
        QTest::addColumn<QString>("value");
        QTest::newRow("guid with spaces") << false << "My Product {6A3F 11}" << "Studio";
        QTest::newRow("non-ASCII") << true << "g" << QString::fromUtf8("Студия Ü 製品");
        QTest::newRow("INI punctuation") << false << "g" << "a=b; c # d, \"e\" [f]";
        QTest::newRow("outer blanks and backslashes") << true << "g" << "  C:\\tools\\new  ";
        QTest::newRow("variant look-alike") << false << "g" << "@Variant(1)";
    }
    void roundTrip()
    {
        QFETCH(bool, peruser);
        QFETCH(QString, guid);
        QFETCH(QString, value);
        ProductRecord record(narrow(guid), peruser);
        record.setValue("ProductName", narrow(value));
        QVERIFY(!record.isExist() && record.save() && record.isExist());
        ProductRecord reread(narrow(guid), peruser);
        QVERIFY(reread.load());
        QCOMPARE(QString::fromStdString(reread.getValue("ProductName")), value);
        QCOMPARE(TestDb::readRecord(peruser, guid), (Record{{"ProductName", value}})); // as any QSettings reader sees it
        QCOMPARE(TestDb::entries(TestDb::dir(peruser)), QStringList{guid + QStringLiteral(".ini")});
    }
    void loadRefuses_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("loads");
        QTest::addColumn<QString>("productName"); // "kept": what was held before the load
        QTest::newRow("comments and sections") << QByteArray("; c\n# c\n[General]\nProductName=x\n[O]\ny=1\n") << true << "x";
        QTest::newRow("continued line") << QByteArray("ProductName=a\\\nb\n") << true << "ab";
        QTest::newRow("NUL bytes") << QByteArray("ProductName=x\0\x01\x02", 16) << false << "kept";
        QTest::newRow("line without =") << QByteArray("ProductName=x\njust some words\n") << false << "kept";
        QTest::newRow("unclosed section") << QByteArray("[General\nProductName=x\n") << false << "kept";
    }
    void loadRefuses()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, loads);
        QFETCH(QString, productName);
        QVERIFY(TestDb::writeFile(pathOf(true, "g"), bytes));
        ProductRecord record("g", true);
        record.setValue("ProductName", "kept");
        QCOMPARE(record.load(), loads);
        QCOMPARE(QString::fromStdString(record.getValue("ProductName")), productName);
        QCOMPARE(TestDb::readFile(pathOf(true, "g")), bytes);
    }
    void regression_rawUtf8ReadAsLatin1()
    {
        if (QTextCodec::codecForLocale()->name() != "UTF-8")
            QSKIP("the local 8-bit encoding is not UTF-8 here");
        QVERIFY(TestDb::writeFile(pathOf(false, "g"), "ProductName=Студия, Pro\n"));
        ProductRecord record("g", false);
        QVERIFY(record.load());
        QCOMPARE(QString::fromStdString(record.getValue("ProductName")), QString::fromUtf8("Студия, Pro"));
    }
    void regression_staleRecordRewrittenWithinOneMillisecond()
    {
        QCOMPARE(registerDefault("g", 1), 0);
        ProductRecord first("g", true);
        QVERIFY(first.load());
        const QDateTime stamp = QFileInfo(pathOf(true, "g")).lastModified();
        QCOMPARE(setValue("g", "UpdateID", "200", 1), 0);
        QFile rewritten(pathOf(true, "g")); // same size and, as two quick writes get, the same time stamp
        QVERIFY(rewritten.open(QIODevice::ReadWrite) && rewritten.setFileTime(stamp, QFileDevice::FileModificationTime));
        rewritten.close();
        ProductRecord second("g", true);
        QVERIFY(second.load());
        QCOMPARE(second.getValue("UpdateID"), std::string("200"));
    }
    void unprivileged_data()
    {
        QTest::addColumn<int>("fileMode");
        QTest::addColumn<int>("dirMode");
        QTest::addColumn<QString>("output");
        QTest::newRow("unreadable record") << 0 << 0777 << "load=0 ProductName=";
        QTest::newRow("read-only directory") << 0644 << 0555 << "load=1 ProductName=Studio save=0";
        QTest::newRow("writable directory") << 0644 << 0777 << "load=1 ProductName=Studio save=1";
    }
    void unprivileged()
    {
        QFETCH(int, fileMode);
        QFETCH(int, dirMode);
        QFETCH(QString, output);
        const QString whyNot = ChildRun::unprivilegedUnavailable();
        if (!whyNot.isEmpty())
            QSKIP(qPrintable(whyNot));
        QTemporaryDir root;
        const QString db = root.filePath(QStringLiteral("db")), file = db + QStringLiteral("/g.ini");
        const QByteArray before = "ProductName=Studio\nUpdateID=100\n";
        QVERIFY(ChildRun::openToOthers(root.path()) && TestDb::writeFile(file, before));
        QVERIFY(::chmod(qPrintable(file), mode_t(fileMode)) == 0 && ::chmod(qPrintable(db), mode_t(dirMode)) == 0);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("TAV_SYSTEM_DB_DIR"), db);
        const ChildRun run({"g", "UpdateID", "200"}, env, true);
        QCOMPARE(run.out, QStringList{output});
        QCOMPARE(TestDb::readFile(file).contains("UpdateID=200"), output.endsWith(QLatin1String("save=1")));
        QCOMPARE(TestDb::entries(db), QStringList{QStringLiteral("g.ini")});
    }
    void saveReplacesTheFileWhole()
    {
        QCOMPARE(registerDefault("g", 0), 0);
        const QString path = pathOf(false, "g");
        const QByteArray before = TestDb::readFile(path);
        QFile reader(path);
        QVERIFY(reader.open(QIODevice::ReadOnly));
        ProductRecord record("g", false);
        QVERIFY(record.load());
        record.setValue("OwnerProductCode", std::string(4096, 'o'));
        QVERIFY(record.save());
        QCOMPARE(reader.readAll(), before); // a reader that opened it earlier still sees all of the old one
        QCOMPARE(TestDb::readRecord(false, "g").value("OwnerProductCode"), QString(4096, 'o'));
    }
    void regression_savedRecordPrivateToWriter_data()
    {
        QTest::addColumn<int>("existingMode"); // 0: no record yet
        QTest::addColumn<int>("expectedMode");
        QTest::newRow("new record") << 0 << 0644;
        QTest::newRow("keeps 0640") << 0640 << 0640;
    }
    void regression_savedRecordPrivateToWriter()
    {
        QFETCH(int, existingMode);
        QFETCH(int, expectedMode);
        if (existingMode)
            QVERIFY(registerDefault("g", 0) == 0 && ::chmod(qPrintable(pathOf(false, "g")), mode_t(existingMode)) == 0);
        QCOMPARE(registerDefault("g", 0), 0);
        struct stat info;
        QCOMPARE(::stat(qPrintable(pathOf(false, "g")), &info), 0);
        QCOMPARE(int(info.st_mode & 07777), expectedMode);
    }
    void registerAndSetValue_data()
    {
        QTest::addColumn<bool>("peruser");
        QTest::addColumn<QString>("guid");
        QTest::newRow("user database") << true << "{6A3F-11}";
        QTest::newRow("system database, guid with spaces") << false << "Studio 2 {6A3F}";
    }
    // Missing directories are created; setValue changes one key and keeps the rest.
    void registerAndSetValue()
    {
        QFETCH(bool, peruser);
        QFETCH(QString, guid);
        QVERIFY(QDir(QDir::homePath() + "/vasko").removeRecursively() && QDir(TestDb::systemDir()).removeRecursively());
        QCOMPARE(registerDefault(narrow(guid).c_str(), peruser), 0);
        QCOMPARE(setValue(narrow(guid).c_str(), "UpdateID", "200", peruser), 0);
        Record expected = registered;
        expected.insert(QStringLiteral("UpdateID"), QStringLiteral("200"));
        QCOMPARE(TestDb::readRecord(peruser, guid), expected);
        QCOMPARE(TestDb::entries(TestDb::dir(peruser)), QStringList{guid + QStringLiteral(".ini")});
        QVERIFY(!QDir(TestDb::dir(!peruser)).exists());
    }
    void refuses_data()
    {
        QTest::addColumn<QByteArray>("guid"); // null: a null pointer
        QTest::addColumn<QByteArray>("key");  // null: registerProduct, else setValue with this key (or a null one)
        QTest::addColumn<QByteArray>("record"); // g.ini before; "<dir>": a directory, "<db>": the database is a file
        QTest::addColumn<int>("error");
        const QByteArray good = "ProductName=Studio\n", none;
        QTest::newRow("register: empty guid") << QByteArray("") << none << good << EINVAL;
        QTest::newRow("register: null guid") << none << none << good << EINVAL;
        QTest::newRow("register: guid with a slash") << QByteArray("../g") << none << good << EINVAL;
        QTest::newRow("register: guid ..") << QByteArray("..") << none << good << EINVAL;
        QTest::newRow("register: unwritable location") << QByteArray("g") << none << QByteArray("<db>") << EACCES;
        QTest::newRow("setValue: null key") << QByteArray("g") << QByteArray("<null>") << good << EINVAL;
        QTest::newRow("setValue: empty key") << QByteArray("g") << QByteArray("") << good << EINVAL;
        QTest::newRow("setValue: key QSettings makes a group") << QByteArray("g") << QByteArray("Kep/U") << good << EINVAL;
        QTest::newRow("setValue: record not INI") << QByteArray("g") << QByteArray("U") << QByteArray("\0\1x", 3) << EIO;
        QTest::newRow("setValue: name taken by a directory") << QByteArray("g") << QByteArray("U") << QByteArray("<dir>") << EIO;
    }
    // Nothing is left behind: no new file, the old record byte for byte.
    void refuses()
    {
        QFETCH(QByteArray, guid);
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, record);
        QFETCH(int, error);
        const QString db = TestDb::systemDir(), parent = QFileInfo(db).absolutePath();
        if (record == "<db>")
            QVERIFY(QDir(db).removeRecursively() && TestDb::writeFile(db, record));
        else if (record == "<dir>")
            QVERIFY(QDir(db).mkdir(QStringLiteral("g.ini")));
        else
            QVERIFY(TestDb::writeFile(pathOf(false, "g"), record));
        const QMap<QString, QString> before = TestDb::snapshot({parent});
        const QStringList entries = TestDb::entries(parent) + TestDb::entries(db);
        const char* g = guid.isNull() ? nullptr : guid.constData();
        QCOMPARE(key.isNull() ? registerDefault(g, 0) : setValue(g, key == "<null>" ? nullptr : key.constData(), "1", 0), error);
        QCOMPARE(TestDb::snapshot({parent}), before);
        QCOMPARE(TestDb::entries(parent) + TestDb::entries(db), entries);
        if (record == "<db>")
            QVERIFY(QFile::remove(db));
    }
    void lookupByBaseName()
    {
        QLibrary library(QStringLiteral("tav.dataprovider.kep.regtool"));
        QVERIFY2(library.load(), qPrintable(library.errorString()));
        // The same library the suite links, not a second copy.
        QCOMPARE(reinterpret_cast<void*>(library.resolve("registerProduct")), reinterpret_cast<void*>(&registerProduct));
        QCOMPARE(reinterpret_cast<void*>(library.resolve("setValue")), reinterpret_cast<void*>(&setValue));
    }
};

KEP_TEST_MAIN_WITH_CHILD(TestProductRecord)
#include "tst_productrecord.moc"
