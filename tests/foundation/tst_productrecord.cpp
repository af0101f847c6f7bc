#include "HelperProcess.h"
#include "TestDb.h"
#include "regtool/ProductRecord.h"

#include <QLibrary>
#include <QTemporaryDir>
#include <QTextCodec>
#include <QtTest>

#include <cerrno>
#include <link.h>
#include <sys/stat.h>

namespace {

std::string narrow(const QString& text)
{
    return text.toLocal8Bit().toStdString();
}

QString recordPath(bool peruser, const QString& guid)
{
    return TestDb::dir(peruser) + QLatin1Char('/') + guid + QStringLiteral(".ini");
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeAll(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QStringList entries(const QString& dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

using Record = QMap<QString, QString>;

const Record registered{{"ProductName", "Studio"},
                        {"ProductVersion", "2.1"},
                        {"MediaID", "M-77"},
                        {"ProductID", "P-5"},
                        {"UpdateID", "100"}};

int registerDefault(const char* guid, int peruser)
{
    return registerProduct(guid, "Studio", "2.1", "M-77", "P-5", "100", peruser);
}

} // namespace

// The registration tool: one record on disk, and its two C entry points.
class TestProductRecord : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void roundTrip_data();
    void roundTrip();
    void load_data();
    void load();
    void regression_rawUtf8ReadAsLatin1();
    void regression_staleRecordRewrittenWithinOneMillisecond();
    void unreadableRecord();
    void saveIntoReadOnlyDirectory_data();
    void saveIntoReadOnlyDirectory();
    void saveReplacesTheFileWhole();
    void saveFailureLeavesNoTemporaryFile();
    void regression_savedRecordPrivateToWriter_data();
    void regression_savedRecordPrivateToWriter();
    void registerCreatesMissingDirectories_data();
    void registerCreatesMissingDirectories();
    void registerRefuses_data();
    void registerRefuses();
    void setValueChangesOneKey();
    void setValueRefuses_data();
    void setValueRefuses();
    void lookupByBaseName();
    void executableHasRpathNotRunpath();
};

void TestProductRecord::initTestCase()
{
    if (!TestDb::isolated())
        QSKIP("run through CTest: the suite needs the temporary HOME and system database");
    QCOMPARE(QString::fromStdString(ProductRecord::systemDbDir()), TestDb::systemDir());
}

void TestProductRecord::init()
{
    TestDb::reset();
}

void TestProductRecord::roundTrip_data()
{
    QTest::addColumn<bool>("peruser");
    QTest::addColumn<QString>("guid");
    QTest::addColumn<QString>("value");
    QTest::newRow("plain") << true << "{6A3F-11}" << "Studio";
    QTest::newRow("guid with spaces") << false << "My Product {6A3F 11}" << "Studio";
    QTest::newRow("non-ASCII") << true << "g" << QString::fromUtf8("Студия Ü 製品");
    QTest::newRow("INI punctuation") << false << "g" << "a=b; c # d, \"e\" [f]";
    QTest::newRow("outer blanks") << true << "g" << "  padded  ";
    QTest::newRow("backslashes") << true << "g" << "C:\\tools\\new";
    QTest::newRow("variant look-alike") << false << "g" << "@Variant(1)";
    QTest::newRow("empty") << true << "g" << "";
}

void TestProductRecord::roundTrip()
{
    QFETCH(bool, peruser);
    QFETCH(QString, guid);
    QFETCH(QString, value);
    {
        ProductRecord record(narrow(guid), peruser);
        QVERIFY(!record.isExist());
        record.setValue("ProductName", narrow(value));
        record.setValue("UpdateID", "100");
        QVERIFY(record.save());
    }
    ProductRecord reread(narrow(guid), peruser);
    QVERIFY(reread.isExist());
    QVERIFY(reread.load());
    QCOMPARE(QString::fromStdString(reread.getValue("ProductName")), value);
    QCOMPARE(reread.getValue("UpdateID"), std::string("100"));
    QCOMPARE(reread.getValue("Absent"), std::string());
    // Any QSettings reader sees the same record.
    QCOMPARE(TestDb::readRecord(peruser, guid), (Record{{"ProductName", value}, {"UpdateID", "100"}}));
    QCOMPARE(entries(TestDb::dir(peruser)), QStringList{guid + QStringLiteral(".ini")});
}

void TestProductRecord::load_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("loads");
    QTest::addColumn<QString>("productName"); // after load; "kept" is what was there before
    QTest::newRow("comments and sections") << QByteArray("; c\n# c\n[General]\nProductName=x\n[Other]\ny=1\n")
                                           << true << "x";
    QTest::newRow("continued line") << QByteArray("ProductName=a\\\nb\n") << true << "ab";
    QTest::newRow("empty file") << QByteArray() << true << "";
    QTest::newRow("NUL bytes") << QByteArray("ProductName=x\0\x01\x02", 16) << false << "kept";
    QTest::newRow("PNG image") << QByteArray("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16) << false << "kept";
    QTest::newRow("line without =") << QByteArray("ProductName=x\njust some words\n") << false << "kept";
    QTest::newRow("unclosed section") << QByteArray("[General\nProductName=x\n") << false << "kept";
}

void TestProductRecord::load()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, loads);
    QFETCH(QString, productName);
    const QString path = recordPath(true, QStringLiteral("g"));
    QVERIFY(writeAll(path, bytes));
    ProductRecord record("g", true);
    record.setValue("ProductName", "kept");
    QCOMPARE(record.load(), loads);
    QCOMPARE(QString::fromStdString(record.getValue("ProductName")), productName);
    QCOMPARE(readAll(path), bytes);
    QCOMPARE(entries(TestDb::userDir()), QStringList{QStringLiteral("g.ini")});
}

