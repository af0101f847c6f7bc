#pragma once

#include <QString>

namespace TavCoreShared {
namespace Network {

// Persistent key/value text store for service replies, kept across runs in an SQLite
// database under the user's cache directory. Any failure of the database leaves the
// cache empty and logged; it never stops the caller.
class Q_DECL_EXPORT NetworkCache
{
public:
    // An empty path means "<cache dir>/vasko/tav/network-cache.sqlite".
    explicit NetworkCache(const QString& path = QString());
    ~NetworkCache();
    Q_DISABLE_COPY(NetworkCache)

    QString data(const QString& key);
    void insert(const QString& key, const QString& value);

    bool isUsable() const { return usable_; }
    QString path() const { return path_; }
    static QString defaultPath();

private:
    bool open();
    void close();

    QString path_;
    QString connection_;
    bool usable_ = false;
    bool opened_ = false;
};

} // namespace Network
} // namespace TavCoreShared
