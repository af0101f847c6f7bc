#include "HelperProcess.h"
#include "tavcore/NetworkCache.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

using TavCoreShared::Network::NetworkCache;

namespace {

QStringList warnings_;
QtMessageHandler previous_ = nullptr;

void captureWarning(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type == QtWarningMsg && message.startsWith(QLatin1String("TavCore: network cache: "))) {
        warnings_.append(message);
        return;
    }
    previous_(type, context, message);
}

// Collects the cache's warnings while it lives.
class WarningCapture
{
public:
    WarningCapture() { warnings_.clear(), previous_ = qInstallMessageHandler(captureWarning); }
    ~WarningCapture() { qInstallMessageHandler(previous_); }
    Q_DISABLE_COPY(WarningCapture)
    QStringList lines() const { return warnings_; }
};

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeAll(const QString& path, const QByteArray& bytes, qint64 offset = 0)
{
    QFile file(path);
    QVERIFY(file.open(offset ? QIODevice::ReadWrite : QIODevice::WriteOnly));
    QVERIFY(file.seek(offset));
    QCOMPARE(file.write(bytes), qint64(bytes.size()));
}

// A second connection to the cache file, as another process would hold it.
class OtherConnection
{
public:
    explicit OtherConnection(const QString& path)
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name_);
        db.setDatabaseName(path);
        db.open();
    }
    ~OtherConnection()
    {
        QSqlDatabase::database(name_, false).close();
        QSqlDatabase::removeDatabase(name_);
    }
    Q_DISABLE_COPY(OtherConnection)
    bool exec(const QString& statement)
    {
        QSqlQuery query(QSqlDatabase::database(name_, false));
        return query.exec(statement);
    }

private:
    const QString name_ = QStringLiteral("other-connection");
};

} // namespace

// The host's reply cache: persistence, and staying harmless when its database is not.
class TestNetworkCache : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void persistence_data();
    void persistence();
    void corruptFileIsSetAside_data();
    void corruptFileIsSetAside();
    void lockedDatabase_data();
    void lockedDatabase();
    void unusableLocation_data();
    void unusableLocation();
    void defaultPath_data();
    void defaultPath();
    void survivesKilledWriter();

private:
    QString path() const { return dir_->filePath(QStringLiteral("cache.sqlite")); }
    QScopedPointer<QTemporaryDir> dir_;
};

void TestNetworkCache::init()
{
    dir_.reset(new QTemporaryDir);
    QVERIFY(dir_->isValid());
}

void TestNetworkCache::persistence_data()
{
    // Inserts as key, value, key, value...; then one key and what reading it gives.
    QTest::addColumn<QStringList>("inserts");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("expected");
    const QString big = QString(300000, QChar(0x416)) + QStringLiteral("<xml/>");
    QTest::newRow("value survives") << QStringList{"m|u", "<product/>"} << "m|u" << "<product/>";
    QTest::newRow("insert overwrites") << QStringList{"k", "old", "k", "new"} << "k" << "new";
    QTest::newRow("unknown key") << QStringList{"k", "v"} << "other" << QString();
    QTest::newRow("keys are case-sensitive") << QStringList{"K", "upper", "k", "lower"} << "K" << "upper";
    QTest::newRow("empty value overwrites") << QStringList{"k", "old", "k", QStringLiteral("")} << "k" << "";
    QTest::newRow("null value overwrites") << QStringList{"k", "old", "k", QString()} << "k" << "";
    QTest::newRow("large non-ASCII value") << QStringList{"k", big} << "k" << big;
}

void TestNetworkCache::persistence()
{
    QFETCH(QStringList, inserts);
    QFETCH(QString, key);
    QFETCH(QString, expected);
    WarningCapture warnings;
    {
        NetworkCache cache(path());
        for (int i = 0; i + 1 < inserts.size(); i += 2)
            cache.insert(inserts[i], inserts[i + 1]);
        QCOMPARE(cache.data(key), expected);
    }
    NetworkCache reopened(path());
    QCOMPARE(reopened.data(key), expected);
    QVERIFY(reopened.isUsable());
    QCOMPARE(warnings.lines(), QStringList());
}

