#include "ChildRun.h"
#include "TestDb.h"
#include "tavcore/NetworkCache.h"

#include <QProcess>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <memory>

using TavCoreShared::Network::NetworkCache;

namespace {

QStringList warnings_;

void collectWarning(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtWarningMsg)
        warnings_ << QString(message).remove(QStringLiteral("TavCore: network cache: "));
}

} // namespace

// The host's reply cache: persistence, and staying harmless when its database is not.
class TestNetworkCache : public QObject
{
    Q_OBJECT
public:
    static int child(const QStringList& args)
    {
        if (args.isEmpty()) // the probe of ChildRun::unprivilegedUnavailable
            return 0;
        if (args.value(0) == QLatin1String("read-only")) { // as another user: read, store, read again
            qInstallMessageHandler(collectWarning);
            NetworkCache cache(args.value(1));
            const QString before = cache.data(QStringLiteral("k"));
            cache.insert(QStringLiteral("k"), QStringLiteral("new"));
            cache.insert(QStringLiteral("k2"), QStringLiteral("new"));
            QTextStream(stdout) << before << '|' << cache.data(QStringLiteral("k")) << '|' << warnings_.join('|') << Qt::endl;
            return 0;
        }
        const bool named = args.value(0) == QLatin1String("write-then-die");
        NetworkCache cache(args.value(named ? 1 : 0));
        cache.insert(named ? args.value(2) : QStringLiteral("m|u"), named ? args.value(3) : QStringLiteral("<product/>"));
        cache.flush();
        cache.insert(QStringLiteral("uncommitted"), QStringLiteral("lost"));
        std::raise(SIGKILL); // no destructor, no checkpoint
        return 1;
    }

private:
    QScopedPointer<QTemporaryDir> dir_;
    QString path(const char* name = "cache.sqlite") const { return dir_->filePath(name); }

private slots:
    void initTestCase() { qInstallMessageHandler(collectWarning); }
    void init()
    {
        warnings_.clear();
        dir_.reset(new QTemporaryDir);
    }
    void persistence_data()
    {
        QTest::addColumn<QStringList>("inserts"); // key, value, key, value...; read back: the first key
        QTest::addColumn<QString>("expected");
        const QString big = QString(300000, QChar(0x416)) + QStringLiteral("<xml/>");
        QTest::newRow("insert overwrites") << QStringList{"m|u", "old", "m|u", "<product/>"} << "<product/>";
        QTest::newRow("null value overwrites") << QStringList{"k", "old", "k", QString()} << "";
        QTest::newRow("large non-ASCII value") << QStringList{"k", big} << big;
    }
    void persistence()
    {
        QFETCH(QStringList, inserts);
        QFETCH(QString, expected);
        {
            NetworkCache cache(path());
            for (int i = 0; i + 1 < inserts.size(); i += 2)
                cache.insert(inserts[i], inserts[i + 1]);
        }
        QCOMPARE(NetworkCache(path()).data(inserts[0]), expected);
        QCOMPARE(NetworkCache(path()).data(QStringLiteral("unknown")), QString());
        QCOMPARE(warnings_, QStringList());
    }
    // A store is answered at once and committed when the event loop turns, when enough wait,
    // on flush() or when the cache goes; another reader sees it only then.
    void writeBehind_data()
    {
        QTest::addColumn<QString>("commit");
        QTest::addColumn<int>("replies");
        QTest::newRow("the event loop turns") << "loop" << 1;
        QTest::newRow("flush") << "flush" << 1;
        QTest::newRow("too many waiting") << "none" << 64;
        QTest::newRow("too much text waiting") << "big" << 1;
        QTest::newRow("the cache goes") << "destroy" << 1;
    }
    void writeBehind()
    {
        QFETCH(QString, commit);
        QFETCH(int, replies);
        NetworkCache other(path());
        QCOMPARE(other.data(QStringLiteral("k0")), QString()); // creates the database
        auto cache = std::make_unique<NetworkCache>(path());
        const QString value = commit == "big" ? QString(2 * 1024 * 1024, QLatin1Char('x')) : QStringLiteral("v");
        for (int i = 0; i < replies; ++i)
            cache->insert(QStringLiteral("k%1").arg(i), value);
        QCOMPARE(cache->data(QStringLiteral("k0")), value);
        if (commit == "loop" || commit == "flush" || commit == "destroy")
            QCOMPARE(other.data(QStringLiteral("k0")), QString());
        if (commit == "flush")
            cache->flush();
        if (commit == "destroy")
            cache.reset();
        if (commit == "loop")
            QTRY_COMPARE(other.data(QStringLiteral("k0")), value);
        QCOMPARE(other.data(QStringLiteral("k0")), value);
        QCOMPARE(other.data(QStringLiteral("k%1").arg(replies - 1)), value);
        QCOMPARE(warnings_, QStringList());
    }
    // Answers mostly come back unchanged; storing one again must not rewrite it.
    void equalAnswerWritesNothing()
    {
        NetworkCache cache(path());
        auto logSize = [this] { return QFileInfo(path() + QStringLiteral("-wal")).size(); };
        cache.insert(QStringLiteral("k"), QStringLiteral("v"));
        cache.flush();
        const qint64 size = logSize();
        QVERIFY(size > 0);
        cache.insert(QStringLiteral("k"), QStringLiteral("v"));
        cache.flush();
        QCOMPARE(logSize(), size);
        cache.insert(QStringLiteral("k"), QStringLiteral("w"));
        cache.flush();
        QVERIFY(logSize() > size);
        QCOMPARE(NetworkCache(path()).data(QStringLiteral("k")), QStringLiteral("w"));
    }
    void faults_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("warning"); // <file>: the cache file, <dir>: the temporary directory
        QTest::addColumn<int>("times");
        QTest::addColumn<bool>("recovers"); // a later run writes again
        const QString aside = "<file> is not a usable database (%1); moved it to <file>.corrupt";
        QTest::newRow("text file") << "text" << aside.arg("file is not a database") << 1 << true;
        QTest::newRow("damaged table page") << "page" << aside.arg("database disk image is malformed") << 1 << true;
        QTest::newRow("locked before the first open")
            << "lock" << "cannot open <file>: database is locked; working without a cache for now" << 2 << true;
        QTest::newRow("writer holds the lock")
            << "lock old" << "cannot write: database is locked; working without a cache for now" << 1 << true;
        QTest::newRow("parent is a regular file")
            << "blocker" << "cannot create the directory <dir>/blocker; working without a cache" << 1 << false;
    }
    void faults()
    {
        QFETCH(QString, fault);
        QFETCH(QString, warning);
        QFETCH(int, times);
        QFETCH(bool, recovers);
        const QString file = fault == "blocker" ? path("blocker/cache.sqlite") : path();
        if (fault == "page" || fault == "lock old")
            NetworkCache(file).insert(QStringLiteral("k"), QStringLiteral("old"));
        QFile damage(file);
        if (fault == "text" || fault == "page") // "page": past the header, a page of the table
            QVERIFY(damage.open(QIODevice::ReadWrite) && damage.seek(fault == "text" ? 0 : 4096)
                    && damage.write(QByteArray(4096, '\xa5')));
        damage.close();
        QVERIFY(fault != "blocker" || TestDb::writeFile(path("blocker"), "a regular file"));
        const QByteArray damaged = TestDb::readFile(file);
        QSqlDatabase other = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("other"));
        other.setDatabaseName(file);
        QSqlQuery lock(fault.startsWith("lock") && other.open() ? other : QSqlDatabase());
        QVERIFY(!fault.startsWith("lock") || (lock.exec("CREATE TABLE IF NOT EXISTS theirs (x)")
                                             && lock.exec("BEGIN EXCLUSIVE") && lock.exec("INSERT INTO theirs VALUES (1)")));
        {
            NetworkCache cache(file);
            QCOMPARE(cache.data(QStringLiteral("k")), fault == "lock old" ? "old" : QString());
            cache.insert(QStringLiteral("k"), QStringLiteral("new"));
            cache.flush();
            QCOMPARE(warnings_, QVector<QString>(times, warning.replace("<file>", file).replace("<dir>", dir_->path())).toList());
            QVERIFY(!fault.startsWith("lock") || lock.exec(QStringLiteral("COMMIT")));
            cache.insert(QStringLiteral("k"), QStringLiteral("new"));
        }
        lock.clear();
        other = QSqlDatabase();
        QSqlDatabase::removeDatabase(QStringLiteral("other"));
        QCOMPARE(NetworkCache(file).data(QStringLiteral("k")), recovers ? QStringLiteral("new") : QString());
        QCOMPARE(warnings_.size(), times + (recovers ? 0 : 1));
        QVERIFY(!warning.contains(".corrupt") || TestDb::readFile(file + ".corrupt") == damaged);
    }
    // A cache this user cannot write (a read-only mount, another user's file) still answers
    // for the fall-back, and says once that it cannot store.
    void readOnly_data()
    {
        QTest::addColumn<QString>("setup"); // file mode, directory mode, "wal": a writer killed with replies in its log
        QTest::addColumn<QString>("expected"); // before | after | warnings
        const QString once = "old|old|%1 is read-only for this user: answers are read from it but not stored";
        QTest::newRow("directory and file read-only") << "0644 0755" << once;
        QTest::newRow("file of another user") << "0644 0777" << once;
        QTest::newRow("write-ahead log of a killed writer") << "0644 0755 wal" << once;
        QTest::newRow("unreadable file") << "0600 0777"
            << "||cannot open %1: unable to open database file; working without a cache";
    }
    void readOnly()
    {
        QFETCH(QString, setup);
        QFETCH(QString, expected);
        const QString reason = ChildRun::unprivilegedUnavailable();
        if (!reason.isEmpty())
            QSKIP(qPrintable(reason));
        const QString file = path("ro/cache.sqlite");
        if (setup.endsWith("wal"))
            QVERIFY(ChildRun({"write-then-die", file, "k", "old"}).crashed);
        else
            NetworkCache(file).insert(QStringLiteral("k"), QStringLiteral("old"));
        QCOMPARE(QFile::exists(file + "-wal"), setup.endsWith("wal"));
        const QStringList modes = setup.split(' ');
        for (const QString& name : QDir(path("ro")).entryList(QDir::Files))
            QCOMPARE(QProcess::execute("chmod", {modes[0], dir_->filePath("ro/" + name)}), 0);
        QCOMPARE(QProcess::execute("chmod", {modes[1], path("ro")}), 0);
        QCOMPARE(QProcess::execute("chmod", {"0755", dir_->path()}), 0);
        const QByteArray bytes = TestDb::readFile(file);

        const ChildRun run({"read-only", file}, QProcessEnvironment::systemEnvironment(), true);
        QVERIFY2(!run.crashed && run.exitCode == 0, qPrintable(run.err.join('\n')));
        QCOMPARE(run.out.value(0), expected.arg(file));
        QCOMPARE(TestDb::readFile(file), bytes);
        QCOMPARE(NetworkCache(file).data(QStringLiteral("k2")), QString());
    }
    void survivesKilledWriter()
    {
        QVERIFY(ChildRun({path()}).crashed);
        QVERIFY(QFile::exists(path() + QStringLiteral("-wal"))); // the reply is only in the write-ahead log
        QCOMPARE(NetworkCache(path()).data(QStringLiteral("m|u")), QStringLiteral("<product/>"));
        QCOMPARE(NetworkCache(path()).data(QStringLiteral("uncommitted")), QString());
        QCOMPARE(warnings_, QStringList());
    }
};

KEP_TEST_MAIN_WITH_CHILD(TestNetworkCache)
#include "tst_networkcache.moc"
