#include "CurlReply.h"

#include "BodyDecoder.h"
#include "CurlTransport.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace TavCoreShared {
namespace Network {

namespace {

// What one readyRead() hands over of a compressed answer, so that a small body that inflates
// to a huge one reaches its reader in pieces it can refuse, never in one allocation.
constexpr int decodeSlice = 64 * 1024;
// Header lines are kept until the reply goes; libcurl bounds each line, and their sum only since
// 8.3 (or a distribution's backport). Real answers carry well under a kilobyte of them.
constexpr qint64 headerBound = 256 * 1024;

struct Failure
{
    QNetworkReply::NetworkError code;
    QString text;
};

// As Qt's own HTTP transport reports a status of 400 and above.
QNetworkReply::NetworkError httpError(int status)
{
    switch (status) {
    case 400: return QNetworkReply::ProtocolInvalidOperationError;
    case 401: return QNetworkReply::AuthenticationRequiredError;
    case 403: return QNetworkReply::ContentAccessDenied;
    case 404: return QNetworkReply::ContentNotFoundError;
    case 405: return QNetworkReply::ContentOperationNotPermittedError;
    case 407: return QNetworkReply::ProxyAuthenticationRequiredError;
    case 409: return QNetworkReply::ContentConflictError;
    case 410: return QNetworkReply::ContentGoneError;
    case 418: return QNetworkReply::ProtocolInvalidOperationError;
    case 500: return QNetworkReply::InternalServerError;
    case 501: return QNetworkReply::OperationNotImplementedError;
    case 503: return QNetworkReply::ServiceUnavailableError;
    default: return status < 500 ? QNetworkReply::UnknownContentError : QNetworkReply::UnknownServerError;
    }
}

bool isTlsFailure(CURLcode result)
{
    switch (result) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_USE_SSL_FAILED:
        return true;
    default:
        return false;
    }
}

// What a failed transfer is to a QNetworkReply reader, in Qt's codes and texts where Qt has them.
Failure transferFailure(CURLcode result, long osError, const QUrl& url, const QString& detail)
{
    switch (result) {
    case CURLE_COULDNT_RESOLVE_HOST:
        return {QNetworkReply::HostNotFoundError, QStringLiteral("Host %1 not found").arg(url.host())};
    case CURLE_COULDNT_RESOLVE_PROXY:
        return {QNetworkReply::ProxyNotFoundError, QStringLiteral("Proxy server not found: %1").arg(detail)};
    case CURLE_COULDNT_CONNECT:
        if (osError == ECONNREFUSED)
            return {QNetworkReply::ConnectionRefusedError, QStringLiteral("Connection refused")};
        if (osError == ETIMEDOUT)
            return {QNetworkReply::TimeoutError, QStringLiteral("Connection timed out")};
        return {QNetworkReply::UnknownNetworkError, detail};
    case CURLE_OPERATION_TIMEDOUT:
        return {QNetworkReply::TimeoutError, QStringLiteral("Socket operation timed out")};
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    // Bytes that are no HTTP answer at all: for the reader the connection ended without one.
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_UNSUPPORTED_PROTOCOL:
        return {QNetworkReply::RemoteHostClosedError, QStringLiteral("Connection closed")};
    case CURLE_URL_MALFORMAT:
        return {QNetworkReply::ProtocolUnknownError, QStringLiteral("Invalid URL %1").arg(url.toString())};
    default:
        return {QNetworkReply::UnknownNetworkError, detail};
    }
}

} // namespace

CurlReply::CurlReply(CurlTransport* transport, QNetworkAccessManager::Operation operation, const QNetworkRequest& request,
                     const QByteArray& body, QObject* parent)
    : QNetworkReply(parent)
    , transport_(transport)
    , body_(body)
{
    setRequest(request);
    setUrl(request.url());
    setOperation(operation);
    setAttribute(QNetworkRequest::ConnectionEncryptedAttribute, request.url().scheme().toLower() == QLatin1String("https"));
    open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    easy_ = curl_easy_init();
    configure(operation, request);
    if (!easy_ || !transport->start(this)) {
        // The caller has not connected anything yet: tell it from the event loop, as Qt does.
        QMetaObject::invokeMethod(this, [this] {
            if (state_ == State::Running)
                finish(UnknownNetworkError, QStringLiteral("Cannot start the transfer"));
        }, Qt::QueuedConnection);
    }
}

