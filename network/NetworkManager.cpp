#include "NetworkManager.h"

#include "BoundedReplyReader.h"
#include "EscapedReplyReader.h"
#include "MarkupGuard.h"

#include "localdb/KepKeys.h"
#include "localdb/KepLog.h"
#include "localdb/ThreadHandOver.h"
#include "tavcore/NetworkAccessManager.h"
#include "tavcore/NetworkCache.h"
#include "tavcore/SettingsManager.h"

#include <QEventLoop>
#include <QMessageAuthenticationCode>
#include <QMutexLocker>
#include <QNetworkReply>
#include <QTextDocument>
#include <QTimer>
#include <QUrl>

namespace KepPlugin {

namespace {

// The service namespace, shared by the header element and the method element.
#define KEP_SERVICE_NS "urn:vasko:kep:registration:1"

// One line; the indentation is part of it, since the body's byte count goes on the wire.
const QString productInfoTemplate = QStringLiteral(
    "<soap:Envelope xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\""
    "               xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\""
    "               xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">"
    "  <soap:Header>"
    "    <AuthHeader xmlns=\"" KEP_SERVICE_NS "\">"
    "      <Login>_LOGIN_</Login>"
    "      <Password>_PASSWORD_</Password>"
    "    </AuthHeader>"
    "  </soap:Header>"
    "  <soap:Body>"
    "    <GetTAVProductInfo xmlns=\"" KEP_SERVICE_NS "\">"
    "      <mediaID>_MEDIAID_</mediaID>"
    "      <updateID>_UPDATEID_</updateID>"
    "      <showTestUpdate>_SHOWTESTUPDATE_</showTestUpdate>"
    "    </GetTAVProductInfo>"
    "  </soap:Body></soap:Envelope>");

#undef KEP_SERVICE_NS

// The SHA-256 block size, so HMAC takes it as it is; the service holds the same bytes.
// Decoded from hex so that every byte, a zero one included, is part of the key.
const QByteArray authKey = QByteArray::fromHex(
    "a10d225f5c8c4624cdbe3edf1babdefa8178df5cfaad440c20c9bbcb1958cbd7"
    "f9a5a2a6415858bbc39e5063022f3deba2990419d7bdcd1dcec98df73a221ddb");

constexpr int replyTimeoutMs = 60000;

} // namespace

NetworkManager::NetworkManager(QObject* parent)
    : QObject(parent)
    , networkAccessManager_(TavCoreShared::Network::NetworkAccessManager::instance())
{
}

// The reply stays a child of the host's network access manager, which releases it.
NetworkManager::~NetworkManager() = default;

QString NetworkManager::getHmacSHA256(QString input) const
{
    // The message is the C-string content of the local 8-bit form: a zero byte ends it.
    const QByteArray message(input.toLocal8Bit().constData());
    const QByteArray mac = QMessageAuthenticationCode::hash(message, authKey, QCryptographicHash::Sha256);
    return QString::fromLatin1(mac.toHex()).toLower();
}

QNetworkRequest NetworkManager::prepareRequest(QString body, QString cacheKey)
{
    const qulonglong length = qulonglong(body.toUtf8().size());
    QNetworkRequest request{QUrl()};
    const QString url =
        TavCoreShared::TavSettings::SettingsManager::instance()->getProperty(Keys::KepWebServiceUrl).toString();
    request.setUrl(QUrl(url, QUrl::TolerantMode));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("text/xml;charset=utf-8"));
    request.setHeader(QNetworkRequest::ContentLengthHeader, QVariant::fromValue(length));
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, int(QNetworkRequest::AlwaysNetwork));
    request.setAttribute(QNetworkRequest::User, cacheKey);
    return request;
}