void TestNetworkCache::corruptFileIsSetAside_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<qint64>("offset"); // -1: the whole file; else overwrite inside a real cache
    QTest::addColumn<QString>("reason");
    QTest::newRow("text") << QByteArray("not a database at all\n").repeated(200) << qint64(-1)
                          << "file is not a database";
    QTest::newRow("binary with NULs") << QByteArray("\x00\xff\x13\x00garbage", 11).repeated(500) << qint64(-1)
                                      << "file is not a database";
    QTest::newRow("damaged table page") << QByteArray(1024, '\xa5') << qint64(4096)
                                        << "database disk image is malformed";
}

void TestNetworkCache::corruptFileIsSetAside()
{
    QFETCH(QByteArray, bytes);
    QFETCH(qint64, offset);
    QFETCH(QString, reason);
    if (offset < 0) {
        writeAll(path(), bytes);
    } else {
        {
            NetworkCache cache(path());
            cache.insert(QStringLiteral("k"), QStringLiteral("v"));
        }
        QVERIFY(!QFile::exists(path() + QStringLiteral("-wal")));
        writeAll(path(), bytes, offset);
    }
    const QByteArray damaged = readAll(path());
    WarningCapture warnings;
    {
        NetworkCache cache(path());
        QCOMPARE(cache.data(QStringLiteral("k")), QString());
        QCOMPARE(warnings.lines(), QStringList{QStringLiteral("TavCore: network cache: %1 is not a usable database "
                                                              "(%2); moved it to %1.corrupt")
                                                   .arg(path(), reason)});
        QCOMPARE(readAll(path() + QStringLiteral(".corrupt")), damaged);
        cache.insert(QStringLiteral("k"), QStringLiteral("fresh"));
        QCOMPARE(cache.data(QStringLiteral("k")), QStringLiteral("fresh"));
    }
    NetworkCache nextRun(path());
    QCOMPARE(nextRun.data(QStringLiteral("k")), QStringLiteral("fresh"));
    QCOMPARE(warnings.lines().size(), 1);
}

void TestNetworkCache::lockedDatabase_data()
{
    QTest::addColumn<bool>("cacheExistedBefore");
    QTest::addColumn<QString>("readWhileLocked");
    QTest::addColumn<QString>("failedAction");
    // The lock is older than the cache: nothing can be read until it goes.
    QTest::newRow("locked before the first open") << false << QString() << QStringLiteral("cannot open %1");
    // The cache's own WAL database: readers go on, writers wait.
    QTest::newRow("writer holds the lock") << true << QStringLiteral("old") << QStringLiteral("cannot write");
}

void TestNetworkCache::lockedDatabase()
{
    QFETCH(bool, cacheExistedBefore);
    QFETCH(QString, readWhileLocked);
    QFETCH(QString, failedAction);
    if (cacheExistedBefore) {
        NetworkCache cache(path());
        cache.insert(QStringLiteral("k"), QStringLiteral("old"));
    }
    OtherConnection other(path());
    QVERIFY(other.exec(QStringLiteral("CREATE TABLE IF NOT EXISTS theirs (x)")));
    QVERIFY(other.exec(QStringLiteral("BEGIN EXCLUSIVE")));
    QVERIFY(other.exec(QStringLiteral("INSERT INTO theirs VALUES (1)")));

    WarningCapture warnings;
    NetworkCache cache(path());
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(cache.data(QStringLiteral("k")), readWhileLocked);
    cache.insert(QStringLiteral("k"), QStringLiteral("new"));
    QVERIFY2(timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed())));
    QVERIFY(!warnings.lines().isEmpty());
    const QString expected = QStringLiteral("TavCore: network cache: ") + failedAction.replace(QLatin1String("%1"), path())
        + QStringLiteral(": database is locked; working without a cache for now");
    QCOMPARE(warnings.lines().constLast(), expected);

    QVERIFY(other.exec(QStringLiteral("COMMIT")));
    cache.insert(QStringLiteral("k"), QStringLiteral("new"));
    QCOMPARE(cache.data(QStringLiteral("k")), QStringLiteral("new"));
    QCOMPARE(NetworkCache(path()).data(QStringLiteral("k")), QStringLiteral("new"));
}

