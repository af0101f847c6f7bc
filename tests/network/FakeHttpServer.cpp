#include "FakeHttpServer.h"

#include <QTcpSocket>

#include <sys/socket.h>

FakeHttpServer::FakeHttpServer(QObject* parent)
    : QTcpServer(parent)
{
    if (!listen(QHostAddress::LocalHost, 0))
        qFatal("FakeHttpServer: cannot listen on 127.0.0.1: %s", qPrintable(errorString()));
}

void FakeHttpServer::setAnswer(const QByteArray& bytes, Ending ending)
{
    answer_ = bytes;
    ending_ = ending;
}

QUrl FakeHttpServer::url() const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1/kep").arg(serverPort()));
}

QByteArray FakeHttpServer::ok(const QByteArray& body, const QByteArray& contentType)
{
    return "HTTP/1.1 200 OK\r\nContent-Type: " + contentType + "\r\nContent-Length: "
        + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

QList<QPair<QByteArray, QByteArray>> FakeHttpServer::headers(const QByteArray& request)
{
    QList<QPair<QByteArray, QByteArray>> result;
    const int end = request.indexOf("\r\n\r\n");
    const QList<QByteArray> lines = request.left(end).split('\n');
    for (int i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i).trimmed();
        const int colon = line.indexOf(':');
        if (colon > 0)
            result.append({line.left(colon), line.mid(colon + 1).trimmed()});
    }
    return result;
}

QByteArray FakeHttpServer::body(const QByteArray& request)
{
    const int end = request.indexOf("\r\n\r\n");
    return end < 0 ? QByteArray() : request.mid(end + 4);
}

void FakeHttpServer::incomingConnection(qintptr descriptor)
{
    auto* socket = new QTcpSocket(this);
    socket->setSocketDescriptor(descriptor);
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readFrom(socket); });
}

void FakeHttpServer::readFrom(QTcpSocket* socket)
{
    // The bytes so far live on the socket until the request is whole.
    QByteArray pending = socket->property("pending").toByteArray() + socket->readAll();
    const int end = pending.indexOf("\r\n\r\n");
    if (end < 0) {
        socket->setProperty("pending", pending);
        return;
    }
    qint64 length = 0;
    for (const auto& header : headers(pending)) {
        if (header.first.toLower() == "content-length")
            length = header.second.toLongLong();
    }
    if (pending.size() < end + 4 + length) {
        socket->setProperty("pending", pending);
        return;
    }
    socket->setProperty("pending", QByteArray());
    requests_.append(pending);
    emit requestReceived();

    switch (ending_) {
    case Ending::Silent:
        return;
    case Ending::Close:
        socket->write(answer_);
        socket->disconnectFromHost();
        return;
    case Ending::Reset: {
        socket->write(answer_);
        socket->flush();
        // A zero linger time makes close() send RST instead of FIN.
        const linger hard{1, 0};
        ::setsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        socket->abort();
        return;
    }
    }
}