void NetworkManager::sendRequestToKep(QNetworkRequest request, QByteArray& data)
{
    clearState();
    reply_ = networkAccessManager_->post(request, data);
    BoundedReplyReader reader(reply_);
    const bool answered = waitForSignal(reply_, SIGNAL(finished()), replyTimeoutMs);
    if (!answered) {
        KEP_LOG(0) << "NetworkManager::sendRequestToKep: request is aborted by timeout";
        if (reply_)
            reply_->abort();
    }
    if (!reply_) {
        KEP_LOG(2) << "NetworkManager::sendRequestToKep: QNetworkReply is empty";
        return;
    }

    QNetworkReply::NetworkError code = reply_->error();
    QString errorText = reply_->errorString();
    const QString cacheKey = reply_->request().attribute(QNetworkRequest::User).toString();
    auto* cache = networkAccessManager_->cache();

    QByteArray bytes;
    // An answer past the bound, or one the HTML reader could not take, fails like a broken
    // connection, and unlike the service's other answers it leaves the cached entry as it was.
    if (reader.overLimit()) {
        code = QNetworkReply::UnknownContentError;
        errorText = reader.overLimitText();
    } else if (code == QNetworkReply::NoError) {
        bytes = reader.takeAll();
        // A connection reset after part of the body may still finish without an error; the
        // announced length tells (unless the body was compressed, when the two differ anyway).
        const QVariant announced = reply_->header(QNetworkRequest::ContentLengthHeader);
        if (announced.isValid() && reply_->rawHeader("Content-Encoding").isEmpty()
            && bytes.size() < announced.toLongLong()) {
            code = QNetworkReply::RemoteHostClosedError;
            errorText = QStringLiteral("Connection closed after %1 of %2 bytes").arg(bytes.size()).arg(announced.toLongLong());
        }
    }

    QString text;
    if (code == QNetworkReply::NoError) {
        text = QString::fromUtf8(bytes.constData(), int(qstrnlen(bytes.constData(), size_t(bytes.size()))));
        errorText = MarkupGuard::refusal(text);
        if (!errorText.isEmpty())
            code = QNetworkReply::UnknownContentError;
    }

    if (code == QNetworkReply::NoError) {
        KEP_LOG(0) << "NetworkManager::sendRequestToKep: reply ok";
        {
            QMutexLocker lock(&mutex_);
            replyText_ = text;
        }
        if (!cacheKey.isEmpty())
            cache->insert(cacheKey, text);
        return;
    }

    // A time-out aborts the reply too, but unlike a cancel it may be served from the cache.
    if (code == QNetworkReply::OperationCanceledError && answered) {
        KEP_LOG(2) << "NetworkManager::sendRequestToKep: operation cancelled";
        state_ = 7;
        return;
    }

    KEP_LOG(2) << QStringLiteral("NetworkManager::sendRequestToKep: reply error [%1]: %2")
                      .arg(QString::number(int(code)), errorText);
    if (!cacheKey.isEmpty()) {
        KEP_LOG(0) << "NetworkManager::sendRequestToKep: try loading data from cache...";
        replyText_ = cache->data(cacheKey);
        // An entry stored before these limits would otherwise stall every run without the service.
        const QString refusal = MarkupGuard::refusal(replyText_);
        if (!refusal.isEmpty()) {
            KEP_LOG(2) << QStringLiteral("NetworkManager::sendRequestToKep: cached data refused: %1").arg(refusal);
            replyText_.clear();
        }
    }
    if (!replyText_.isEmpty()) {
        state_ = 1;
        KEP_LOG(0) << "NetworkManager::sendRequestToKep: cached data loaded";
    } else {
        KEP_LOG(0) << "NetworkManager::sendRequestToKep: no cache data";
        state_ = 3;
    }
}

bool NetworkManager::waitForSignal(QObject* sender, const char* signal, int timeout)
{
    QEventLoop loop;
    QTimer timer;
    timer.setInterval(timeout);
    timer.setSingleShot(true);
    connect(sender, signal, &loop, SLOT(quit()));
    connect(&timer, SIGNAL(timeout()), &loop, SLOT(quit()));
    timer.start();
    loop.exec(QEventLoop::AllEvents);
    return timer.isActive();
}

