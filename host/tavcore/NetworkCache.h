#pragma once

#include <QHash>
#include <QObject>
#include <QString>

#include <memory>

class QSqlError;
class QSqlQuery;
class QTimer;

namespace TavCoreShared {
namespace Network {

// Persistent key/value text store for service replies, kept across runs in an SQLite
// database under the user's cache directory. Any failure of the database leaves the
// cache empty and logged; it never stops the caller. A cache this user may only read still
// answers, and stores nothing.
//
// A reply stored while the thread's event loop runs is committed when that loop next turns,
// so the commit overlaps whatever the caller does next instead of delaying it; until then it
// is answered from memory. flush() and the destructor commit at once.
class Q_DECL_EXPORT NetworkCache : public QObject
{
    Q_OBJECT
public:
    // An empty path means "<cache dir>/vasko/tav/network-cache.sqlite".
    explicit NetworkCache(const QString& path = QString());
    ~NetworkCache() override;
    Q_DISABLE_COPY(NetworkCache)

    // The stored value, empty when there is none or the database fails; lookedUp() tells.
    QString data(const QString& key);
    void insert(const QString& key, const QString& value);
    // Commits what insert() has kept back.
    void flush();

    bool isUsable() const { return state_ == State::Open; }
    QString path() const { return path_; }
    // $XDG_CACHE_HOME (when absolute), else $HOME/.cache, as they are now.
    static QString defaultPath();

signals:
    // Each data() call, in its thread: found when it returned a value.
    void lookedUp(const QString& key, bool found);

private:
    QString find(const QString& key);
    // Closed is retried on the next call (a lock passes); Disabled is for good.
    enum class State { Closed, Open, Disabled };

    // Immutable: read without the locks and shared memory that a read-only directory denies.
    enum class Access { ReadWrite, ReadOnly, Immutable };

    bool open();
    QSqlError connectDatabase(Access access);
    void becameReadOnly();
    void close();
    bool moveAside(const QSqlError& error);
    void failed(const QString& action, const QSqlError& error);
    QSqlError store(const QHash<QString, QString>& replies);

    QString path_;
    QString connection_;
    State state_ = State::Closed;
    // Answers are read, never stored: the user may not write the file or its directory.
    bool readOnly_ = false;
    // Prepared on the first store of a connection and reused: preparing cost as much as
    // storing a small reply.
    std::unique_ptr<QSqlQuery> insert_;
    QHash<QString, QString> pending_;
    qint64 pendingChars_ = 0;
    // Made by the first insert, so that it fires in the thread that stores.
    std::unique_ptr<QTimer> flushTimer_;
};

} // namespace Network
} // namespace TavCoreShared
