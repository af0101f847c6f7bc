#include "NetworkAccessManager.h"

#include "CurlReply.h"
#include "CurlTransport.h"
#include "NetworkCache.h"

#include <QCoreApplication>
#include <QMetaMethod>
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

NetworkAccessManager::NetworkAccessManager()
    : transport_(new CurlTransport)
{
}

NetworkAccessManager::~NetworkAccessManager()
{
    // Our replies leave libcurl before the transport they run on.
    qDeleteAll(findChildren<CurlReply*>(QString(), Qt::FindDirectChildrenOnly));
    delete transport_;
    delete cache_;
}

QNetworkReply* NetworkAccessManager::createRequest(Operation operation, const QNetworkRequest& request,
                                                   QIODevice* outgoingData)
{
    const QString scheme = request.url().scheme().toLower();
    if (scheme != QLatin1String("http") && scheme != QLatin1String("https")) {
        static const QMetaMethod created = QMetaMethod::fromSignal(&NetworkAccessManager::replyCreated);
        // Peeked before Qt reads it; only for a listener.
        const QByteArray body =
            outgoingData && isSignalConnected(created) ? outgoingData->peek(outgoingData->bytesAvailable()) : QByteArray();
        QNetworkReply* reply = QNetworkAccessManager::createRequest(operation, request, outgoingData);
        emit replyCreated(reply, body);
        return reply;
    }
    // The whole body leaves with the header; what the host posts is a few kilobytes at most.
    const QByteArray body = outgoingData ? outgoingData->readAll() : QByteArray();
    auto* reply = new CurlReply(transport_, operation, request, body, this);
    emit replyCreated(reply, body);
    return reply;
}

NetworkCache* NetworkAccessManager::cache()
{
    if (!cache_)
        cache_ = new NetworkCache;
    return cache_;
}

} // namespace Network
} // namespace TavCoreShared