CurlReply::~CurlReply()
{
    release();
}

void CurlReply::configure(QNetworkAccessManager::Operation operation, const QNetworkRequest& request)
{
    if (!easy_)
        return;
    curl_easy_setopt(easy_, CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy_, CURLOPT_URL, request.url().toEncoded().constData());
    curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L); // the host has threads of its own
    curl_easy_setopt(easy_, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(easy_, CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 0L); // a redirect is the caller's to judge
    curl_easy_setopt(easy_, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, curlError_);
    curl_easy_setopt(easy_, CURLOPT_HEADERFUNCTION, &CurlReply::onHeader);
    curl_easy_setopt(easy_, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &CurlReply::onBody);
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);
    trustedCas_ = transport_ ? transport_->trustedCas() : QByteArray();
    if (!trustedCas_.isEmpty()) {
        // Not copied: the reply holds the bytes as long as libcurl may read them.
        curl_blob blob{const_cast<char*>(trustedCas_.constData()), size_t(trustedCas_.size()), CURL_BLOB_NOCOPY};
        curl_easy_setopt(easy_, CURLOPT_CAINFO_BLOB, &blob);
    }

    const QByteArray verb = request.attribute(QNetworkRequest::CustomVerbAttribute).toByteArray();
    bool sendsBody = true;
    switch (operation) {
    case QNetworkAccessManager::HeadOperation:
        curl_easy_setopt(easy_, CURLOPT_NOBODY, 1L);
        sendsBody = false;
        break;
    case QNetworkAccessManager::GetOperation:
        sendsBody = false;
        break;
    case QNetworkAccessManager::PostOperation:
        break;
    case QNetworkAccessManager::PutOperation:
        curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, "PUT");
        break;
    case QNetworkAccessManager::DeleteOperation:
        curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, "DELETE");
        sendsBody = !body_.isEmpty();
        break;
    default:
        curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, verb.constData());
        sendsBody = !body_.isEmpty();
    }
    if (sendsBody) {
        // Small bodies leave together with the header, in one write.
        curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, body_.constData());
        curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(body_.size()));
    }
    setHeaders(request);
}

void CurlReply::setHeaders(const QNetworkRequest& request)
{
    const QList<QByteArray> names = request.rawHeaderList();
    for (const QByteArray& name : names) {
        if (name.compare("Content-Length", Qt::CaseInsensitive) == 0)
            continue; // libcurl counts the body itself
        if (name.compare("Accept-Encoding", Qt::CaseInsensitive) == 0)
            decodeAsked_ = false; // the caller decodes what it asked for, as with Qt
        const QByteArray value = request.rawHeader(name);
        // "Name;" is libcurl's way of sending a header with an empty value.
        headers_ = curl_slist_append(headers_, (value.isEmpty() ? name + ';' : name + ": " + value).constData());
    }
    // "Expect: 100-continue" would cost a round trip before every larger body.
    headers_ = curl_slist_append(headers_, "Expect:");
    if (decodeAsked_)
        headers_ = curl_slist_append(headers_, "Accept-Encoding: gzip, deflate");
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_);
}

size_t CurlReply::onHeader(char* data, size_t size, size_t count, void* self)
{
    auto* reply = static_cast<CurlReply*>(self);
    reply->headerBytes_ += qint64(size * count);
    if (reply->headerBytes_ > headerBound)
        return 0; // libcurl ends the transfer
    reply->headerLine(QByteArray(data, int(size * count)));
    return size * count;
}

