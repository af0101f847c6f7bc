#include "NetworkAccessManager.h"

#include "NetworkCache.h"

#include <QCoreApplication>
#include <QMutex>
#include <QMutexLocker>

namespace TavCoreShared {
namespace Network {

NetworkAccessManager* NetworkAccessManager::instance()
{
    static QMutex mutex;
    static NetworkAccessManager* manager = nullptr;
    QMutexLocker lock(&mutex);
    if (!manager) {
        manager = new NetworkAccessManager;
        // Gone with the application, while Qt is still there to tear down its replies.
        if (QCoreApplication::instance()) {
            QObject::connect(QCoreApplication::instance(), &QObject::destroyed, [] {
                delete manager;
                manager = nullptr;
            });
        }
    }
    return manager;
}

NetworkAccessManager::NetworkAccessManager() = default;

NetworkAccessManager::~NetworkAccessManager()
{
    delete cache_;
}

NetworkCache* NetworkAccessManager::cache()
{
    if (!cache_)
        cache_ = new NetworkCache;
    return cache_;
}

} // namespace Network
} // namespace TavCoreShared
