#include "RunWarnings.h"

#include <QMap>
#include <QNetworkReply>
#include <QUrl>

namespace {

const QString prefix = QStringLiteral("tav-host: warning: ");

// "1 of 1 product", "2 of 4 products"
QString productsOf(int part, int total)
{
    return QStringLiteral("%1 of %2 %3").arg(part).arg(total).arg(total == 1 ? QStringLiteral("product") : QStringLiteral("products"));
}

} // namespace

QString RunWarnings::describe(const ProductOutcome& outcome)
{
    if (outcome.source == QLatin1String("cancelled"))
        return QStringLiteral("the check was cancelled while the request was under way");
    // A time-out aborts the request, which the transport then reports as cancelled.
    if (outcome.timedOut)
        return QStringLiteral("no answer within 60 seconds");
    switch (outcome.errorCode) {
    case QNetworkReply::ConnectionRefusedError:
        return QStringLiteral("connection refused");
    case QNetworkReply::RemoteHostClosedError:
        return QStringLiteral("the service closed the connection before answering");
    case QNetworkReply::HostNotFoundError:
        return QStringLiteral("host name not found");
    case QNetworkReply::TimeoutError:
        return QStringLiteral("the connection timed out");
    case QNetworkReply::SslHandshakeFailedError:
        return QStringLiteral("the secure connection failed (certificate or TLS)");
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::UnknownNetworkError:
        return QStringLiteral("network failure");
    case QNetworkReply::ProtocolUnknownError:
        return QStringLiteral("the address is not an http:// or https:// URL");
    case QNetworkReply::ProxyConnectionRefusedError:
    case QNetworkReply::ProxyConnectionClosedError:
    case QNetworkReply::ProxyNotFoundError:
    case QNetworkReply::ProxyTimeoutError:
    case QNetworkReply::ProxyAuthenticationRequiredError:
    case QNetworkReply::UnknownProxyError:
        return QStringLiteral("the proxy failed");
    default:
        break;
    }
    if (outcome.errorCode >= 201 && outcome.errorCode <= 299)
        return QStringLiteral("the service refused the request");
    if (outcome.errorCode >= 401 && outcome.errorCode <= 499)
        return QStringLiteral("the service failed to answer (server error)");
    if (outcome.errorCode >= 300 && outcome.errorCode <= 399)
        return QStringLiteral("the service's answer broke the protocol");
    if (outcome.errorCode < 0)
        return QStringLiteral("no answer");
    return QStringLiteral("transport error");
}

QString RunWarnings::urlProblem(const QVariant& url)
{
    if (!url.isValid())
        return QStringLiteral("the setting KepWebServiceUrl is not set: give it with --set KepWebServiceUrl=URL "
                              "or in a --settings file");
    const QString text = url.toString().trimmed();
    if (text.isEmpty())
        return QStringLiteral("the setting KepWebServiceUrl is empty");
    const QString scheme = QUrl(text, QUrl::TolerantMode).scheme().toLower();
    if (scheme != QLatin1String("http") && scheme != QLatin1String("https"))
        return QStringLiteral("the setting KepWebServiceUrl \"%1\" does not start with http:// or https://").arg(text);
    return QString();
}

RunWarnings::RunWarnings(const QList<ProductOutcome>& outcomes, const QVariant& url, bool cancelLost)
{
    struct Cause
    {
        QString words;
        int failed = 0;
        int cached = 0;
    };
    QList<Cause> causes; // in the order they first happened
    QMap<QString, int> byKey;
    for (const ProductOutcome& outcome : outcomes) {
        if (outcome.source == QLatin1String("service"))
            continue;
        QString words = describe(outcome);
        if (reason_.isEmpty())
            reason_ = words;
        // One cause per kind of failure; the transport's text of its first product stands for all.
        const QString key = QStringLiteral("%1 %2").arg(outcome.timedOut ? -2 : outcome.errorCode).arg(words);
        if (outcome.errorCode >= 0 && !outcome.timedOut)
            words += QStringLiteral(" (error %1: %2)").arg(outcome.errorCode).arg(outcome.errorText);
        if (!byKey.contains(key)) {
            byKey.insert(key, causes.size());
            causes.append(Cause{words});
        }
        Cause& cause = causes[byKey.value(key)];
        ++cause.failed;
        if (outcome.source == QLatin1String("cache"))
            ++cause.cached;
    }
    incomplete_ = !causes.isEmpty();
    const QString address = url.isValid() ? QStringLiteral("at \"%1\"").arg(url.toString()) : QStringLiteral("(no address set)");
    for (const Cause& cause : causes) {
        lines_.append(prefix + QStringLiteral("%1 got no answer from the service %2: %3; %4 answered from the cache")
                                   .arg(productsOf(cause.failed, outcomes.size()), address, cause.words)
                                   .arg(cause.cached == 1 ? QStringLiteral("1 was") : QStringLiteral("%1 were").arg(cause.cached)));
    }
    const QString problem = urlProblem(url);
    if (incomplete_ && !problem.isEmpty())
        lines_.append(prefix + problem);
    if (cancelLost)
        lines_.append(prefix + QStringLiteral("the cancel came before the plug-in had started its run and was ignored"));
}
