#pragma once

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>

#include <curl/curl.h>

#include <memory>

namespace TavCoreShared {
namespace Network {

class BodyDecoder;
class CurlTransport;

// One HTTP(S) request carried by libcurl, behaving towards its reader as Qt's own reply does:
// headers and attributes, data as it arrives, Qt's error codes and texts, abort at any moment,
// finished() once.
class CurlReply : public QNetworkReply
{
    Q_OBJECT
public:
    CurlReply(CurlTransport* transport, QNetworkAccessManager::Operation operation, const QNetworkRequest& request,
              const QByteArray& body, QObject* parent);
    ~CurlReply() override;

    void abort() override;
    qint64 bytesAvailable() const override;
    bool isSequential() const override { return true; }

    // For the transport.
    CURL* easy() const { return easy_; }
    void deliver();
    void complete(CURLcode result);
    void transportGone();

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char*, qint64) override { return -1; }

private:
    Q_DISABLE_COPY(CurlReply)
    enum class State { Running, Finished };

    void configure(QNetworkAccessManager::Operation operation, const QNetworkRequest& request);
    void setHeaders(const QNetworkRequest& request);
    static size_t onHeader(char* data, size_t size, size_t count, void* self);
    static size_t onBody(char* data, size_t size, size_t count, void* self);
    void headerLine(const QByteArray& line);
    void headersDone();
    void markPending();
    bool decode();
    void finish(NetworkError code, const QString& text);
    void release();
    void logTlsFailure() const;

    QPointer<CurlTransport> transport_;
    CURL* easy_ = nullptr;
    curl_slist* headers_ = nullptr;
    QByteArray body_;
    QByteArray trustedCas_;
    char curlError_[CURL_ERROR_SIZE] = {};
    State state_ = State::Running;
    bool pending_ = false;
    bool headersDone_ = false;
    bool metaDataTold_ = false;
    bool decodeAsked_ = true;
    int status_ = 0;
    std::unique_ptr<BodyDecoder> decoder_;
    QByteArray buffer_;
    qint64 readAt_ = 0;
    qint64 received_ = 0;
    qint64 headerBytes_ = 0;
    qint64 total_ = -1;
    bool newData_ = false;
};

} // namespace Network
} // namespace TavCoreShared
