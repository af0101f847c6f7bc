#include "KepSimProcess.h"
#include "TestDb.h"

#include <QLocalServer>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// Far above what a run needs, far below what the 32-bit host has; the sanitizers reserve
// terabytes of address space up front, so under them only the time is limited.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const QStringList limits{"timeout", "60"};
#else
const QStringList limits{"timeout", "60", "prlimit", "--as=536870912"};
#endif

const QString unreadableProfile = "2 LocalDataBaseManager: openXML: cannot open file for reading:  \"%1.pf\"";
const QString unreadableProperties = "2 LocalDataBaseManager::convertFncProductEntry: found guid is not valid:  \"\"";
const QString unreadableRecord = "2 LocalDataBaseManager::readProductsDb: cannot read product record:  \"{HOSTILE}\"";
const QString refusedProfile = "2 Error message:  \"%1\"";

// What each entry of the directory is, without following or opening anything that is not a
// small regular file.
QMap<QString, QString> entries(const QString& dir)
{
    QMap<QString, QString> seen;
    for (const QString& name : TestDb::entries(dir)) {
        struct stat info = {};
        ::lstat(QFile::encodeName(dir + "/" + name).constData(), &info);
        seen.insert(name, QString("%1 %2 %3 %4.%5 ").arg(info.st_mode).arg(info.st_ino).arg(info.st_size).arg(info.st_mtim.tv_sec)
                              .arg(info.st_mtim.tv_nsec)
                          + (S_ISREG(info.st_mode) && info.st_size < (1 << 20) ? TestDb::readFile(dir + "/" + name).toHex() : ""));
    }
    return seen;
}

// file: which of the hostile product's files is replaced (pf, properties, ini); kind: by what;
// asked: the products asked for (the healthy one, and the legacy one when it is converted).
void row(const char* name, const QString& file, const QString& kind, const QString& line, int asked)
{
    QTest::newRow(name) << file << kind << line << asked;
}

} // namespace

// Files in the product databases that anyone who can write there may have put: each run
// ends, within its time and memory, with the other products answered and the file's failure
// logged; the hostile file itself is left as it was.
class TestHostileFiles : public QObject
{
    Q_OBJECT
    KepSimProcess sim_;

private slots:
    void initTestCase()
    {
        QVERIFY2(sim_.start(KEP_SIM_PATH, KEP_FIXTURES_DIR), qPrintable(sim_.errorText()));
    }

    void hostileFiles_data()
    {
        for (const char* column : {"file", "kind", "line"})
            QTest::addColumn<QString>(column);
        QTest::addColumn<int>("asked");
        // A stack overflow in the XML reader, on every run for good, before the guard.
        row("profile nested 40,000 deep", "pf", "nested", refusedProfile.arg("elements nested deeper than 256 levels"), 2);
        // open() blocked for ever, and a cancel could not help.
        row("profile is a FIFO", "pf", "fifo", unreadableProfile, 2);
        row("profile is a socket", "pf", "socket", unreadableProfile, 2);
        row("profile links to /dev/zero", "pf", "zero", unreadableProfile, 2);
        row("profile of 2 GB", "pf", "huge", refusedProfile.arg("file larger than 1048576 bytes"), 2);
        row("profile of exactly 1 MiB", "pf", "bound", "", 2);
        row("profile with nested entities", "pf", "laughs", "2 LocalDataBaseManager: openXML: ERROR: failed to read: ", 2);
        row("properties links to a FIFO", "properties", "fifo link", unreadableProperties, 1);
        row("properties links to /dev/zero", "properties", "zero", unreadableProperties, 1);
        row("properties of 2 GB", "properties", "huge", unreadableProperties, 1);
        // Not listed at all: the database is read for plain files only.
        row("properties is a FIFO", "properties", "fifo", "", 1);
        row("record links to a FIFO", "ini", "fifo link", unreadableRecord, 1);
        row("record links to /dev/zero", "ini", "zero", unreadableRecord, 1);
        row("record of 2 GB", "ini", "huge", unreadableRecord, 1);
        row("record is a FIFO", "ini", "fifo", "", 1);
    }

