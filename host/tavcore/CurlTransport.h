#pragma once

#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QSslCertificate>
#include <QTimer>

#include <curl/curl.h>

class QSocketNotifier;

namespace TavCoreShared {
namespace Network {

class CurlReply;

// One libcurl multi handle driven by the thread's Qt event loop: its sockets are watched by
// socket notifiers and its one timer is a QTimer, so transfers cost no thread and no polling.
// Connections, name look-ups and TLS sessions are kept here across requests.
class CurlTransport : public QObject
{
    Q_OBJECT
public:
    explicit CurlTransport(QObject* parent = nullptr);
    ~CurlTransport() override;

    bool start(CurlReply* reply);
    void stop(CurlReply* reply);
    // Called from a reply's libcurl callbacks: the reply has news to tell once libcurl returns.
    void markPending(CurlReply* reply);

    // The CA certificates the application added to Qt's default TLS configuration, in PEM,
    // to be trusted besides the system's; empty when it added none.
    QByteArray trustedCas();

private:
    Q_DISABLE_COPY(CurlTransport)
    struct Watch
    {
        QSocketNotifier* read = nullptr;
        QSocketNotifier* write = nullptr;
    };

    static int onSocket(CURL* easy, curl_socket_t socket, int what, void* self, void* socketData);
    static int onTimer(CURLM* multi, long timeoutMs, void* self);
    void watch(curl_socket_t socket, int what);
    void drive(curl_socket_t socket, int events);
    void tell();

    CURLM* multi_ = nullptr;
    CURLSH* share_ = nullptr;
    QTimer timer_;
    QHash<curl_socket_t, Watch> watches_;
    QSet<CurlReply*> running_;
    QList<QPointer<CurlReply>> pending_;
    QList<QSslCertificate> extraCas_;
    QByteArray trustedCas_;
};

} // namespace Network
} // namespace TavCoreShared
