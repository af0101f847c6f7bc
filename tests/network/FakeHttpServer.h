#pragma once

#include "tavcore/SettingsManager.h"

#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>

#include <functional>
#include <sys/socket.h>

// An HTTP peer on 127.0.0.1, port 0: reads each whole request, records it and answers with
// canned bytes, then closes or resets the connection, or stays silent before or after answering.
class FakeHttpServer : public QTcpServer
{
public:
    enum Ending { Close, Reset, Silent, Stall };
    explicit FakeHttpServer(const QByteArray& answer = {}, Ending ending = Close) : answer_(answer), ending_(ending)
    {
        listen(QHostAddress::LocalHost, 0);
    }
    QString url() const { return QStringLiteral("http://127.0.0.1:%1/kep").arg(serverPort()); }
    static QByteArray ok(const QByteArray& body, const QByteArray& status = "200 OK")
    {
        return "HTTP/1.1 " + status + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
    }
    static void useService(const QString& url)
    {
        TavCoreShared::TavSettings::SettingsManager::instance()->setProperty("KepWebServiceUrl", url);
    }

    QList<QByteArray> requests;
    std::function<void()> onRequest = [] {};
    // More of the body after the canned bytes, as the peer takes it, until it gives nothing.
    std::function<QByteArray()> more;

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto* socket = new QTcpSocket(this);
        socket->setSocketDescriptor(descriptor);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
            // The bytes so far stay on the socket until the request is whole.
            const QByteArray pending = socket->property("pending").toByteArray() + socket->readAll();
            socket->setProperty("pending", pending);
            const int end = pending.indexOf("\r\n\r\n");
            static const QRegularExpression length(QStringLiteral("(?i)\ncontent-length: *(\\d+)"));
            if (end < 0 || pending.size() < end + 4 + length.match(pending.left(end)).captured(1).toInt())
                return;
            requests.append(pending);
            onRequest();
            if (ending_ == Silent)
                return;
            socket->write(answer_);
            if (more)
                return stream(socket);
            if (ending_ == Stall)
                return;
            if (ending_ == Close)
                return socket->disconnectFromHost();
            socket->flush();
            const linger hard{1, 0}; // a zero linger time makes the close send RST
            ::setsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
            socket->abort();
        });
    }

private:
    // Keeps about a megabyte queued, so that an endless body costs this process nothing.
    void stream(QTcpSocket* socket)
    {
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QTcpSocket::bytesWritten, socket, [this, socket] {
            while (socket->state() == QAbstractSocket::ConnectedState && socket->bytesToWrite() < (1 << 20)) {
                const QByteArray piece = more();
                if (piece.isEmpty())
                    return socket->disconnectFromHost();
                socket->write(piece);
            }
        });
    }

    QByteArray answer_;
    Ending ending_;
};
