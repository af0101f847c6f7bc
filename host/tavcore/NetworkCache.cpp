#include "NetworkCache.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QStandardPaths>
#include <QUuid>
#include <QtDebug>

namespace TavCoreShared {
namespace Network {

namespace {

QString cacheHome()
{
    const QByteArray xdg = qgetenv("XDG_CACHE_HOME");
    if (!xdg.isEmpty())
        return QString::fromLocal8Bit(xdg);
    const QByteArray home = qgetenv("HOME");
    return home.isEmpty() ? QString() : QString::fromLocal8Bit(home) + QStringLiteral("/.cache");
}

bool exec(QSqlDatabase& db, const QString& statement)
{
    QSqlQuery query(db);
    return query.exec(statement);
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
    if (opened_)
        return usable_;
    opened_ = true;
    if (path_.isEmpty()) {
        qWarning("TavCore: network cache: no cache directory (HOME unset); working without a cache");
        return false;
    }
    QDir().mkpath(QFileInfo(path_).absolutePath());
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection_);
    db.setDatabaseName(path_);
    db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=2000"));
    usable_ = db.open()
        && exec(db, QStringLiteral("CREATE TABLE IF NOT EXISTS replies (key TEXT PRIMARY KEY, value TEXT NOT NULL)"));
    if (!usable_)
        qWarning().noquote() << "TavCore: network cache: cannot use" << path_ << ":" << db.lastError().text()
                             << "; working without a cache";
    return usable_;
}

void NetworkCache::close()
{
    if (!opened_)
        return;
    {
        QSqlDatabase db = QSqlDatabase::database(connection_, false);
        db.close();
    }
    QSqlDatabase::removeDatabase(connection_);
    opened_ = false;
    usable_ = false;
}

QString NetworkCache::data(const QString& key)
{
    if (!open())
        return QString();
    QSqlQuery query(QSqlDatabase::database(connection_, false));
    query.prepare(QStringLiteral("SELECT value FROM replies WHERE key = ?"));
    query.addBindValue(key);
    if (!query.exec()) {
        qWarning().noquote() << "TavCore: network cache: read failed:" << query.lastError().text();
        return QString();
    }
    return query.next() ? query.value(0).toString() : QString();
}

void NetworkCache::insert(const QString& key, const QString& value)
{
    if (!open())
        return;
    QSqlQuery query(QSqlDatabase::database(connection_, false));
    query.prepare(QStringLiteral("INSERT OR REPLACE INTO replies (key, value) VALUES (?, ?)"));
    query.addBindValue(key);
    query.addBindValue(value);
    if (!query.exec())
        qWarning().noquote() << "TavCore: network cache: write failed:" << query.lastError().text();
}

} // namespace Network
} // namespace TavCoreShared
