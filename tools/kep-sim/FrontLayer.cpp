#include "FrontLayer.h"

#include <QFile>
#include <QHostAddress>
#include <QSslSocket>
#include <QTextStream>
#include <QTimer>

#include <memory>

#include <sys/socket.h>

namespace KepSim {

namespace {

const QByteArray headerEnd("\r\n\r\n");

QByteArray plainAnswer(const QByteArray& statusLine, const QByteArray& contentType, const QByteArray& body)
{
    return "HTTP/1.1 " + statusLine + "\r\nContent-Type: " + contentType + "\r\nContent-Length: "
        + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

// What a hotel or airport network answers instead of the service.
const QByteArray portalPage(
    "<!DOCTYPE html>\n<html><head><title>Welcome to GuestNet</title></head>\n"
    "<body><h1>Welcome to GuestNet</h1><p>Please accept the terms of use to access the internet.</p>\n"
    "<form method=\"post\" action=\"/login\"><input type=\"submit\" value=\"Accept\"></form></body></html>\n");

// The value of Content-Length in a header block, or -1.
int contentLength(const QByteArray& head)
{
    const QList<QByteArray> lines = head.split('\n');
    for (const QByteArray& line : lines) {
        const int colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == "content-length")
            return line.mid(colon + 1).trimmed().toInt();
    }
    return -1;
}

QByteArray withContentLength(const QByteArray& head, int length)
{
    QList<QByteArray> lines = head.split('\n');
    for (QByteArray& line : lines) {
        const int colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == "content-length")
            line = "Content-Length: " + QByteArray::number(length) + "\r";
    }
    return lines.join('\n');
}

} // namespace

FrontLayer::FrontLayer(const AnswerFault& fault, quint16 backendPort, QObject* parent)
    : QTcpServer(parent)
    , fault_(fault)
    , backendPort_(backendPort)
{
}

bool FrontLayer::setTls(const QString& certificateFile, const QString& keyFile, QString* error)
{
    chain_ = QSslCertificate::fromPath(certificateFile, QSsl::Pem);
    if (chain_.isEmpty()) {
        *error = QStringLiteral("no PEM certificate in %1").arg(certificateFile);
        return false;
    }
    QFile keyInput(keyFile);
    if (!keyInput.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(keyFile, keyInput.errorString());
        return false;
    }
    const QByteArray pem = keyInput.readAll();
    for (QSsl::KeyAlgorithm algorithm : {QSsl::Rsa, QSsl::Ec}) {
        key_ = QSslKey(pem, algorithm, QSsl::Pem);
        if (!key_.isNull())
            return true;
    }
    chain_.clear();
    *error = QStringLiteral("no RSA or EC private key in %1").arg(keyFile);
    return false;
}

void FrontLayer::incomingConnection(qintptr descriptor)
{
    QTcpSocket* client = nullptr;
    if (tls()) {
        auto* secure = new QSslSocket(this);
        if (secure->setSocketDescriptor(descriptor)) {
            secure->setLocalCertificateChain(chain_);
            secure->setPrivateKey(key_);
            // A client that refuses our certificate just goes away; say so for the person watching.
            connect(secure, qOverload<const QList<QSslError>&>(&QSslSocket::sslErrors), secure,
                    [](const QList<QSslError>& errors) {
                        QTextStream(stderr) << "kep-sim: TLS: " << errors.value(0).errorString() << Qt::endl;
                    });
            secure->startServerEncryption();
        }
        client = secure;
    } else {
        client = new QTcpSocket(this);
        client->setSocketDescriptor(descriptor);
    }
    connect(client, &QTcpSocket::readyRead, this, [this, client] { readRequests(client); });
    connect(client, &QTcpSocket::disconnected, this, [this, client] {
        pending_.remove(client);
        client->deleteLater();
    });
}