size_t CurlReply::onBody(char* data, size_t size, size_t count, void* self)
{
    auto* reply = static_cast<CurlReply*>(self);
    const int length = int(size * count);
    reply->received_ += length;
    if (reply->decoder_)
        reply->decoder_->push(QByteArray(data, length));
    else
        reply->buffer_.append(data, length);
    reply->newData_ = true;
    reply->markPending();
    return size * count;
}

void CurlReply::headerLine(const QByteArray& line)
{
    if (line.startsWith("HTTP/")) {
        // A new answer begins: an interim 1xx one, or the final one.
        const QList<QByteArray> parts = line.trimmed().split(' ');
        status_ = parts.value(1).toInt();
        const int reasonAt = line.indexOf(' ', line.indexOf(' ') + 1);
        setAttribute(QNetworkRequest::HttpReasonPhraseAttribute, reasonAt < 0 ? QByteArray() : line.mid(reasonAt + 1).trimmed());
        const QList<QByteArray> old = rawHeaderList();
        for (const QByteArray& name : old)
            setRawHeader(name, QByteArray());
        headersDone_ = false;
        return;
    }
    if (headersDone_)
        return; // trailers of a chunked body: nothing the reader asks for
    const QByteArray trimmed = line.trimmed();
    if (trimmed.isEmpty()) {
        if (status_ >= 200)
            headersDone();
        return;
    }
    const int colon = trimmed.indexOf(':');
    if (colon <= 0)
        return;
    const QByteArray name = trimmed.left(colon).trimmed(), value = trimmed.mid(colon + 1).trimmed();
    const QByteArray before = rawHeader(name);
    const char* separator = name.compare("Set-Cookie", Qt::CaseInsensitive) == 0 ? "\n" : ", ";
    setRawHeader(name, before.isEmpty() ? value : before + separator + value);
}

void CurlReply::headersDone()
{
    headersDone_ = true;
    setAttribute(QNetworkRequest::HttpStatusCodeAttribute, status_);
    if (status_ / 100 == 3 && hasRawHeader("Location"))
        setAttribute(QNetworkRequest::RedirectionTargetAttribute, QUrl::fromEncoded(rawHeader("Location")));
    if (decodeAsked_)
        decoder_ = BodyDecoder::forEncoding(rawHeader("Content-Encoding"));
    const QVariant length = header(QNetworkRequest::ContentLengthHeader);
    total_ = length.isValid() && !decoder_ ? length.toLongLong() : -1;
    markPending();
}

void CurlReply::markPending()
{
    if (pending_ || !transport_)
        return;
    pending_ = true;
    transport_->markPending(this);
}

void CurlReply::deliver()
{
    pending_ = false;
    QPointer<CurlReply> self(this);
    auto gone = [&self] { return !self || self->state_ != State::Running; };
    if (gone())
        return;
    if (headersDone_ && !metaDataTold_) {
        metaDataTold_ = true;
        emit metaDataChanged();
        if (gone())
            return;
    }
    if (decoder_ && decoder_->hasInput()) {
        newData_ = false;
        while (decoder_ && decoder_->hasInput()) {
            const int before = buffer_.size();
            const BodyDecoder::Status status = decoder_->pull(&buffer_, decodeSlice);
            if (status == BodyDecoder::Status::Corrupt) {
                if (transport_)
                    transport_->stop(this);
                return finish(ProtocolFailure, QStringLiteral("Decompression failed: the compressed answer is corrupt"));
            }
            if (status == BodyDecoder::Status::Stalled)
                break;
            if (buffer_.size() > before) {
                emit readyRead();
                if (gone())
                    return;
            }
        }
        emit downloadProgress(received_, total_);
        return;
    }
    if (newData_) {
        newData_ = false;
        emit readyRead();
        if (gone())
            return;
        emit downloadProgress(received_, total_);
    }
}