void NetworkManager::clearReply()
{
    if (reply_) {
        reply_->deleteLater();
        reply_ = nullptr;
    }
}

void NetworkManager::clearState()
{
    clearReply();
    QMutexLocker lock(&mutex_);
    replyText_.clear();
    state_ = -1;
}

void NetworkManager::interrupt()
{
    if (reply_)
        reply_->abort();
}

void NetworkManager::removeSoapHeaders()
{
    if (replyText_.isEmpty())
        return;
    replyText_ = soapReplyToText(replyText_);
}

QString NetworkManager::soapReplyToText(const QString& reply)
{
    QString text;
    if (EscapedReplyReader::read(reply, &text))
        return text;
    // The HTML reader drops every tag and resolves the escaped payload back into XML text.
    QTextDocument document;
    document.setHtml(reply);
    return document.toPlainText();
}

void NetworkManager::checkNetworkReply()
{
    if (state_ != -1)
        return;
    QMutexLocker lock(&mutex_);
    if (replyText_.isEmpty())
        return;
    state_ = stateOfReplyText(replyText_);
}

// -1 when the text holds a bracketed code this client does not know or cannot read.
int NetworkManager::stateOfReplyText(const QString& text)
{
    // The code sits between the first "[" and the next "[" or "]", if the first "]" comes
    // after a "[" at all.
    const int close = text.indexOf(QLatin1Char(']'));
    const QStringRef firstPart = text.leftRef(close < 0 ? text.size() : close);
    const int open = firstPart.indexOf(QLatin1Char('['));
    if (open < 0)
        return 0;
    const int nextOpen = firstPart.indexOf(QLatin1Char('['), open + 1);
    const QString code = firstPart.mid(open + 1, nextOpen < 0 ? -1 : nextOpen - open - 1).toString();
    KEP_LOG(0) << "NetworkManager::checkNetworkReply(): error code parsed = " << code;

    bool ok = false;
    const int number = code.toInt(&ok, 10);
    if (!ok)
        return -1;
    switch (number) {
    case 0: case 38: case 119: case 320:
        return 0;
    case 10: case 37: case 39: case 49: case 172:
        return 4;
    case 326:
        return 5;
    case 321:
        return 6;
    default:
        return -1;
    }
}

QString NetworkManager::networkReplyStr() const
{
    return replyText_;
}

int NetworkManager::error() const
{
    return state_;
}

void NetworkManager::call_GetTAVProductInfo(QString updateId, QString mediaId, bool showTestUpdate)
{
    KEP_LOG(0) << QStringLiteral("NetworkManager::call_GetTAVProductInfo: mediaId=[%1];updateId=[%2];showTestUpdate=[%3]")
                      .arg(mediaId, updateId, QString::number(showTestUpdate ? 1 : 0));
    const QString password = getHmacSHA256(mediaId);
    QString envelope = productInfoTemplate;
    envelope.replace(QStringLiteral("_LOGIN_"), mediaId);
    envelope.replace(QStringLiteral("_PASSWORD_"), password);
    envelope.replace(QStringLiteral("_MEDIAID_"), mediaId);
    envelope.replace(QStringLiteral("_UPDATEID_"), updateId);
    envelope.replace(QStringLiteral("_SHOWTESTUPDATE_"), showTestUpdate ? QStringLiteral("y") : QStringLiteral("n"));
    QByteArray body = envelope.toUtf8();
    const QString cacheKey = QStringLiteral("gtpi__") + updateId + QLatin1Char('_') + mediaId;
    const QNetworkRequest request = prepareRequest(envelope, cacheKey);
    sendRequestToKep(request, body);
    removeSoapHeaders();
    checkNetworkReply();
    // The caller's thread reads the reply once its blocking queued call returns.
    KEP_HANDED_OVER(this);
    emit requestFinished();
}

} // namespace KepPlugin
