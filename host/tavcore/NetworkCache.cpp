#include "NetworkCache.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTimer>
#include <QUrl>
#include <QUuid>
#include <QtDebug>

#include <utility>

namespace TavCoreShared {
namespace Network {

namespace {

// Long enough to ride out another writer's commit, short enough not to stall a request.
const int busyTimeoutMs = 1000;

// Without an event loop nothing commits on its own; these bound what waits in memory.
const int maxPendingReplies = 64;
const qint64 maxPendingChars = 2 * 1024 * 1024;

enum SqliteCode { Busy = 5, Locked = 6, ReadOnly = 8, Corrupt = 11, CantOpen = 14, NotADatabase = 26 };

int primaryCode(const QSqlError& error)
{
    return error.nativeErrorCode().toInt() & 0xff;
}

bool isCorrupt(const QSqlError& error)
{
    const int code = primaryCode(error);
    return code == Corrupt || code == NotADatabase;
}

// What a user who may read the file but not write it, or its directory, gets.
bool isReadOnly(const QSqlError& error)
{
    const int code = primaryCode(error);
    return code == ReadOnly || code == CantOpen;
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
    flush();
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
    QSqlError error = connectDatabase(Access::ReadWrite);
    if (error.isValid() && isCorrupt(error) && moveAside(error))
        error = connectDatabase(Access::ReadWrite);
    // The replies stored so far are still the fall-back when the service fails. A database
    // in WAL mode needs its shared-memory file, which a read-only directory may not let us
    // create: then it is read as it is on disk.
    if (error.isValid() && isReadOnly(error) && QFileInfo(path_).isFile()
        && (!connectDatabase(Access::ReadOnly).isValid() || !connectDatabase(Access::Immutable).isValid())) {
        becameReadOnly();
        return true;
    }
    if (error.isValid()) {
        failed(QStringLiteral("cannot open %1").arg(path_), error);
        return false;
    }
    // SQLite opens another user's file for reading without a word; said now, not only once
    // an answer fails to be stored.
    if (!QFileInfo(path_).isWritable())
        becameReadOnly();
    return true;
}

void NetworkCache::becameReadOnly()
{
    insert_.reset();
    if (readOnly_)
        return;
    readOnly_ = true;
    warn(QStringLiteral("%1 is read-only for this user: answers are read from it but not stored").arg(path_));
}

QSqlError NetworkCache::connectDatabase(Access access)
{
    QSqlError error;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection_);
        QString options = QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(busyTimeoutMs);
        if (access == Access::Immutable) {
            db.setDatabaseName(QUrl::fromLocalFile(path_).toString() + QStringLiteral("?immutable=1"));
            options += QStringLiteral(";QSQLITE_OPEN_URI;QSQLITE_OPEN_READONLY");
        } else {
            db.setDatabaseName(path_);
            if (access == Access::ReadOnly)
                options += QStringLiteral(";QSQLITE_OPEN_READONLY");
        }
        db.setConnectOptions(options);
        // WAL keeps every committed reply through a killed process, and NORMAL is then safe.
        // The cache is written once per reply and read only when the service fails: a small
        // page cache (256 KiB instead of 2 MiB) inserts no slower and stays out of the host's
        // peak memory. A read-only connection only reads: it finds the table or nothing.
        if (!db.open())
            error = db.lastError();
        else if (access != Access::ReadWrite)
            error = run(db, QStringLiteral("SELECT count(*) FROM replies WHERE 0"));
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
    // Read without locks, a file changing under us may look damaged; it is not ours to move.
    if (!readOnly_ && isCorrupt(error) && moveAside(error))
        return;
    state_ = State::Disabled;
    warn(QStringLiteral("%1: %2; working without a cache").arg(action, error.databaseText()));
}

QString NetworkCache::data(const QString& key)
{
    QString value = find(key);
    emit lookedUp(key, !value.isEmpty());
    return value;
}

QString NetworkCache::find(const QString& key)
{
    const auto kept = pending_.constFind(key.isNull() ? QStringLiteral("") : key);
    if (kept != pending_.constEnd())
        return kept.value();
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
    if (!open() || readOnly_)
        return;
    // A null QString binds as SQL NULL, which neither column takes.
    QString& kept = pending_[key.isNull() ? QStringLiteral("") : key];
    pendingChars_ += value.size() - kept.size();
    kept = value.isNull() ? QStringLiteral("") : value;
    if (pending_.size() >= maxPendingReplies || pendingChars_ >= maxPendingChars) {
        flush();
        return;
    }
    if (!flushTimer_) {
        flushTimer_ = std::make_unique<QTimer>();
        flushTimer_->setSingleShot(true);
        flushTimer_->callOnTimeout([this] { flush(); });
    }
    if (!flushTimer_->isActive())
        flushTimer_->start(0);
}

void NetworkCache::flush()
{
    if (flushTimer_)
        flushTimer_->stop();
    if (pending_.isEmpty())
        return;
    const QHash<QString, QString> replies = std::exchange(pending_, {});
    pendingChars_ = 0;
    if (!open() || readOnly_)
        return;
    const QSqlError error = store(replies);
    if (!error.isValid())
        return;
    // A directory that takes no write-ahead log shows on the first write.
    if (isReadOnly(error))
        becameReadOnly();
    else
        failed(QStringLiteral("cannot write"), error);
}

QSqlError NetworkCache::store(const QHash<QString, QString>& replies)
{
    QSqlDatabase db = QSqlDatabase::database(connection_, false);
    // One reply needs no transaction of its own making, and skips the extra round of locking.
    const bool batch = replies.size() > 1;
    if (batch && !db.transaction())
        return db.lastError();
    if (!insert_) {
        insert_ = std::make_unique<QSqlQuery>(db);
        // A product's answer seldom changes between checks: an equal entry is left as it is,
        // which costs a read instead of rewriting its pages and the log.
        insert_->prepare(QStringLiteral("WITH new (key, value) AS (SELECT ?, ?) INSERT OR REPLACE INTO replies (key, value) "
                                        "SELECT key, value FROM new WHERE NOT EXISTS "
                                        "(SELECT 1 FROM replies AS old WHERE old.key = new.key AND old.value = new.value)"));
    }
    QSqlError error;
    for (auto reply = replies.constBegin(); !error.isValid() && reply != replies.constEnd(); ++reply) {
        insert_->bindValue(0, reply.key());
        insert_->bindValue(1, reply.value());
        if (!insert_->exec())
            error = insert_->lastError();
    }
    if (!error.isValid()) {
        // Resets the statement, so no transaction stays open between commits.
        insert_->finish();
        if (!batch || db.commit())
            return QSqlError();
        error = db.lastError();
    }
    insert_.reset();
    if (batch)
        db.rollback();
    return error;
}

} // namespace Network
} // namespace TavCoreShared