void CurlReply::complete(CURLcode result)
{
    QPointer<CurlReply> self(this);
    deliver();
    if (!self || state_ != State::Running)
        return;
    if (result == CURLE_OK) {
        if (decoder_ && received_ > 0 && !decoder_->atEnd())
            return finish(RemoteHostClosedError, QStringLiteral("Connection closed before the end of the compressed answer"));
        if (status_ >= 400)
            return finish(httpError(status_), QStringLiteral("Error transferring %1 - server replied: %2")
                                                   .arg(url().toString(),
                                                        QString::fromLatin1(attribute(QNetworkRequest::HttpReasonPhraseAttribute).toByteArray())));
        return finish(NoError, QString());
    }

    if (headerBytes_ > headerBound)
        return finish(ProtocolFailure, QStringLiteral("The answer's headers exceed %1 KB").arg(headerBound / 1024));
    long connectStatus = 0;
    curl_easy_getinfo(easy_, CURLINFO_HTTP_CONNECTCODE, &connectStatus);
    if (connectStatus >= 300) {
        return finish(connectStatus == 407 ? ProxyAuthenticationRequiredError : UnknownProxyError,
                      QStringLiteral("The proxy refused the connection (status %1)").arg(connectStatus));
    }
    if (isTlsFailure(result)) {
        logTlsFailure();
        return finish(SslHandshakeFailedError, QStringLiteral("SSL handshake failed"));
    }
    long osError = 0;
    curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &osError);
    const QString detail = QString::fromLocal8Bit(curlError_[0] ? curlError_ : curl_easy_strerror(result));
    const Failure failure = transferFailure(result, osError, url(), detail);
    finish(failure.code, failure.text);
}

void CurlReply::logTlsFailure() const
{
    const QString peer = QStringLiteral("%1:%2").arg(url().host()).arg(url().port(443));
    const QString reason = QString::fromLocal8Bit(curlError_[0] ? curlError_ : "no reason given");
    qWarning("%s", qUtf8Printable(QStringLiteral("TavCore: network: TLS handshake with %1 failed: %2").arg(peer, reason)));
}

void CurlReply::finish(NetworkError code, const QString& text)
{
    release();
    state_ = State::Finished;
    setFinished(true);
    QPointer<CurlReply> self(this);
    if (code != NoError) {
        setError(code, text);
        emit errorOccurred(code);
        if (!self)
            return;
    }
    emit readChannelFinished();
    if (self)
        emit finished();
}

// A finished reply may be kept for long by its reader: it keeps the answer, not the transfer
// (libcurl's handle and buffers, ~9 KB; the request body; an inflater's ~8 KB).
void CurlReply::release()
{
    if (transport_)
        transport_->stop(this);
    if (easy_)
        curl_easy_cleanup(std::exchange(easy_, nullptr));
    curl_slist_free_all(std::exchange(headers_, nullptr));
    body_ = QByteArray();
    trustedCas_ = QByteArray();
    decoder_.reset();
}

void CurlReply::abort()
{
    if (state_ != State::Running)
        return;
    if (transport_)
        transport_->stop(this);
    QNetworkReply::close();
    buffer_.clear();
    readAt_ = 0;
    finish(OperationCanceledError, QStringLiteral("Operation canceled"));
}

void CurlReply::transportGone()
{
    release();
    transport_ = nullptr;
    state_ = State::Finished;
    setFinished(true);
    setError(OperationCanceledError, QStringLiteral("Operation canceled"));
}

qint64 CurlReply::bytesAvailable() const
{
    return buffer_.size() - readAt_ + QNetworkReply::bytesAvailable();
}

qint64 CurlReply::readData(char* data, qint64 maxSize)
{
    const qint64 count = qMin(maxSize, qint64(buffer_.size()) - readAt_);
    if (count <= 0)
        return state_ == State::Running ? 0 : -1;
    std::memcpy(data, buffer_.constData() + readAt_, size_t(count));
    readAt_ += count;
    if (readAt_ == buffer_.size()) {
        buffer_.clear();
        readAt_ = 0;
    } else if (readAt_ > (1 << 16) && readAt_ > buffer_.size() / 2) {
        buffer_.remove(0, int(readAt_));
        readAt_ = 0;
    }
    return count;
}

} // namespace Network
} // namespace TavCoreShared