void TestProductRecord::regression_rawUtf8ReadAsLatin1()
{
    if (QTextCodec::codecForLocale()->name() != "UTF-8")
        QSKIP("the local 8-bit encoding is not UTF-8 here");
    QVERIFY(writeAll(recordPath(false, QStringLiteral("g")), "ProductName=Студия, Pro\n"));
    ProductRecord record("g", false);
    QVERIFY(record.load());
    QCOMPARE(QString::fromStdString(record.getValue("ProductName")), QString::fromUtf8("Студия, Pro"));
}

void TestProductRecord::regression_staleRecordRewrittenWithinOneMillisecond()
{
    const QString path = recordPath(true, QStringLiteral("g"));
    QCOMPARE(registerDefault("g", 1), 0);
    ProductRecord first("g", true);
    QVERIFY(first.load());
    const QDateTime stamp = QFileInfo(path).lastModified();
    QCOMPARE(setValue("g", "UpdateID", "200", 1), 0);
    // Same size, and (as two quick writes get) the same time stamp.
    QFile rewritten(path);
    QVERIFY(rewritten.open(QIODevice::ReadWrite));
    QVERIFY(rewritten.setFileTime(stamp, QFileDevice::FileModificationTime));
    rewritten.close();
    ProductRecord second("g", true);
    QVERIFY(second.load());
    QCOMPARE(second.getValue("UpdateID"), std::string("200"));
}

void TestProductRecord::unreadableRecord()
{
    REQUIRE_UNPRIVILEGED_HELPER();
    QTemporaryDir root;
    QVERIFY(root.isValid());
    HelperProcess::openToOthers(root.path());
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TAV_SYSTEM_DB_DIR"), root.path());
    QVERIFY(writeAll(root.filePath(QStringLiteral("open.ini")), "ProductName=Studio\n"));
    QVERIFY(writeAll(root.filePath(QStringLiteral("closed.ini")), "ProductName=Studio\n"));
    QVERIFY(QFile::setPermissions(root.filePath(QStringLiteral("open.ini")), QFile::ReadOwner | QFile::ReadOther));
    QVERIFY(QFile::setPermissions(root.filePath(QStringLiteral("closed.ini")), QFile::Permissions()));
    const auto save = [&](const QString& guid) {
        return HelperProcess::run({"record-save", guid, "UpdateID", "1"}, env, true).output;
    };
    QVERIFY(save(QStringLiteral("open")).startsWith(QStringLiteral("load=1 ProductName=Studio save=")));
    QCOMPARE(save(QStringLiteral("closed")), QStringLiteral("load=0 ProductName=\n"));
    QCOMPARE(readAll(root.filePath(QStringLiteral("closed.ini"))), QByteArray("ProductName=Studio\n"));
}

void TestProductRecord::saveIntoReadOnlyDirectory_data()
{
    QTest::addColumn<bool>("writable");
    QTest::newRow("read-only directory") << false;
    QTest::newRow("writable directory (control)") << true;
}

void TestProductRecord::saveIntoReadOnlyDirectory()
{
    QFETCH(bool, writable);
    REQUIRE_UNPRIVILEGED_HELPER();
    QTemporaryDir root;
    QVERIFY(root.isValid());
    HelperProcess::openToOthers(root.path());
    const QString db = root.filePath(QStringLiteral("db"));
    QVERIFY(QDir().mkdir(db));
    const QByteArray before = "ProductName=Studio\nUpdateID=100\n";
    QVERIFY(writeAll(db + QStringLiteral("/g.ini"), before));
    const QFile::Permissions readOnly = QFile::ReadOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup
        | QFile::ReadOther | QFile::ExeOther;
    QVERIFY(QFile::setPermissions(db, writable ? readOnly | QFile::WriteOwner | QFile::WriteGroup | QFile::WriteOther
                                               : readOnly));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TAV_SYSTEM_DB_DIR"), db);
    const HelperProcess::Result child = HelperProcess::run({"record-save", "g", "UpdateID", "200"}, env, true);
    QCOMPARE(child.output, QStringLiteral("load=1 ProductName=Studio save=%1\n").arg(int(writable)));
    if (writable) {
        QVERIFY(readAll(db + QStringLiteral("/g.ini")).contains("UpdateID=200"));
    } else {
        QCOMPARE(readAll(db + QStringLiteral("/g.ini")), before);
    }
    QCOMPARE(entries(db), QStringList{QStringLiteral("g.ini")});
}