int FrontLayer::messageLength(const QByteArray& bytes)
{
    const int end = bytes.indexOf(headerEnd);
    if (end < 0)
        return -1;
    const int bodyStart = end + headerEnd.size();
    const int length = qMax(0, contentLength(bytes.left(end)));
    return bytes.size() - bodyStart >= length ? bodyStart + length : -1;
}

void FrontLayer::readRequests(QTcpSocket* client)
{
    QByteArray& buffer = pending_[client];
    buffer += client->readAll();
    int length = 0;
    while ((length = messageLength(buffer)) >= 0) {
        const QByteArray request = buffer.left(length);
        buffer.remove(0, length);
        switch (fault_.kind) {
        case AnswerFault::Hang:
            break; // the connection stays open until the client gives up
        case AnswerFault::Http500:
            answer(client, plainAnswer("500 Internal Server Error", "text/plain; charset=utf-8",
                                       "kep-sim: internal server error (injected)\n"));
            break;
        case AnswerFault::Html:
            answer(client, plainAnswer("200 OK", "text/html; charset=utf-8", portalPage));
            break;
        default:
            forward(client, request);
        }
    }
}

void FrontLayer::forward(QTcpSocket* client, const QByteArray& request)
{
    auto* backend = new QTcpSocket(client);
    auto response = std::make_shared<QByteArray>();
    auto finish = [this, client, backend, response](bool complete) {
        if (backend->property("done").toBool())
            return;
        backend->setProperty("done", true);
        if (complete || !response->isEmpty())
            answer(client, *response);
        backend->deleteLater();
    };
    connect(backend, &QTcpSocket::connected, backend, [backend, request] { backend->write(request); });
    connect(backend, &QTcpSocket::readyRead, backend, [backend, response, finish] {
        *response += backend->readAll();
        const int length = messageLength(*response);
        if (length >= 0) {
            response->truncate(length);
            finish(true);
        }
    });
    connect(backend, &QTcpSocket::disconnected, backend, [finish] { finish(false); });
    connect(backend, &QAbstractSocket::errorOccurred, backend, [finish](QAbstractSocket::SocketError error) {
        if (error != QAbstractSocket::RemoteHostClosedError)
            finish(false);
    });
    backend->connectToHost(QHostAddress::LocalHost, backendPort_);
}

void FrontLayer::answer(QTcpSocket* client, const QByteArray& response)
{
    const int end = response.indexOf(headerEnd);
    const QByteArray head = end < 0 ? response : response.left(end);
    const QByteArray body = end < 0 ? QByteArray() : response.mid(end + headerEnd.size());
    switch (fault_.kind) {
    case AnswerFault::Reset:
        client->write(head + headerEnd + body.left(body.size() / 2));
        client->flush();
        // Give the half body time to reach the peer; a reset drops what is still queued.
        QTimer::singleShot(200, client, [client] { closeWithReset(client); });
        return;
    case AnswerFault::Truncated:
        client->write(withContentLength(head, body.size() + 4096) + headerEnd + body);
        client->disconnectFromHost();
        return;
    case AnswerFault::Trickle:
        client->write(head + headerEnd);
        trickle(client, body);
        return;
    default:
        client->write(response);
        if (response.contains("\r\nConnection: close\r\n"))
            client->disconnectFromHost();
    }
}

void FrontLayer::trickle(QTcpSocket* client, const QByteArray& bytes)
{
    auto* timer = new QTimer(client);
    timer->setInterval(100);
    auto sent = std::make_shared<int>(0);
    connect(timer, &QTimer::timeout, client, [client, timer, bytes, sent] {
        client->write(bytes.mid((*sent)++, 1));
        if (*sent >= bytes.size())
            timer->deleteLater();
    });
    timer->start();
}

void FrontLayer::closeWithReset(QTcpSocket* client)
{
    // A zero linger time makes the close send RST instead of FIN.
    const linger hard{1, 0};
    ::setsockopt(int(client->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    client->abort();
}

} // namespace KepSim
