#pragma once

#include <QByteArray>
#include <QList>
#include <QTcpServer>
#include <QUrl>

class QTcpSocket;

// An HTTP peer on 127.0.0.1 for the client tests: reads each whole request, records it and
// answers with canned bytes, or misbehaves as told. Port 0, so suites never collide.
class FakeHttpServer : public QTcpServer
{
    Q_OBJECT
public:
    // What happens once a whole request has arrived.
    enum class Ending {
        Close,    // write the answer, then close gracefully
        Reset,    // write the answer, then reset the connection (RST)
        Silent,   // never answer, keep the connection open
    };

    explicit FakeHttpServer(QObject* parent = nullptr);

    void setAnswer(const QByteArray& bytes, Ending ending = Ending::Close);
    QUrl url() const;

    QList<QByteArray> requests() const { return requests_; }
    QByteArray lastRequest() const { return requests_.isEmpty() ? QByteArray() : requests_.last(); }

    // A 200 answer carrying the body with its length.
    static QByteArray ok(const QByteArray& body, const QByteArray& contentType = "text/xml; charset=utf-8");
    // Header lines (name: value) of a raw request, in order, and its body.
    static QList<QPair<QByteArray, QByteArray>> headers(const QByteArray& request);
    static QByteArray body(const QByteArray& request);

signals:
    void requestReceived();

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void readFrom(QTcpSocket* socket);

    QByteArray answer_;
    Ending ending_ = Ending::Close;
    QList<QByteArray> requests_;
};
