#include "CurlTransport.h"

#include "CurlReply.h"

#include <QFile>
#include <QSocketNotifier>
#include <QSslConfiguration>

#include <mutex>

namespace TavCoreShared {
namespace Network {

CurlTransport::CurlTransport(QObject* parent)
    : QObject(parent)
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlTransport::onSocket);
    curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlTransport::onTimer);
    curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
    // Replies come one after another on the same connection; pipelining is gone from HTTP/1.1
    // practice and multiplexing would only matter for HTTP/2, which is not asked for.
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, long(CURLPIPE_NOTHING));
    // Each new easy handle finds the name and the TLS session of the one before.
    share_ = curl_share_init();
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    timer_.setSingleShot(true);
    timer_.setTimerType(Qt::PreciseTimer); // libcurl's deadlines are short; a coarse timer may be 5 % late
    connect(&timer_, &QTimer::timeout, this, [this] { drive(CURL_SOCKET_TIMEOUT, 0); });
}

CurlTransport::~CurlTransport()
{
    // Replies that outlive us end as they would on a dropped connection.
    const QSet<CurlReply*> running = running_;
    for (CurlReply* reply : running)
        reply->transportGone();
    for (const Watch& watch : qAsConst(watches_)) {
        delete watch.read;
        delete watch.write;
    }
    curl_multi_cleanup(multi_);
    curl_share_cleanup(share_);
}

bool CurlTransport::start(CurlReply* reply)
{
    curl_easy_setopt(reply->easy(), CURLOPT_SHARE, share_);
    if (curl_multi_add_handle(multi_, reply->easy()) != CURLM_OK)
        return false;
    running_.insert(reply);
    return true;
}

void CurlTransport::stop(CurlReply* reply)
{
    if (running_.remove(reply))
        curl_multi_remove_handle(multi_, reply->easy());
}

void CurlTransport::markPending(CurlReply* reply)
{
    pending_.append(reply);
}

QByteArray CurlTransport::trustedCas()
{
    const QList<QSslCertificate> extra = QSslConfiguration::defaultConfiguration().caCertificates();
    if (extra.isEmpty())
        return {};
    if (extra != extraCas_ || trustedCas_.isEmpty()) {
        extraCas_ = extra;
        trustedCas_.clear();
        // Certificates from memory replace libcurl's CA bundle but not its CA directory, which
        // is read lazily, one hashed file per issuer. Only without a directory is the bundle
        // itself added: parsing every system CA costs tens of milliseconds per connection.
        CURL* probe = curl_easy_init();
        char* directory = nullptr;
        char* bundle = nullptr;
        curl_easy_getinfo(probe, CURLINFO_CAPATH, &directory);
        curl_easy_getinfo(probe, CURLINFO_CAINFO, &bundle);
        QFile system(QString::fromLocal8Bit(bundle));
        if (!directory && bundle && system.open(QIODevice::ReadOnly))
            trustedCas_ = system.readAll() + '\n';
        curl_easy_cleanup(probe);
        for (const QSslCertificate& certificate : extra)
            trustedCas_ += certificate.toPem();
    }
    return trustedCas_;
}

int CurlTransport::onSocket(CURL*, curl_socket_t socket, int what, void* self, void*)
{
    static_cast<CurlTransport*>(self)->watch(socket, what);
    return 0;
}

int CurlTransport::onTimer(CURLM*, long timeoutMs, void* self)
{
    auto* transport = static_cast<CurlTransport*>(self);
    if (timeoutMs < 0)
        transport->timer_.stop();
    else
        transport->timer_.start(int(qMin(timeoutMs, long(INT_MAX))));
    return 0;
}

void CurlTransport::watch(curl_socket_t socket, int what)
{
    Watch& watch = watches_[socket];
    // Called from inside libcurl, maybe from this very notifier's slot: never delete at once.
    auto retire = [](QSocketNotifier*& notifier) {
        if (notifier) {
            notifier->setEnabled(false);
            notifier->deleteLater();
            notifier = nullptr;
        }
    };
    if (what == CURL_POLL_REMOVE) {
        retire(watch.read);
        retire(watch.write);
        watches_.remove(socket);
        return;
    }
    auto want = [this, socket](QSocketNotifier*& notifier, QSocketNotifier::Type type, bool on, int event) {
        if (!on) {
            if (notifier)
                notifier->setEnabled(false);
            return;
        }
        if (!notifier) {
            notifier = new QSocketNotifier(socket, type, this);
            connect(notifier, &QSocketNotifier::activated, this, [this, socket, event] { drive(socket, event); });
        }
        notifier->setEnabled(true);
    };
    want(watch.read, QSocketNotifier::Read, what == CURL_POLL_IN || what == CURL_POLL_INOUT, CURL_CSELECT_IN);
    want(watch.write, QSocketNotifier::Write, what == CURL_POLL_OUT || what == CURL_POLL_INOUT, CURL_CSELECT_OUT);
}

void CurlTransport::drive(curl_socket_t socket, int events)
{
    int running = 0;
    curl_multi_socket_action(multi_, socket, events, &running);
    tell();
}

// Signals go out only here, after libcurl has returned: a slot may then abort, delete a reply
// or start the next request without pulling the ground from under libcurl.
void CurlTransport::tell()
{
    struct Done
    {
        QPointer<CurlReply> reply;
        CURLcode result;
    };
    QList<Done> done;
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        CurlReply* reply = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &reply);
        const CURLcode result = message->data.result;
        stop(reply);
        done.append({reply, result});
    }
    const QList<QPointer<CurlReply>> pending = std::exchange(pending_, {});
    for (const QPointer<CurlReply>& reply : pending) {
        if (reply)
            reply->deliver();
    }
    for (const Done& one : qAsConst(done)) {
        if (one.reply)
            one.reply->complete(one.result);
    }
}

} // namespace Network
} // namespace TavCoreShared