void TestProductRecord::saveReplacesTheFileWhole()
{
    const QString path = recordPath(false, QStringLiteral("g"));
    QCOMPARE(registerDefault("g", 0), 0);
    const QByteArray before = readAll(path);
    QFile reader(path);
    QVERIFY(reader.open(QIODevice::ReadOnly));
    struct stat old;
    QCOMPARE(::stat(QFile::encodeName(path).constData(), &old), 0);
    ProductRecord record("g", false);
    QVERIFY(record.load());
    record.setValue("UpdateID", "200");
    record.setValue("OwnerProductCode", std::string(4096, 'o'));
    QVERIFY(record.save());
    // A reader that opened the record earlier still sees all of the old one.
    QCOMPARE(reader.readAll(), before);
    struct stat now;
    QCOMPARE(::stat(QFile::encodeName(path).constData(), &now), 0);
    QVERIFY(now.st_ino != old.st_ino);
    QCOMPARE(TestDb::readRecord(false, QStringLiteral("g")).value(QStringLiteral("UpdateID")), QStringLiteral("200"));
    QCOMPARE(entries(TestDb::systemDir()), QStringList{QStringLiteral("g.ini")});
}

void TestProductRecord::saveFailureLeavesNoTemporaryFile()
{
    // The rename is what fails: the name is taken by a directory.
    QVERIFY(QDir(TestDb::systemDir()).mkdir(QStringLiteral("g.ini")));
    ProductRecord record("g", false);
    record.setValue("UpdateID", "200");
    QVERIFY(!record.save());
    QCOMPARE(entries(TestDb::systemDir()), QStringList{QStringLiteral("g.ini")});
    QVERIFY(QFileInfo(recordPath(false, QStringLiteral("g"))).isDir());
}

void TestProductRecord::regression_savedRecordPrivateToWriter_data()
{
    QTest::addColumn<int>("existingMode"); // 0: no record yet
    QTest::addColumn<int>("expectedMode");
    QTest::newRow("new record") << 0 << 0644;
    QTest::newRow("keeps 0640") << 0640 << 0640;
    QTest::newRow("keeps 0664") << 0664 << 0664;
}

void TestProductRecord::regression_savedRecordPrivateToWriter()
{
    QFETCH(int, existingMode);
    QFETCH(int, expectedMode);
    const QByteArray path = QFile::encodeName(recordPath(false, QStringLiteral("g")));
    if (existingMode) {
        QCOMPARE(registerDefault("g", 0), 0);
        QCOMPARE(::chmod(path.constData(), mode_t(existingMode)), 0);
    }
    QCOMPARE(registerDefault("g", 0), 0);
    struct stat info;
    QCOMPARE(::stat(path.constData(), &info), 0);
    QCOMPARE(int(info.st_mode & 07777), expectedMode);
}

void TestProductRecord::registerCreatesMissingDirectories_data()
{
    QTest::addColumn<bool>("peruser");
    QTest::addColumn<QString>("guid");
    QTest::newRow("user database") << true << "{6A3F-11}";
    QTest::newRow("system database, guid with spaces") << false << "Studio 2 {6A3F}";
}

void TestProductRecord::registerCreatesMissingDirectories()
{
    QFETCH(bool, peruser);
    QFETCH(QString, guid);
    QVERIFY(QDir(QDir::homePath() + QStringLiteral("/vasko")).removeRecursively());
    QVERIFY(QDir(TestDb::systemDir()).removeRecursively());
    QCOMPARE(registerDefault(narrow(guid).c_str(), peruser), 0);
    QCOMPARE(TestDb::readRecord(peruser, guid), registered);
    QCOMPARE(entries(TestDb::dir(peruser)), QStringList{guid + QStringLiteral(".ini")});
    QCOMPARE(QDir(TestDb::dir(!peruser)).exists(), false);
}

