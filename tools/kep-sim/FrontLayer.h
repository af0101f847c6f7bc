#pragma once

#include "AnswerFault.h"

#include <QByteArray>
#include <QHash>
#include <QSslCertificate>
#include <QSslKey>
#include <QTcpServer>

class QTcpSocket;

namespace KepSim {

// The listening side when HTTP itself has to misbehave or be encrypted: reads each request,
// passes it to the SOAP server behind it on loopback and hands the answer back, broken the
// way the fault says, over TLS when a certificate is set.
class FrontLayer : public QTcpServer
{
    Q_OBJECT
public:
    FrontLayer(const AnswerFault& fault, quint16 backendPort, QObject* parent = nullptr);

    // Serve HTTPS with this certificate chain (PEM, the server's first) and key; false with
    // *error set when either cannot be read.
    bool setTls(const QString& certificateFile, const QString& keyFile, QString* error);
    bool tls() const { return !chain_.isEmpty(); }

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    Q_DISABLE_COPY(FrontLayer)

    void readRequests(QTcpSocket* client);
    void forward(QTcpSocket* client, const QByteArray& request);
    void answer(QTcpSocket* client, const QByteArray& response);
    void trickle(QTcpSocket* client, const QByteArray& bytes);
    static void closeWithReset(QTcpSocket* client);
    // The length of the first whole HTTP message in bytes, or -1 while it is incomplete.
    static int messageLength(const QByteArray& bytes);

    AnswerFault fault_;
    quint16 backendPort_;
    QList<QSslCertificate> chain_;
    QSslKey key_;
    QHash<QTcpSocket*, QByteArray> pending_;
};

} // namespace KepSim
