#pragma once

#include <QNetworkAccessManager>

namespace TavCoreShared {
namespace Network {

class CurlTransport;
class NetworkCache;

// The host's one shared QNetworkAccessManager, created in the thread that first asks for it,
// and the persistent reply cache that goes with it. Its http and https requests travel through
// libcurl (one write per request, TCP_NODELAY, kept connections and TLS sessions); other
// schemes go the way Qt takes them.
class Q_DECL_EXPORT NetworkAccessManager : public QNetworkAccessManager
{
    Q_OBJECT
public:
    static NetworkAccessManager* instance();
    ~NetworkAccessManager() override;

    NetworkCache* cache();

signals:
    // A request has been handed to a reply, before it leaves; in the thread that posted it.
    // body is what is posted (empty for requests without one). For watching the host's
    // traffic: nothing is copied or read for it while nobody listens.
    void replyCreated(QNetworkReply* reply, const QByteArray& body);

protected:
    QNetworkReply* createRequest(Operation operation, const QNetworkRequest& request, QIODevice* outgoingData) override;

private:
    NetworkAccessManager();
    Q_DISABLE_COPY(NetworkAccessManager)

    NetworkCache* cache_ = nullptr;
    CurlTransport* transport_ = nullptr;
};

} // namespace Network
} // namespace TavCoreShared
