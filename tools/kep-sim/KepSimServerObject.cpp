#include "KepSimServerObject.h"

#include <QAbstractSocket>
#include <QElapsedTimer>
#include <QMessageAuthenticationCode>
#include <QPointer>
#include <QTextStream>
#include <QTimer>

namespace KepSim {

namespace {

// The service's copy of the clients' authentication key.
const QByteArray authKey = QByteArray::fromHex(
    "a10d225f5c8c4624cdbe3edf1babdefa8178df5cfaad440c20c9bbcb1958cbd7"
    "f9a5a2a6415858bbc39e5063022f3deba2990419d7bdcd1dcec98df73a221ddb");

QString childText(const KDSoapValue& parent, const char* name)
{
    return parent.childValues().child(QLatin1String(name)).value().toString();
}

} // namespace

const QString KepSimServerObject::serviceNamespace = QStringLiteral("urn:vasko:kep:registration:1");

KepSimServerObject::KepSimServerObject(const FixtureStore& fixtures, int delayMs, const AnswerFault& fault)
    : fixtures_(fixtures)
    , delayMs_(delayMs)
    , fault_(fault)
{
}

QString KepSimServerObject::passwordFor(const QString& login)
{
    const QByteArray message(login.toUtf8().constData());
    return QString::fromLatin1(
        QMessageAuthenticationCode::hash(message, authKey, QCryptographicHash::Sha256).toHex());
}

QString KepSimServerObject::answerText(const KDSoapMessage& request, QString* note)
{
    const KDSoapMessage auth = requestHeaders().header(QStringLiteral("AuthHeader"));
    const QString login = childText(auth, "Login");
    const QString password = childText(auth, "Password");
    const QString mediaId = childText(request, "mediaID");
    const QString updateId = childText(request, "updateID");
    const bool withTestUpdates = childText(request, "showTestUpdate") == QLatin1String("y");

    *note = QStringLiteral("mediaID=\"%1\" updateID=\"%2\" showTestUpdate=\"%3\"")
                .arg(mediaId, updateId, withTestUpdates ? QStringLiteral("y") : QStringLiteral("n"));
    if (login.isEmpty() || login != mediaId || password != passwordFor(login)) {
        *note += QStringLiteral(" -> [10] bad credentials");
        return QStringLiteral("[10] Authentication failed for login \"%1\"").arg(login);
    }
    if (!fixtures_.hasMedia(mediaId)) {
        *note += QStringLiteral(" -> [326] unknown media");
        return QStringLiteral("[326] Media id \"%1\" is not registered").arg(mediaId);
    }
    QString error;
    QString file;
    const QString xml = fixtures_.productXml(mediaId, updateId, withTestUpdates, &error, &file);
    if (xml.isNull()) {
        *note += QStringLiteral(" -> fault: ") + error;
        setFault(QStringLiteral("Server.Fixture"), error);
        return QString();
    }
    *note += QStringLiteral(" -> ") + file;
    return xml;
}

void KepSimServerObject::processRequest(const KDSoapMessage& request, KDSoapMessage& response,
                                        const QByteArray& soapAction)
{
    if (request.name() != QLatin1String("GetTAVProductInfo")) {
        KDSoapServerObjectInterface::processRequest(request, response, soapAction);
        return;
    }
    QElapsedTimer clock;
    clock.start();
    QString note;
    QString text = answerText(request, &note);
    if (fault_.kind == AnswerFault::SoapFault) {
        // The fault alone: any argument set here would end up inside the Fault element.
        QTextStream(stderr) << "kep-sim: " << note << " -> injected SOAP fault" << Qt::endl;
        setFault(QStringLiteral("Server"), QStringLiteral("kep-sim: injected fault"));
        return;
    }
    if (fault_.kind == AnswerFault::ServiceCode) {
        note += QStringLiteral(" -> injected ") + fault_.serviceText;
        text = fault_.serviceText;
    }

    setResponseNamespace(serviceNamespace);
    KDSoapMessage answer;
    answer = KDSoapValue(QStringLiteral("GetTAVProductInfoResponse"), QVariant());
    answer.addArgument(QStringLiteral("GetTAVProductInfoResult"), text);

    QTextStream(stderr) << "kep-sim: " << note << " (" << QString::number(clock.nsecsElapsed() / 1e6, 'f', 3)
                        << " ms)" << Qt::endl;

    if (delayMs_ <= 0 || hasFault()) {
        response = answer;
        return;
    }
    // Delayed on the event loop, so a slow answer never holds up other connections. A client
    // may go away meanwhile: the SOAP server library asserts when it cannot write the answer's
    // header to a closed socket, and its handle does not follow a deleted one, so the answer
    // goes only to a socket that is still there and connected.
    const KDSoapDelayedResponseHandle handle = prepareDelayedResponse();
    const QPointer<QAbstractSocket> socket = serverSocket();
    QTimer::singleShot(delayMs_, this, [this, handle, answer, socket] {
        if (socket && socket->state() == QAbstractSocket::ConnectedState)
            sendDelayedResponse(handle, answer);
        else
            QTextStream(stderr) << "kep-sim: the client went away before the delayed answer" << Qt::endl;
    });
}

} // namespace KepSim