void TestProductRecord::registerRefuses_data()
{
    QTest::addColumn<QByteArray>("guid"); // null: a null pointer
    QTest::addColumn<bool>("blockSystemDb");
    QTest::newRow("empty guid") << QByteArray("") << false;
    QTest::newRow("null guid") << QByteArray() << false;
    QTest::newRow("guid with a slash") << QByteArray("../g") << false;
    QTest::newRow("guid ..") << QByteArray("..") << false;
    QTest::newRow("unwritable location") << QByteArray("g") << true;
}

void TestProductRecord::registerRefuses()
{
    QFETCH(QByteArray, guid);
    QFETCH(bool, blockSystemDb);
    // A regular file where the database directory should be stops root too.
    const QString sysDb = TestDb::systemDir();
    if (blockSystemDb) {
        QVERIFY(QDir(sysDb).removeRecursively());
        QVERIFY(writeAll(sysDb, "not a directory"));
    }
    const QString parent = QFileInfo(sysDb).absolutePath();
    const QStringList before = entries(parent);
    QVERIFY(registerDefault(guid.isNull() ? nullptr : guid.constData(), 0) != 0);
    QCOMPARE(entries(parent), before);
    if (blockSystemDb) {
        QCOMPARE(readAll(sysDb), QByteArray("not a directory"));
        QVERIFY(QFile::remove(sysDb));
    } else {
        QCOMPARE(entries(sysDb), QStringList());
    }
}

void TestProductRecord::setValueChangesOneKey()
{
    QCOMPARE(registerDefault("g", 1), 0);
    QCOMPARE(setValue("g", "OwnerProductCode", "{PARENT}", 1), 0);
    Record expected = registered;
    expected.insert(QStringLiteral("OwnerProductCode"), QStringLiteral("{PARENT}"));
    QCOMPARE(TestDb::readRecord(true, QStringLiteral("g")), expected);
    QCOMPARE(setValue("g", "UpdateID", "200", 1), 0);
    expected.insert(QStringLiteral("UpdateID"), QStringLiteral("200"));
    QCOMPARE(TestDb::readRecord(true, QStringLiteral("g")), expected);
    QCOMPARE(entries(TestDb::userDir()), QStringList{QStringLiteral("g.ini")});
    QCOMPARE(entries(TestDb::systemDir()), QStringList());
}

void TestProductRecord::setValueRefuses_data()
{
    QTest::addColumn<QByteArray>("record"); // what g.ini holds before
    QTest::addColumn<QByteArray>("key");    // null: a null pointer
    QTest::addColumn<int>("error");
    const QByteArray good = "ProductName=Studio\n";
    QTest::newRow("null key") << good << QByteArray() << EINVAL;
    QTest::newRow("empty key") << good << QByteArray("") << EINVAL;
    QTest::newRow("key that QSettings makes a group") << good << QByteArray("Kep/UpdateID") << EINVAL;
    // Writing would drop whatever the unreadable record held.
    QTest::newRow("record that is not INI") << QByteArray("\x00\x01garbage", 9) << QByteArray("UpdateID") << EIO;
}

void TestProductRecord::setValueRefuses()
{
    QFETCH(QByteArray, record);
    QFETCH(QByteArray, key);
    QFETCH(int, error);
    const QString path = recordPath(false, QStringLiteral("g"));
    QVERIFY(writeAll(path, record));
    QCOMPARE(setValue("g", key.isNull() ? nullptr : key.constData(), "1", 0), error);
    QCOMPARE(readAll(path), record);
    QCOMPARE(entries(TestDb::systemDir()), QStringList{QStringLiteral("g.ini")});
}

void TestProductRecord::lookupByBaseName()
{
    QLibrary library(QStringLiteral("tav.dataprovider.kep.regtool"));
    QVERIFY2(library.load(), qPrintable(library.errorString()));
    QCOMPARE(QFileInfo(library.fileName()).fileName(), QStringLiteral("libtav.dataprovider.kep.regtool.so"));
    // The same library the suite links, not a second copy.
    QCOMPARE(reinterpret_cast<void*>(library.resolve("registerProduct")), reinterpret_cast<void*>(&registerProduct));
    QCOMPARE(reinterpret_cast<void*>(library.resolve("setValue")), reinterpret_cast<void*>(&setValue));
}

void TestProductRecord::executableHasRpathNotRunpath()
{
    bool rpath = false;
    bool runpath = false;
    for (const ElfW(Dyn)* entry = _DYNAMIC; entry->d_tag != DT_NULL; ++entry) {
        rpath = rpath || entry->d_tag == DT_RPATH;
        runpath = runpath || entry->d_tag == DT_RUNPATH;
    }
    QVERIFY2(rpath, "the test executable has no DT_RPATH: dlopen through Qt cannot find the tool");
    QVERIFY2(!runpath, "a DT_RUNPATH makes the loader ignore DT_RPATH");
}

QTEST_GUILESS_MAIN(TestProductRecord)
#include "tst_productrecord.moc"
