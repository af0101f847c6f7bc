#include "ChildRun.h"
#include "TestDb.h"
#include "regtool/PlainRecordReader.h"
#include "regtool/ProductRecord.h"

#include <QLibrary>
#include <QSettings>
#include <QTemporaryDir>
#include <QTextCodec>
#include <QtTest>

#include <cerrno>
#include <sys/file.h>
#include <sys/stat.h>

namespace {

QString pathOf(bool peruser, const QString& guid)
{
    return TestDb::dir(peruser) + QLatin1Char('/') + guid + QStringLiteral(".ini");
}

int registerDefault(const char* guid, int peruser)
{
    return registerProduct(guid, "Studio", "2.1", "M-77", "P-5", "100", peruser);
}

} // namespace

// The registration tool: one record on disk, and its two C entry points.
class TestProductRecord : public QObject
{
    Q_OBJECT
public:
    // Loads the system record g, sets UpdateID and saves, as whichever user runs it; with
    // "save-forever", saves two values in turn until killed, one line on stdout per save.
    static int child(const QStringList& args)
    {
        if (args.value(0) == QLatin1String("save-forever")) {
            for (int i = 0;; ++i) {
                if (setValue("g", "OwnerProductCode", std::string(16 << 10, i % 2 ? 'b' : 'a').c_str(), 0) != 0)
                    return 1;
                printf("saved\n");
                fflush(stdout);
            }
        }
        ProductRecord record("g", false);
        const bool loaded = record.load();
        record.setValue("UpdateID", "200");
        printf("load=%d ProductName=%s save=%d\n", loaded, record.getValue("ProductName").c_str(), loaded && record.save());
        return 0;
    }

private slots:
    void init() { TestDb::reset(); }
    void load_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("productName"); // null: the load fails and keeps what was held
        QTest::newRow("comments and sections") << QByteArray("; c\n# c\n[General]\nProductName=x\n[O]\ny=1\n") << "x";
        QTest::newRow("continued line") << QByteArray("ProductName=a\\\nb\n") << "ab";
        QTest::newRow("regression_rawUtf8ReadAsLatin1") << QByteArray("ProductName=Студия, Pro\n") << "Студия, Pro";
        QTest::newRow("NUL bytes") << QByteArray("ProductName=x\0\x01\x02", 16) << QString();
        QTest::newRow("line without =") << QByteArray("ProductName=x\njust some words\n") << QString();
        QTest::newRow("unclosed section") << QByteArray("[General\nProductName=x\n") << QString();
    }
    void load()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, productName);
        if (QTest::currentDataTag()[0] == 'r' && QTextCodec::codecForLocale()->name() != "UTF-8")
            QSKIP("the local 8-bit encoding is not UTF-8 here");
        QVERIFY(TestDb::writeFile(pathOf(true, "g"), bytes));
        ProductRecord record("g", true);
        record.setValue("ProductName", "kept");
        QCOMPARE(record.load(), !productName.isNull());
        QCOMPARE(QString::fromLocal8Bit(record.getValue("ProductName").c_str()), productName.isNull() ? "kept" : productName);
        QCOMPARE(TestDb::readFile(pathOf(true, "g")), bytes);
    }
    // What the direct reader takes must read as QSettings reads it; the rest is left to QSettings.
    void plainReader_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("plain");
        QTest::newRow("as QSettings writes it") << QByteArray("[General]\nMediaID=M-77\nProductName=Studio 2\nUpdateID=\n") << true;
        QTest::newRow("blanks, comments, repeated key") << QByteArray(" ; n\n\n\tA = 1 \t\nB=x=y# \nA=2\n[General]\n; \"\\,\n") << true;
        QTest::newRow("no final newline") << QByteArray("A=1") << true;
        QTest::newRow("quoted") << QByteArray("A=\"  x \"\n") << false;
        QTest::newRow("list") << QByteArray("A=x , y\n") << false;
        QTest::newRow("escape") << QByteArray("A=x\\ty\n") << false;
        QTest::newRow("typed") << QByteArray("A= @ByteArray(x)\n") << false;
        QTest::newRow("escaped key") << QByteArray("A%20B=1\n") << false;
        QTest::newRow("group key") << QByteArray("A=1\n[Other]\nB=2\n") << false;
        QTest::newRow("lower-case general") << QByteArray("[general]\nA=1\n") << false;
        QTest::newRow("inline comment") << QByteArray("A=1 ; c\n") << false;
        QTest::newRow("CR LF") << QByteArray("A=1\r\nB=2\r\n") << false;
        QTest::newRow("non-ASCII") << QByteArray("A=\xd0\xa1\n") << false;
    }
    void plainReader()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, plain);
        std::map<std::string, std::string> direct{{"held", "before"}}, expected = direct;
        QCOMPARE(PlainRecordReader::read(bytes, direct), plain);
        if (plain) { // else what was held stays
            QTemporaryDir dir;
            QVERIFY(TestDb::writeFile(dir.filePath("r.ini"), bytes));
            QSettings ini(dir.filePath("r.ini"), QSettings::IniFormat);
            ini.setIniCodec("UTF-8");
            expected.clear();
            for (const QString& key : ini.childKeys())
                expected[key.toStdString()] = ini.value(key).toString().toStdString();
        }
        QCOMPARE(direct, expected);
    }
    void regression_staleRecordRewrittenWithinOneMillisecond()
    {
        QVERIFY(registerDefault("g", 1) == 0 && ProductRecord("g", true).load());
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
        QTest::newRow("unreadable record") << 0 << 0777 << "load=0 ProductName= save=0";
        QTest::newRow("read-only directory") << 0644 << 0555 << "load=1 ProductName=Studio save=0";
        QTest::newRow("writable directory") << 0644 << 0777 << "load=1 ProductName=Studio save=1";
    }
    // Nothing but the record is left behind, and it is the old one unless the save succeeded.
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
        QVERIFY(::chmod(qPrintable(root.path()), 0755) == 0 && TestDb::writeFile(file, "ProductName=Studio\nUpdateID=100\n"));
        QVERIFY(::chmod(qPrintable(file), mode_t(fileMode)) == 0 && ::chmod(qPrintable(db), mode_t(dirMode)) == 0);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("TAV_SYSTEM_DB_DIR"), db);
        QCOMPARE(ChildRun({}, env, true).out, QStringList{output});
        QCOMPARE(TestDb::readFile(file) == "ProductName=Studio\nUpdateID=100\n", !output.endsWith("save=1"));
        QCOMPARE(TestDb::entries(db), QStringList{QStringLiteral("g.ini")});
    }
    // Formatted without QSettings, read back by it and by the record's own reader as written.
    void savedValuesReadBack_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("value");
        QTest::newRow("plain") << "MediaID" << "M-77 b=c";
        QTest::newRow("empty") << "UpdateID" << "";
        QTest::newRow("list comma and comment") << "ProductName" << "Studio, Pro; x # y";
        QTest::newRow("typed-value marker") << "ProductName" << "@Invalid()";
        QTest::newRow("quotes and backslashes") << "ProductName" << "\"C:\\x\" \\\"";
        QTest::newRow("blanks at both ends, tab") << "ProductName" << "  a\tb  ";
        QTest::newRow("hex digit after an escape") << "ProductName" << "\x01" "Fa\n0";
        QTest::newRow("control and NUL-free binary") << "ProductName" << "\x1f\x7f\r\n";
        QTest::newRow("non-ASCII and beyond the BMP") << "ProductName" << "Студия \u00e9 \U0001F600";
        QTest::newRow("key with blanks and non-ASCII") << "Ключ 2 %x" << "v";
    }
    void savedValuesReadBack()
    {
        QFETCH(QString, key);
        QFETCH(QString, value);
        QCOMPARE(setValue("g", key.toLocal8Bit().constData(), value.toLocal8Bit().constData(), 1), 0);
        QCOMPARE(TestDb::readRecord(true, "g"), (QMap<QString, QString>{{key, value}}));
        ProductRecord record("g", true);
        QVERIFY(record.load());
        QCOMPARE(QString::fromLocal8Bit(record.getValue(key.toLocal8Bit().toStdString()).c_str()), value);
    }
    // A writer killed before its rename leaves its temporary file; the next process to touch
    // the database removes it, but never one a live writer holds, nor anything else.
    void staleTemporaries_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("kind"); // file, locked (by a live writer), fifo, dir
        QTest::addColumn<bool>("removed");
        QTest::newRow("killed writer's") << ".g.ini.Ab12Cd" << "file" << true;
        QTest::newRow("another record's") << ".h.ini.Ab12Cd" << "file" << true;
        QTest::newRow("live writer's") << ".g.ini.Ab12Cd" << "locked" << false;
        QTest::newRow("FIFO of that name") << ".g.ini.Ab12Cd" << "fifo" << false;
        QTest::newRow("directory of that name") << ".g.ini.Ab12Cd" << "dir" << false;
        QTest::newRow("not a temporary name") << ".g.ini.Ab12C" << "file" << false;
        QTest::newRow("a record") << "g.ini" << "file" << false;
    }
    void staleTemporaries()
    {
        QFETCH(QString, name);
        QFETCH(QString, kind);
        QFETCH(bool, removed);
        const QString path = TestDb::systemDir() + '/' + name;
        QFile held(path);
        if (kind == "fifo")
            QCOMPARE(::mkfifo(qPrintable(path), 0644), 0);
        else if (kind == "dir")
            QVERIFY(QDir().mkpath(path));
        else
            QVERIFY(TestDb::writeFile(path, "ProductName=x\n") && held.open(QIODevice::ReadOnly));
        QVERIFY(kind != "locked" || ::flock(held.handle(), LOCK_EX) == 0);
        const ChildRun run({}); // reads and saves g: its first record in the database sweeps
        QVERIFY(!run.crashed);
        QCOMPARE(QFileInfo::exists(path), !removed);
    }
    // Killed at any point of a save, a writer leaves the old record or the new one, never a
    // mix, and whatever it left beside it is gone after the next process. On a memory file
    // system, where the sync costs nothing, the kills land anywhere in the save.
    void killedWhileSaving()
    {
        QTemporaryDir db(QFileInfo("/dev/shm").isWritable() ? "/dev/shm/kep-kill-XXXXXX" : QString());
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("TAV_SYSTEM_DB_DIR", db.path());
        const auto value = [&db] { return QSettings(db.filePath("g.ini"), QSettings::IniFormat).value("OwnerProductCode").toString(); };
        int leftBehind = 0;
        for (int kill = 0; kill < 30; ++kill) {
            QProcess writer;
            writer.setProcessEnvironment(env);
            writer.start(QCoreApplication::applicationFilePath(), {"--child", "save-forever"});
            // A few saves, then a kill wherever the loop happens to be.
            while (writer.readAllStandardOutput().count('\n') < 1 + kill % 3 && writer.waitForReadyRead(10000)) {
            }
            writer.kill();
            QVERIFY(writer.waitForFinished(10000));
            QVERIFY2(value() == QString(16 << 10, 'a') || value() == QString(16 << 10, 'b'), qPrintable(value().left(20)));
            leftBehind += TestDb::entries(db.path()).size() - 1;
        }
        qInfo("temporary files left by 30 killed writers: %d", leftBehind);
        QVERIFY(!ChildRun({}, env).crashed);
        QCOMPARE(TestDb::entries(db.path()), QStringList{"g.ini"});
        QCOMPARE(TestDb::entries("/dev/shm").filter("regtool-record"), QStringList());
    }
    // A reader that opened the record earlier still sees all of the old one; the mode stays the writer's.
    void regression_savedRecordPrivateToWriter()
    {
        struct stat info;
        QVERIFY(registerDefault("g", 0) == 0 && ::stat(qPrintable(pathOf(false, "g")), &info) == 0);
        QCOMPARE(int(info.st_mode & 07777), 0644);
        QFile reader(pathOf(false, "g"));
        QVERIFY(::chmod(qPrintable(pathOf(false, "g")), 0640) == 0 && reader.open(QIODevice::ReadOnly));
        const QByteArray before = TestDb::readFile(pathOf(false, "g"));
        QCOMPARE(setValue("g", "OwnerProductCode", std::string(4096, 'o').c_str(), 0), 0);
        QCOMPARE(reader.readAll(), before);
        QCOMPARE(TestDb::readRecord(false, "g").value("OwnerProductCode"), QString(4096, 'o'));
        QVERIFY(::stat(qPrintable(pathOf(false, "g")), &info) == 0 && (info.st_mode & 07777) == 0640);
    }
    // Missing directories are created; setValue changes one key and keeps the rest.
    void registerAndSetValue()
    {
        for (bool peruser : {true, false}) {
            QVERIFY(QDir(QDir::homePath() + "/vasko").removeRecursively() && QDir(TestDb::systemDir()).removeRecursively());
            QVERIFY(registerDefault("Studio 2 {6A3F}", peruser) == 0 && setValue("Studio 2 {6A3F}", "UpdateID", "200", peruser) == 0);
            QCOMPARE(TestDb::readRecord(peruser, "Studio 2 {6A3F}"), (QMap<QString, QString>{{"ProductName", "Studio"},
                     {"ProductVersion", "2.1"}, {"MediaID", "M-77"}, {"ProductID", "P-5"}, {"UpdateID", "200"}}));
            QCOMPARE(TestDb::entries(TestDb::dir(peruser)), QStringList{"Studio 2 {6A3F}.ini"});
            QVERIFY(!QDir(TestDb::dir(!peruser)).exists());
        }
    }
    void refuses_data()
    {
        QTest::addColumn<QByteArray>("guid"); // null: a null pointer
        QTest::addColumn<QByteArray>("key");  // null: registerProduct, else setValue with this key ("<null>": null)
        QTest::addColumn<QByteArray>("record"); // g.ini before; "<dir>": a directory, "<db>": the database is a file
        QTest::addColumn<int>("error");
        const QByteArray good = "ProductName=Studio\n", none, g = "g";
        QTest::newRow("register: empty guid") << QByteArray("") << none << good << EINVAL;
        QTest::newRow("register: null guid") << none << none << good << EINVAL;
        QTest::newRow("register: guid with a slash") << QByteArray("../g") << none << good << EINVAL;
        QTest::newRow("register: guid ..") << QByteArray("..") << none << good << EINVAL;
        QTest::newRow("register: unwritable location") << g << none << QByteArray("<db>") << EACCES;
        QTest::newRow("setValue: null key") << g << QByteArray("<null>") << good << EINVAL;
        QTest::newRow("setValue: empty key") << g << QByteArray("") << good << EINVAL;
        QTest::newRow("setValue: key QSettings makes a group") << g << QByteArray("Kep/U") << good << EINVAL;
        QTest::newRow("setValue: record not INI") << g << QByteArray("U") << QByteArray("\0\1x", 3) << EIO;
        QTest::newRow("setValue: name taken by a directory") << g << QByteArray("U") << QByteArray("<dir>") << EIO;
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
        else
            QVERIFY(record == "<dir>" ? QDir(db).mkdir("g.ini") : TestDb::writeFile(pathOf(false, "g"), record));
        const QMap<QString, QString> before = TestDb::snapshot({parent});
        const QStringList entries = TestDb::entries(parent) + TestDb::entries(db);
        const char* g = guid.isNull() ? nullptr : guid.constData();
        QCOMPARE(key.isNull() ? registerDefault(g, 0) : setValue(g, key == "<null>" ? nullptr : key.constData(), "1", 0), error);
        QCOMPARE(TestDb::snapshot({parent}), before);
        QCOMPARE(TestDb::entries(parent) + TestDb::entries(db), entries);
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