void TestNetworkCache::unusableLocation_data()
{
    QTest::addColumn<QString>("relativePath");
    QTest::addColumn<QString>("expected"); // %1: the temporary directory
    QTest::newRow("parent is a regular file")
        << "blocker/cache/cache.sqlite"
        << "TavCore: network cache: cannot create the directory %1/blocker/cache; working without a cache";
    QTest::newRow("cache file is a directory")
        << "blocker.sqlite"
        << "TavCore: network cache: cannot open %1/blocker.sqlite: unable to open database file; "
           "working without a cache";
}

void TestNetworkCache::unusableLocation()
{
    QFETCH(QString, relativePath);
    QFETCH(QString, expected);
    writeAll(dir_->filePath(QStringLiteral("blocker")), "a regular file");
    QVERIFY(QDir(dir_->path()).mkdir(QStringLiteral("blocker.sqlite")));
    WarningCapture warnings;
    NetworkCache cache(dir_->filePath(relativePath));
    QCOMPARE(cache.data(QStringLiteral("k")), QString());
    cache.insert(QStringLiteral("k"), QStringLiteral("v"));
    QCOMPARE(cache.data(QStringLiteral("k")), QString());
    QVERIFY(!cache.isUsable());
    // Said once, not on every request.
    QCOMPARE(warnings.lines(), QStringList{expected.arg(dir_->path())});
}

void TestNetworkCache::defaultPath_data()
{
    QTest::addColumn<QString>("xdg");  // "<tmp>" stands for a temporary directory; null: unset
    QTest::addColumn<QString>("home"); // null: unset
    QTest::addColumn<QString>("expected");
    const QString file = QStringLiteral("/vasko/tav/network-cache.sqlite");
    QTest::newRow("XDG_CACHE_HOME") << "<tmp>" << "/nonexistent/home" << "<tmp>" + file;
    QTest::newRow("HOME when XDG_CACHE_HOME is unset") << QString() << "<tmp>" << "<tmp>/.cache" + file;
    QTest::newRow("HOME when XDG_CACHE_HOME is relative") << "rel/cache" << "<tmp>" << "<tmp>/.cache" + file;
    QTest::newRow("neither") << QString() << QString() << QString();
}

void TestNetworkCache::defaultPath()
{
    QFETCH(QString, xdg);
    QFETCH(QString, home);
    QFETCH(QString, expected);
    const QByteArray savedXdg = qgetenv("XDG_CACHE_HOME");
    const QByteArray savedHome = qgetenv("HOME");
    const auto restore = qScopeGuard([&] {
        qputenv("XDG_CACHE_HOME", savedXdg);
        qputenv("HOME", savedHome);
    });
    const auto set = [this](const char* name, const QString& value) {
        if (value.isNull())
            qunsetenv(name);
        else
            qputenv(name, QString(value).replace(QLatin1String("<tmp>"), dir_->path()).toLocal8Bit());
    };
    set("XDG_CACHE_HOME", xdg);
    set("HOME", home);
    expected.replace(QLatin1String("<tmp>"), dir_->path());
    {
        WarningCapture warnings;
        NetworkCache cache;
        QCOMPARE(cache.path(), expected);
        cache.insert(QStringLiteral("k"), QStringLiteral("v"));
        QCOMPARE(cache.data(QStringLiteral("k")), expected.isEmpty() ? QString() : QStringLiteral("v"));
        QCOMPARE(warnings.lines(), expected.isEmpty() ? QStringList{QStringLiteral(
                                       "TavCore: network cache: neither XDG_CACHE_HOME nor HOME is set; "
                                       "working without a cache")}
                                                      : QStringList());
    }
    QVERIFY(expected.isEmpty() || QFileInfo(expected).isFile());
}

void TestNetworkCache::survivesKilledWriter()
{
    const HelperProcess::Result child = HelperProcess::run(
        {QStringLiteral("cache-insert-and-die"), path(), QStringLiteral("m|u"), QStringLiteral("<product/>")});
    QVERIFY(child.finished);
    QCOMPARE(child.status, QProcess::CrashExit);
    // Nobody checkpointed: the reply is only in the write-ahead log.
    QVERIFY(QFile::exists(path() + QStringLiteral("-wal")));
    WarningCapture warnings;
    NetworkCache cache(path());
    QCOMPARE(cache.data(QStringLiteral("m|u")), QStringLiteral("<product/>"));
    QCOMPARE(warnings.lines(), QStringList());
}

QTEST_GUILESS_MAIN(TestNetworkCache)
#include "tst_networkcache.moc"
