#pragma once

#include <QByteArray>
#include <QMutex>
#include <QNetworkRequest>
#include <QObject>
#include <QString>

class QNetworkReply;

namespace TavCoreShared {
namespace Network {
class NetworkAccessManager;
} // namespace Network
} // namespace TavCoreShared

namespace KepPlugin {

// The plug-in's one client of the Kep web service: builds the SOAP request, posts it on the
// host's shared network access manager, waits with a fixed time-out, falls back to the host's
// reply cache and turns the answer into plain text and a state code.
class NetworkManager : public QObject
{
    Q_OBJECT
public:
    explicit NetworkManager(QObject* parent = nullptr);
    ~NetworkManager() override;

    QString getHmacSHA256(QString input) const;
    QNetworkRequest prepareRequest(QString body, QString cacheKey);

    void sendRequestToKep(QNetworkRequest request, QByteArray& data);
    bool waitForSignal(QObject* sender, const char* signal, int timeout);

    void clearState();
    void clearReply();
    void removeSoapHeaders();
    void checkNetworkReply();

    // What the two steps above do to a reply's text, without the state they keep.
    static QString soapReplyToText(const QString& reply);
    static int stateOfReplyText(const QString& text);

    QString networkReplyStr() const;
    int error() const;

signals:
    void requestFinished();

public slots:
    void interrupt();
    void call_GetTAVProductInfo(QString updateId, QString mediaId, bool showTestUpdate);

private:
    Q_DISABLE_COPY(NetworkManager)

    TavCoreShared::Network::NetworkAccessManager* networkAccessManager_;
    QNetworkReply* reply_ = nullptr;
    QString replyText_;
    int state_ = -1;
    QMutex mutex_;
};

} // namespace KepPlugin