    void hostileFiles()
    {
        QFETCH(QString, file);
        QFETCH(QString, kind);
        QFETCH(QString, line);
        QFETCH(int, asked);
        QTemporaryDir root;
        const QString db = root.filePath("home/vasko/tav/db"), base = db + "/{HOSTILE}", hostile = base + "." + file;
        QVERIFY(TestDb::writeFile(db + "/{GOOD}.ini", "MediaID=MEDIA-STUDIO-2014\nUpdateID=1200\n"));
        if (file != "ini") {
            QVERIFY(TestDb::writeFile(base + ".properties", "ProductCode={LEGACY}\nProductName=Legacy Suite 10\n"));
            QVERIFY(TestDb::writeFile(base + ".pf", "<profiles><profile><data id=\"MediaID\" value=\"MEDIA-LEGACY-10\"/>"
                                                    "<data id=\"UpdateID\" value=\"55\"/></profile></profiles>"));
            QFile::remove(hostile);
        }
        QLocalServer socket;
        const QByteArray open = "<profiles><profile><data id=\"MediaID\" value=\"MEDIA-LEGACY-10\"/>";
        if (kind == "nested")
            QVERIFY(TestDb::writeFile(hostile, open + QByteArray("<a>").repeated(40000) + QByteArray("</a>").repeated(40000)
                                                   + "</profile></profiles>"));
        else if (kind == "bound") // flat, exactly the bound
            QVERIFY(TestDb::writeFile(hostile, open + QByteArray("<b/>").repeated(262100).leftJustified(1048576 - 21 - open.size(), ' ')
                                                   + "</profile></profiles>"));
        else if (kind == "laughs")
            QVERIFY(TestDb::writeFile(hostile, "<!DOCTYPE p [<!ENTITY a \"aaaaaaaaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;\">"
                "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;\"><!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;\"><!ENTITY e \"&d;&d;&d;&d;&d;&d;&d;&d;\">"
                "<!ENTITY f \"&e;&e;&e;&e;&e;&e;&e;&e;\"><!ENTITY g \"&f;&f;&f;&f;&f;&f;&f;&f;\">]><profiles>&g;</profiles>"));
        else if (kind == "fifo")
            QCOMPARE(::mkfifo(qPrintable(hostile), 0644), 0);
        else if (kind == "fifo link")
            QVERIFY(::mkfifo(qPrintable(root.filePath("fifo")), 0644) == 0 && QFile::link(root.filePath("fifo"), hostile));
        else if (kind == "socket")
            QVERIFY(socket.listen(hostile));
        else if (kind == "zero")
            QVERIFY(QFile::link("/dev/zero", hostile));
        else if (kind == "huge") { // sparse: nothing on disk, 2 GB of zeros to whoever reads it
            QFile huge(hostile);
            QVERIFY(huge.open(QIODevice::WriteOnly) && huge.resize(qint64(2) << 30));
        }
        const QMap<QString, QString> before = entries(db);

        QProcess host;
        host.setWorkingDirectory(root.path());
        host.start(limits.first(), limits.mid(1) + QStringList{"env", "HOME=" + root.filePath("home"),
            "XDG_CACHE_HOME=" + root.filePath("home/.cache"), "TAV_SYSTEM_DB_DIR=" + root.filePath("sysdb"), TAV_HOST_PATH,
            "--set", "KepWebServiceUrl=" + sim_.url(), "--summary"});
        QVERIFY(host.waitForFinished(90000));
        const QString err = QString::fromUtf8(host.readAllStandardError());
        const QByteArray out = host.readAllStandardOutput();
        QVERIFY2(host.exitStatus() == QProcess::NormalExit && host.exitCode() == 0, qPrintable(err.right(2000)));
        QVERIFY2(err.contains(QString("summary: %1 %2 asked").arg(asked).arg(asked == 1 ? "product" : "products")), qPrintable(err));
        QVERIFY2(err.contains("(service " + QString::number(asked) + ", cache 0, none 0, cancelled 0)"), qPrintable(err));
        QVERIFY2(line.isEmpty() || ("\n" + err).contains("\n" + line.replace("%1", base)), qPrintable(err.left(3000)));
        // The healthy product's two; the legacy one's when its profile is read.
        QCOMPARE(out.count("<update>"), kind == "bound" ? 3 : 2);
        QMap<QString, QString> after = entries(db);
        after.remove("{LEGACY}.ini"); // the converted record
        QCOMPARE(after, before);
    }
};

QTEST_GUILESS_MAIN(TestHostileFiles)
#include "tst_hostilefiles.moc"
