#include "NetworkCache.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>
#include <QtDebug>

namespace TavCoreShared {
namespace Network {

namespace {

// Long enough to ride out another writer's commit, short enough not to stall a request.
const int busyTimeoutMs = 1000;

enum SqliteCode { Corrupt = 11, Busy = 5, Locked = 6, NotADatabase = 26 };

int primaryCode(const QSqlError& error)
{
    return error.nativeErrorCode().toInt() & 0xff;
}

bool isCorrupt(const QSqlError& error)
{
    const int code = primaryCode(error);
    return code == Corrupt || code == NotADatabase;
}

bool isBusy(const QSqlError& error)
{
    const int code = primaryCode(error);
    return code == Busy || code == Locked;
}

void warn(const QString& line)
{
    qWarning("%s", qUtf8Printable(QStringLiteral("TavCore: network cache: ") + line));
}

QString cacheHome()
{
    const QString xdg = qEnvironmentVariable("XDG_CACHE_HOME");
    if (QDir::isAbsolutePath(xdg))
        return xdg;
    const QString home = qEnvironmentVariable("HOME");
    return home.isEmpty() ? QString() : home + QStringLiteral("/.cache");
}

QSqlError run(QSqlDatabase& db, const QString& statement)
{
    QSqlQuery query(db);
    return query.exec(statement) ? QSqlError() : query.lastError();
}

} // namespace

NetworkCache::NetworkCache(const QString& path)
    : path_(path.isEmpty() ? defaultPath() : path)
    , connection_(QStringLiteral("tav-network-cache-") + QUuid::createUuid().toString(QUuid::WithoutBraces))
{
}

NetworkCache::~NetworkCache()
{
    close();
}

QString NetworkCache::defaultPath()
{
    const QString home = cacheHome();
    return home.isEmpty() ? QString() : home + QStringLiteral("/vasko/tav/network-cache.sqlite");
}

bool NetworkCache::open()
{
    if (state_ != State::Closed)
        return state_ == State::Open;
    if (path_.isEmpty()) {
        warn(QStringLiteral("neither XDG_CACHE_HOME nor HOME is set; working without a cache"));
        state_ = State::Disabled;
        return false;
    }
    const QString dir = QFileInfo(path_).absolutePath();
    if (!QDir().mkpath(dir)) {
        warn(QStringLiteral("cannot create the directory %1; working without a cache").arg(dir));
        state_ = State::Disabled;
        return false;
    }
    QSqlError error = connectDatabase();
    if (error.isValid() && isCorrupt(error) && moveAside(error))
        error = connectDatabase();
    if (!error.isValid())
        return true;
    failed(QStringLiteral("cannot open %1").arg(path_), error);
    return false;
}

QSqlError NetworkCache::connectDatabase()
{
    QSqlError error;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection_);
        db.setDatabaseName(path_);
        db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(busyTimeoutMs));
        // WAL keeps every committed reply through a killed process, and NORMAL is then safe.
        // The cache is written once per reply and read only when the service fails: a small
        // page cache (256 KiB instead of 2 MiB) inserts no slower and stays out of the host's
        // peak memory.
        if (!db.open())
            error = db.lastError();
        else if (!(error = run(db, QStringLiteral("PRAGMA journal_mode=WAL"))).isValid()
                 && !(error = run(db, QStringLiteral("PRAGMA synchronous=NORMAL"))).isValid()
                 && !(error = run(db, QStringLiteral("PRAGMA cache_size=-256"))).isValid())
            error = run(db, QStringLiteral("CREATE TABLE IF NOT EXISTS replies (key TEXT PRIMARY KEY, value TEXT NOT NULL)"));
    }
    if (error.isValid())
        close();
    else
        state_ = State::Open;
    return error;
}

void NetworkCache::close()
{
    insert_.reset();
    if (state_ == State::Open)
        state_ = State::Closed;
    if (!QSqlDatabase::contains(connection_))
        return;
    {
        QSqlDatabase db = QSqlDatabase::database(connection_, false);
        db.close();
    }
    QSqlDatabase::removeDatabase(connection_);
}

bool NetworkCache::moveAside(const QSqlError& error)
{
    // Kept for whoever wants to look at it; the next open starts a fresh database.
    const QString aside = path_ + QStringLiteral(".corrupt");
    QFile::remove(aside);
    if (!QFile::rename(path_, aside))
        return false;
    // A journal left by the broken file must not be replayed into the new one.
    QFile::remove(path_ + QStringLiteral("-wal"));
    QFile::remove(path_ + QStringLiteral("-shm"));
    warn(QStringLiteral("%1 is not a usable database (%2); moved it to %3").arg(path_, error.databaseText(), aside));
    return true;
}

void NetworkCache::failed(const QString& action, const QSqlError& error)
{
    if (isBusy(error)) {
        // Another process holds the lock; the next call tries again.
        warn(QStringLiteral("%1: %2; working without a cache for now").arg(action, error.databaseText()));
        return;
    }
    close();
    if (isCorrupt(error) && moveAside(error))
        return;
    state_ = State::Disabled;
    warn(QStringLiteral("%1: %2; working without a cache").arg(action, error.databaseText()));
}

QString NetworkCache::data(const QString& key)
{
    if (!open())
        return QString();
    QSqlError error;
    {
        QSqlQuery query(QSqlDatabase::database(connection_, false));
        query.prepare(QStringLiteral("SELECT value FROM replies WHERE key = ?"));
        query.addBindValue(key.isNull() ? QStringLiteral("") : key);
        if (query.exec())
            return query.next() ? query.value(0).toString() : QString();
        error = query.lastError();
    }
    failed(QStringLiteral("cannot read"), error);
    return QString();
}

void NetworkCache::insert(const QString& key, const QString& value)
{
    if (!open())
        return;
    if (!insert_) {
        insert_ = std::make_unique<QSqlQuery>(QSqlDatabase::database(connection_, false));
        insert_->prepare(QStringLiteral("INSERT OR REPLACE INTO replies (key, value) VALUES (?, ?)"));
    }
    // A null QString binds as SQL NULL, which neither column takes.
    insert_->bindValue(0, key.isNull() ? QStringLiteral("") : key);
    insert_->bindValue(1, value.isNull() ? QStringLiteral("") : value);
    if (insert_->exec()) {
        // Resets the statement, so no transaction stays open between inserts.
        insert_->finish();
        return;
    }
    const QSqlError error = insert_->lastError();
    insert_.reset();
    failed(QStringLiteral("cannot write"), error);
}

} // namespace Network
} // namespace TavCoreShared
