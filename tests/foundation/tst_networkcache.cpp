#include "ChildRun.h"
#include "TestDb.h"
#include "tavcore/NetworkCache.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

using TavCoreShared::Network::NetworkCache;

namespace {

QStringList warnings_;

void collectWarning(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtWarningMsg)
        warnings_ << message.mid(message.startsWith(QLatin1String("TavCore: network cache: ")) ? 24 : 0);
}

} // namespace

// The host's reply cache: persistence, and staying harmless when its database is not.
class TestNetworkCache : public QObject
{
    Q_OBJECT
public:
    static int child(const QStringList& args)
    {
        if (args.size() != 3)
            return 0;
        NetworkCache cache(args[0]);
        cache.insert(args[1], args[2]);
        std::raise(SIGKILL); // no destructor, no checkpoint
        return 1;
    }

private:
    QString path() const { return dir_->filePath(QStringLiteral("cache.sqlite")); }
    QScopedPointer<QTemporaryDir> dir_;

private slots:
    void initTestCase() { qInstallMessageHandler(collectWarning); }
    void init()
    {
        dir_.reset(new QTemporaryDir);
        warnings_.clear();
    }
    void persistence_data()
    {
        QTest::addColumn<QStringList>("inserts"); // key, value, key, value...
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("expected");
        const QString big = QString(300000, QChar(0x416)) + QStringLiteral("<xml/>");
        QTest::newRow("insert overwrites") << QStringList{"m|u", "old", "m|u", "<product/>"} << "m|u" << "<product/>";
        QTest::newRow("unknown key") << QStringList{"k", "v"} << "other" << QString();
        QTest::newRow("case-sensitive keys") << QStringList{"K", "upper", "k", "lower"} << "K" << "upper";
        QTest::newRow("null value overwrites") << QStringList{"k", "old", "k", QString()} << "k" << "";
        QTest::newRow("large non-ASCII value") << QStringList{"k", big} << "k" << big;
    }
    void persistence()
    {
        QFETCH(QStringList, inserts);
        QFETCH(QString, key);
        QFETCH(QString, expected);
        {
            NetworkCache cache(path());
            for (int i = 0; i + 1 < inserts.size(); i += 2)
                cache.insert(inserts[i], inserts[i + 1]);
        }
        QCOMPARE(NetworkCache(path()).data(key), expected);
        QCOMPARE(warnings_, QStringList());
    }
    void faults_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("readDuring");
        QTest::addColumn<QString>("warning"); // <file>: the cache file, <dir>: the temporary directory
        QTest::addColumn<int>("times");
        QTest::addColumn<bool>("recovers"); // a later run writes again
        const QString aside = "<file> is not a usable database (%1); moved it to <file>.corrupt";
        QTest::newRow("text file") << "text" << "" << aside.arg("file is not a database") << 1 << true;
        QTest::newRow("damaged table page") << "page" << "" << aside.arg("database disk image is malformed") << 1 << true;
        QTest::newRow("locked before the first open")
            << "lock" << "" << "cannot open <file>: database is locked; working without a cache for now" << 2 << true;
        QTest::newRow("writer holds the lock")
            << "lock old" << "old" << "cannot write: database is locked; working without a cache for now" << 1 << true;
        QTest::newRow("parent is a regular file")
            << "blocker" << "" << "cannot create the directory <dir>/blocker; working without a cache" << 1 << false;
        QTest::newRow("cache file is a directory")
            << "dir" << "" << "cannot open <file>: unable to open database file; working without a cache" << 1 << false;
    }
    void faults()
    {
        QFETCH(QString, fault);
        QFETCH(QString, readDuring);
        QFETCH(QString, warning);
        QFETCH(int, times);
        QFETCH(bool, recovers);
        QString file = path();
        if (fault == QLatin1String("page") || fault.endsWith(QLatin1String("old")))
            NetworkCache(path()).insert(QStringLiteral("k"), QStringLiteral("old"));
        if (fault == QLatin1String("text"))
            QVERIFY(TestDb::writeFile(file, QByteArray("not a database at all\n").repeated(200)));
        QFile damage(file);
        if (fault == QLatin1String("page"))
            QVERIFY(damage.open(QIODevice::ReadWrite) && damage.seek(4096) && damage.write(QByteArray(1024, '\xa5')));
        damage.close();
        if (fault == QLatin1String("blocker")) {
            QVERIFY(TestDb::writeFile(dir_->filePath(QStringLiteral("blocker")), "a regular file"));
            file = dir_->filePath(QStringLiteral("blocker/cache.sqlite"));
        }
        if (fault == QLatin1String("dir"))
            QVERIFY(QDir().mkdir(file));
        const QByteArray damaged = TestDb::readFile(file);
        QSqlDatabase other = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("other"));
        other.setDatabaseName(file);
        QSqlQuery lock(fault.startsWith(QLatin1String("lock")) && other.open() ? other : QSqlDatabase());
        QVERIFY(!fault.startsWith(QLatin1String("lock"))
                || (lock.exec(QStringLiteral("CREATE TABLE IF NOT EXISTS theirs (x)"))
                    && lock.exec(QStringLiteral("BEGIN EXCLUSIVE")) && lock.exec("INSERT INTO theirs VALUES (1)")));
        {
            NetworkCache cache(file);
            QElapsedTimer timer;
            timer.start();
            QCOMPARE(cache.data(QStringLiteral("k")), readDuring);
            cache.insert(QStringLiteral("k"), QStringLiteral("new"));
            QVERIFY(timer.elapsed() < 5000); // a lock costs a moment, not the request
            QCOMPARE(warnings_, QVector<QString>(times, warning.replace("<file>", file).replace("<dir>", dir_->path())).toList());
            if (fault.startsWith(QLatin1String("lock")))
                QVERIFY(lock.exec(QStringLiteral("COMMIT")));
            cache.insert(QStringLiteral("k"), QStringLiteral("new"));
            QCOMPARE(cache.isUsable(), recovers);
        }
        lock.clear();
        other = QSqlDatabase();
        QSqlDatabase::removeDatabase(QStringLiteral("other"));
        QCOMPARE(NetworkCache(file).data(QStringLiteral("k")), recovers ? QStringLiteral("new") : QString());
        QCOMPARE(warnings_.size(), times + (recovers ? 0 : 1));
        if (fault == QLatin1String("text") || fault == QLatin1String("page"))
            QCOMPARE(TestDb::readFile(file + QStringLiteral(".corrupt")), damaged);
    }
    void defaultPath_data()
    {
        QTest::addColumn<QString>("xdg"); // <tmp>: the temporary directory; null: unset
        QTest::addColumn<QString>("home");
        QTest::addColumn<QString>("expected");
        QTest::newRow("XDG_CACHE_HOME") << "<tmp>" << "/nonexistent" << "<tmp>/vasko/tav/network-cache.sqlite";
        QTest::newRow("relative XDG_CACHE_HOME: HOME")
            << "rel" << "<tmp>" << "<tmp>/.cache/vasko/tav/network-cache.sqlite";
        QTest::newRow("neither") << QString() << QString() << QString();
    }
    void defaultPath()
    {
        QFETCH(QString, xdg);
        QFETCH(QString, home);
        QFETCH(QString, expected);
        const QByteArray savedXdg = qgetenv("XDG_CACHE_HOME"), savedHome = qgetenv("HOME");
        for (auto var : {std::make_pair("XDG_CACHE_HOME", xdg), std::make_pair("HOME", home)}) {
            if (var.second.isNull())
                qunsetenv(var.first);
            else
                qputenv(var.first, var.second.replace(QLatin1String("<tmp>"), dir_->path()).toLocal8Bit());
        }
        NetworkCache cache;
        cache.insert(QStringLiteral("k"), QStringLiteral("v"));
        qputenv("XDG_CACHE_HOME", savedXdg);
        qputenv("HOME", savedHome);
        QCOMPARE(cache.path(), expected.replace(QLatin1String("<tmp>"), dir_->path()));
        QCOMPARE(cache.data(QStringLiteral("k")), expected.isEmpty() ? QString() : QStringLiteral("v"));
        const QString neither = QStringLiteral("neither XDG_CACHE_HOME nor HOME is set; working without a cache");
        QCOMPARE(warnings_, expected.isEmpty() ? QStringList{neither} : QStringList());
    }
    void survivesKilledWriter()
    {
        const ChildRun run({path(), QStringLiteral("m|u"), QStringLiteral("<product/>")});
        QVERIFY(run.crashed);
        QVERIFY(QFile::exists(path() + QStringLiteral("-wal"))); // the reply is only in the write-ahead log
        QCOMPARE(NetworkCache(path()).data(QStringLiteral("m|u")), QStringLiteral("<product/>"));
        QCOMPARE(warnings_, QStringList());
    }
};

KEP_TEST_MAIN_WITH_CHILD(TestNetworkCache)
#include "tst_networkcache.moc"
