#include "Compressed.h"
#include "tavcore/NetworkAccessManager.h"

#include <QNetworkReply>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>
#include <QtTest>

#include <functional>
#include <malloc.h>
#include <thread>

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <zlib.h>

using TavCoreShared::Network::NetworkAccessManager;

namespace {

QByteArray answer(const QByteArray& body, const QByteArray& head = "HTTP/1.1 200 OK")
{
    return head + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

QStringList tavCoreLines;
QtMessageHandler otherLines = nullptr;
void keepTavCoreLines(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (text.startsWith("TavCore: network"))
        tavCoreLines << text;
    else if (otherLines)
        otherLines(type, context, text);
}

// A loopback HTTP(S) peer: gathers each whole request, counts connections and the TCP data
// segments each request came in, and lets the test decide how to answer.
class Peer : public QTcpServer
{
public:
    explicit Peer(const QHostAddress& address = QHostAddress::LocalHost) { listen(address, 0); }
    QString url(const QString& scheme = "http") const
    {
        const QString host = serverAddress().protocol() == QAbstractSocket::IPv6Protocol ? "[::1]" : "127.0.0.1";
        return QString("%1://%2:%3/kep").arg(scheme, host).arg(serverPort());
    }
    void useTls(const QString& certificate, const QString& key)
    {
        chain_ = QSslCertificate::fromPath(certificate);
        QFile file(key);
        file.open(QIODevice::ReadOnly);
        key_ = QSslKey(file.readAll(), QSsl::Rsa);
    }

    std::function<void(QTcpSocket*, const QByteArray&)> onRequest = [](QTcpSocket* socket, const QByteArray&) {
        socket->write(answer("fine"));
    };
    std::function<void(QTcpSocket*)> onHeadOnly = [](QTcpSocket*) {};
    QList<QByteArray> requests;
    QList<int> segments; // data segments each request arrived in
    int connections = 0;

protected:
    void incomingConnection(qintptr descriptor) override
    {
        ++connections;
        QTcpSocket* socket = chain_.isEmpty() ? new QTcpSocket(this) : new QSslSocket(this);
        socket->setSocketDescriptor(descriptor);
        if (auto* tls = qobject_cast<QSslSocket*>(socket)) {
            tls->setLocalCertificateChain(chain_);
            tls->setPrivateKey(key_);
            tls->startServerEncryption();
        }
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }

private:
    static int dataSegmentsIn(QTcpSocket* socket)
    {
        tcp_info info{};
        socklen_t size = sizeof info;
        getsockopt(int(socket->socketDescriptor()), IPPROTO_TCP, TCP_INFO, &info, &size);
        return int(info.tcpi_data_segs_in);
    }
    void read(QTcpSocket* socket)
    {
        QByteArray pending = socket->property("pending").toByteArray() + socket->readAll();
        const int end = pending.indexOf("\r\n\r\n");
        if (end >= 0 && !socket->property("headSeen").toBool()) {
            socket->setProperty("headSeen", true);
            onHeadOnly(socket);
        }
        static const QRegularExpression length("(?i)\ncontent-length: *(\\d+)");
        if (end < 0 || pending.size() < end + 4 + length.match(pending.left(end)).captured(1).toInt())
            return void(socket->setProperty("pending", pending));
        socket->setProperty("pending", QByteArray());
        socket->setProperty("headSeen", false);
        const int seen = dataSegmentsIn(socket);
        segments << seen - socket->property("segments").toInt();
        socket->setProperty("segments", seen);
        requests << pending;
        onRequest(socket, pending);
    }

    QList<QSslCertificate> chain_;
    QSslKey key_;
};

void closeWithReset(QTcpSocket* socket)
{
    socket->flush();
    const linger hard{1, 0};
    setsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    socket->abort();
}

struct Outcome
{
    int error;
    QString text;
    QByteArray body;
    int finished;
};

// Posts a small envelope, waits for finished() and reads what the reply holds.
Outcome post(const QString& url, const QByteArray& body = "<x/>")
{
    QNetworkRequest request{QUrl(url)};
    request.setHeader(QNetworkRequest::ContentTypeHeader, "text/xml;charset=utf-8");
    QNetworkReply* reply = NetworkAccessManager::instance()->post(request, body);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!reply->isFinished())
        finished.wait(20000);
    reply->deleteLater();
    return {int(reply->error()), reply->errorString(), reply->readAll(), finished.count()};
}

} // namespace

Q_DECLARE_METATYPE(std::function<void(QTcpSocket*, const QByteArray&)>)
using Answer = std::function<void(QTcpSocket*, const QByteArray&)>;

// The host's network access manager carrying http and https: what reaches the wire, how each
// kind of answer and failure reads through QNetworkReply, aborts in every phase, and TLS.
class TestTransport : public QObject
{
    Q_OBJECT
    QTemporaryDir certs_;

private slots:
    void initTestCase()
    {
        otherLines = qInstallMessageHandler(keepTavCoreLines);
        if (QProcess::execute("openssl", {"version"}) == 0)
            QCOMPARE(QProcess::execute(KEP_CERTS_SCRIPT, {certs_.path()}), 0);
    }

    // Each kind of answer ends in one error code and text, with the body the reader gets.
    void answers_data()
    {
        QTest::addColumn<Answer>("respond");
        QTest::addColumn<int>("error");
        QTest::addColumn<QString>("text"); // %1: the URL, %2: the host
        QTest::addColumn<QByteArray>("body");
        const QByteArray text = QByteArray("<product_info>") + QByteArray(20000, 'u') + "</product_info>";
        const QByteArray gzip = compressed(text, true), zlib = compressed(text, false);
        auto send = [](const QByteArray& bytes, bool close = true) {
            return Answer([bytes, close](QTcpSocket* socket, const QByteArray&) {
                socket->write(bytes);
                if (close)
                    socket->disconnectFromHost();
            });
        };
        const QString closed = "Connection closed";
        auto row = [](const char* name, const Answer& respond, int error, const QString& text, const QByteArray& body) {
            QTest::newRow(name) << respond << error << text << body;
        };
        row("plain", send(answer(text), false), 0, "", text);
        row("chunked", send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n<abc>\r\n3\r\ndef\r\n0\r\n\r\n", false),
            0, "", "<abc>def");
        row("gzip", send(answer(gzip, "HTTP/1.1 200 OK\r\nContent-Encoding: gzip"), false), 0, "", text);
        row("deflate", send(answer(zlib, "HTTP/1.1 200 OK\r\nContent-Encoding: deflate"), false), 0, "", text);
        row("interim 100 before the answer", send("HTTP/1.1 100 Continue\r\n\r\n" + answer("after")), 0, "", "after");
        row("plain body cut short", send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n<r>"), 2, closed, "<r>");
        row("chunked body cut short", send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n<abc>\r\n"), 2, closed,
            "<abc>");
        // Half a gzip stream read whole by its Content-Length would inflate to a plausible prefix.
        row("gzip cut short, length announced",
            send("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " + QByteArray::number(gzip.size()) + "\r\n\r\n"
                 + gzip.left(gzip.size() / 2)), 2, closed, {});
        row("gzip cut short, connection end as its end",
            send("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nConnection: close\r\n\r\n" + gzip.left(gzip.size() - 8)), 2,
            "Connection closed before the end of the compressed answer", {});
        QByteArray corrupt = gzip;
        corrupt[corrupt.size() / 2] = char(corrupt[corrupt.size() / 2] ^ 0x55);
        row("gzip corrupt", send(answer(corrupt, "HTTP/1.1 200 OK\r\nContent-Encoding: gzip"), false), 399,
            "Decompression failed: the compressed answer is corrupt", {});
        row("redirect not followed", send(answer("moved", "HTTP/1.1 301 Moved Permanently\r\nLocation: http://127.0.0.1:1/x")),
            0, "", "moved");
        row("HTTP 500 keeps its body", send(answer("oops", "HTTP/1.1 500 Internal Server Error")), 401,
            "Error transferring %1 - server replied: Internal Server Error", "oops");
        row("HTTP 404", send(answer("", "HTTP/1.1 404 Not Found")), 203, "Error transferring %1 - server replied: Not Found", "");
        row("HTTP 418", send(answer("", "HTTP/1.1 418 I'm a teapot")), 302,
            "Error transferring %1 - server replied: I'm a teapot", "");
        row("HTTP 502", send(answer("", "HTTP/1.1 502 Bad Gateway")), 499, "Error transferring %1 - server replied: Bad Gateway", "");
        QByteArray headers = "HTTP/1.1 200 OK\r\n";
        while (headers.size() < (300 << 10))
            headers += "X-Pad: " + QByteArray(1000, 'p') + "\r\n";
        row("headers beyond bound", send(headers + "Content-Length: 2\r\n\r\nok"), 399, "The answer's headers exceed 256 KB", "");
        row("closed without a word", send({}), 2, closed, "");
        row("not HTTP at all", send("SSH-2.0-OpenSSH_9.2\r\n\r\n"), 2, closed, "");
        row("reset before the answer", [](QTcpSocket* socket, const QByteArray&) { closeWithReset(socket); }, 2, closed, "");
        row("refused", nullptr, 1, "Connection refused", "");
        // Asked in a network namespace of its own, so that the resolver's question cannot leave the machine.
        row("unknown host", nullptr, 3, "Host %2 not found", "");
    }
    void answers()
    {
        QFETCH(Answer, respond);
        QFETCH(QString, text);
        Peer peer;
        if (respond)
            peer.onRequest = respond;
        const QString unknownHost = "kep-sim.invalid";
        QString url = respond ? peer.url() : Peer().url(); // a port nobody listens on any more
        if (QTest::currentDataTag() == QByteArray("unknown host")) {
            if (!qEnvironmentVariableIsSet("KEP_NET_ISOLATED")) {
                if (QProcess::execute("unshare", {"--net", "true"}) != 0)
                    QSKIP("unshare --net is not permitted here");
                QProcess child;
                child.setProcessChannelMode(QProcess::ForwardedChannels);
                child.start("unshare", {"--net", "env", "KEP_NET_ISOLATED=1", QCoreApplication::applicationFilePath(),
                                        "answers:unknown host"});
                QVERIFY(child.waitForFinished(60000));
                QCOMPARE(child.exitCode(), 0);
                return;
            }
            url = "http://" + unknownHost + "/kep";
        }
        const Outcome got = post(url);
        QFETCH(QByteArray, body);
        QCOMPARE(got.finished, 1);
        QTEST(got.error, "error");
        QCOMPARE(got.text, got.error ? text.replace("%1", url).replace("%2", unknownHost) : QString("Unknown error"));
        if (!body.isNull()) // null: whatever was decoded before the failure
            QCOMPARE(got.body, body);
        QVERIFY(peer.requests.size() <= 1); // never a second request: no redirect followed, no retry
    }

    // The request leaves in one write: each one arrives as a single TCP data segment, on a
    // connection kept across requests (a transport that writes header and body apart shows two).
    void oneWrite_data()
    {
        QTest::addColumn<bool>("ours");
        QTest::addColumn<int>("segments");
        QTest::newRow("the transport") << true << 1;
        QTest::newRow("a client writing header and body apart") << false << 2;
    }
    void oneWrite()
    {
        QFETCH(bool, ours);
        Peer peer;
        const QByteArray body = "<soap:Envelope>" + QByteArray(900, 'e') + "</soap:Envelope>";
        QTcpSocket twoWrites;
        for (int i = 0; i < 4; ++i) {
            if (ours) {
                QCOMPARE(post(peer.url(), body).error, 0);
                continue;
            }
            if (i == 0) {
                twoWrites.connectToHost(QHostAddress::LocalHost, peer.serverPort());
                QVERIFY(twoWrites.waitForConnected(5000));
            }
            peer.onHeadOnly = [&](QTcpSocket*) { twoWrites.write(body); };
            twoWrites.write("POST /kep HTTP/1.1\r\nHost: x\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n");
            QTRY_COMPARE(peer.requests.size(), i + 1);
        }
        QFETCH(int, segments);
        QCOMPARE(peer.connections, 1);
        QCOMPARE(peer.segments, QList<int>() << segments << segments << segments << segments);
    }

    // A kept-alive peer serves every request on one connection; one that closes after each
    // answer gets a new connection per request, and every answer still arrives.
    void connectionReuse_data()
    {
        QTest::addColumn<bool>("peerCloses");
        QTest::addColumn<int>("connections");
        QTest::newRow("kept alive") << false << 1;
        QTest::newRow("closed after each answer") << true << 5;
    }
    void connectionReuse()
    {
        QFETCH(bool, peerCloses);
        Peer peer;
        peer.onRequest = [peerCloses](QTcpSocket* socket, const QByteArray&) {
            socket->write(answer("fine", peerCloses ? "HTTP/1.1 200 OK\r\nConnection: close" : "HTTP/1.1 200 OK"));
            if (peerCloses)
                socket->disconnectFromHost();
        };
        for (int i = 0; i < 5; ++i)
            QCOMPARE(post(peer.url()).body, QByteArray("fine"));
        QTEST(peer.connections, "connections");
    }

    // abort() in every phase, also from a slot of readyRead and queued from another thread (as a
    // host's cancel arrives): Qt's error and text, finished() once, nothing left to read, and the
    // next request on the same manager works.
    void abortInEveryPhase_data()
    {
        QTest::addColumn<QString>("phase");
        for (const char* phase : {"before the event loop runs", "sending", "waiting", "reading, from readyRead",
                                  "waiting, queued from another thread", "after finished"})
            QTest::newRow(phase) << phase;
    }
    void abortInEveryPhase()
    {
        QFETCH(QString, phase);
        Peer peer;
        const auto answerFine = peer.onRequest;
        QByteArray body = "<x/>";
        if (phase == "sending") // more than the socket buffers take while the peer does not read
            body = QByteArray(64 << 20, 's');
        peer.onRequest = [phase](QTcpSocket* socket, const QByteArray&) {
            if (phase.startsWith("reading"))
                socket->write("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\nfirst part");
            else if (phase == "after finished")
                socket->write(answer("whole"));
        };
        QNetworkRequest request{QUrl(peer.url())};
        QNetworkReply* reply = NetworkAccessManager::instance()->post(request, body);
        QSignalSpy finished(reply, &QNetworkReply::finished);
        QSignalSpy errors(reply, &QNetworkReply::errorOccurred);
        if (phase == "sending") {
            connect(&peer, &QTcpServer::newConnection, reply, [&] {
                QTimer::singleShot(50, reply, &QNetworkReply::abort); // the sender is stuck by now
            });
        } else if (phase.startsWith("reading")) {
            connect(reply, &QNetworkReply::readyRead, reply, &QNetworkReply::abort);
        } else if (phase == "waiting") {
            peer.onRequest = [reply](QTcpSocket*, const QByteArray&) { reply->abort(); };
        } else if (phase.contains("another thread")) {
            peer.onRequest = [reply](QTcpSocket*, const QByteArray&) {
                std::thread([reply] { QMetaObject::invokeMethod(reply, &QNetworkReply::abort, Qt::QueuedConnection); }).join();
            };
        } else if (phase.startsWith("before")) {
            reply->abort();
        }
        if (finished.isEmpty())
            QVERIFY(finished.wait(20000));
        if (phase == "after finished") {
            reply->abort(); // too late: changes nothing
            QCOMPARE(reply->error(), QNetworkReply::NoError);
            QCOMPARE(reply->readAll(), QByteArray("whole"));
        } else {
            QCOMPARE(reply->error(), QNetworkReply::OperationCanceledError);
            QCOMPARE(reply->errorString(), QString("Operation canceled"));
            QCOMPARE(errors.count(), 1);
            QCOMPARE(reply->readAll(), QByteArray());
            reply->abort(); // twice: harmless
        }
        // The manager goes on; by the time the next answer is in, a stray signal would be too.
        peer.onRequest = answerFine;
        QCOMPARE(post(peer.url()).body, QByteArray("fine"));
        QCOMPARE(finished.count(), 1);
        delete reply;
    }

    // Data reach the reader as they arrive, and a compressed answer that inflates enormously
    // comes in small pieces, so a reader with a bound can refuse it before it fills the memory.
    void dataArriveInPieces_data()
    {
        QTest::addColumn<QByteArray>("encoding");
        QTest::newRow("plain, the rest held back by the peer") << QByteArray();
        QTest::newRow("gzip bomb, 64 MB of zeros") << QByteArray("gzip");
    }
    void dataArriveInPieces()
    {
        QFETCH(QByteArray, encoding);
        Peer peer;
        const QByteArray bomb = encoding.isEmpty() ? QByteArray() : compressed(QByteArray(64 << 20, '\0'), true);
        QTcpSocket* held = nullptr;
        peer.onRequest = [&](QTcpSocket* socket, const QByteArray&) {
            if (!bomb.isEmpty())
                return void(socket->write(answer(bomb, "HTTP/1.1 200 OK\r\nContent-Encoding: gzip")));
            socket->write("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nfirst");
            held = socket;
        };
        QNetworkReply* reply = NetworkAccessManager::instance()->post(QNetworkRequest(QUrl(peer.url())), QByteArray("<x/>"));
        qint64 read = 0, largestPiece = 0;
        QByteArray got;
        connect(reply, &QNetworkReply::readyRead, reply, [&] {
            largestPiece = qMax(largestPiece, reply->bytesAvailable());
            got = reply->readAll();
            read += got.size();
            if (read > (4 << 20)) // the reader's bound
                reply->abort();
        });
        QSignalSpy finished(reply, &QNetworkReply::finished);
        if (bomb.isEmpty()) {
            QTRY_COMPARE(got, QByteArray("first")); // before the rest exists
            QVERIFY(finished.isEmpty());
            held->write("end");
        }
        QVERIFY(finished.count() == 1 || finished.wait(20000));
        QCOMPARE(reply->error(), bomb.isEmpty() ? QNetworkReply::NoError : QNetworkReply::OperationCanceledError);
        QVERIFY2(largestPiece <= 64 * 1024, qPrintable(QString::number(largestPiece)));
        QVERIFY(read < (5 << 20));
        delete reply;
    }

    // A finished reply that its reader keeps (as many hosts keep theirs until they go) holds its
    // answer and headers, not libcurl's transfer: handle, buffers, request body, inflater.
    void finishedReplyHoldsNoTransfer_data()
    {
        QTest::addColumn<bool>("gzip");
        QTest::addColumn<bool>("aborted");
        QTest::newRow("plain") << false << false;
        QTest::newRow("gzip") << true << false;
        QTest::newRow("aborted while waiting") << false << true;
    }
    void finishedReplyHoldsNoTransfer()
    {
        QFETCH(bool, gzip);
        QFETCH(bool, aborted);
        Peer peer;
        const QByteArray text = "<product_info>" + QByteArray(6000, 'u') + "</product_info>";
        peer.onRequest = [&](QTcpSocket* socket, const QByteArray&) {
            if (!aborted)
                socket->write(gzip ? answer(compressed(text, true), "HTTP/1.1 200 OK\r\nContent-Encoding: gzip") : answer(text));
        };
        const QByteArray envelope = "<soap:Envelope>" + QByteArray(2000, 'e') + "</soap:Envelope>";
        if (mallinfo2().uordblks == 0)
            QSKIP("this allocator does not tell its heap use");
        // The first one sets up the connection, the name and libcurl's own first-use state.
        const int kept = 40;
        size_t before = 0;
        for (int i = 0; i <= kept; ++i) {
            if (i == 1) {
                QCoreApplication::processEvents();
                before = mallinfo2().uordblks;
            }
            peer.requests.clear(); // the peer's own copies are not the reply's
            QNetworkReply* reply = NetworkAccessManager::instance()->post(QNetworkRequest(QUrl(peer.url())), envelope);
            QSignalSpy finished(reply, &QNetworkReply::finished);
            if (aborted) {
                QTRY_COMPARE(peer.requests.size(), 1);
                reply->abort();
            }
            QVERIFY(finished.count() == 1 || finished.wait(20000));
            if (!aborted)
                QCOMPARE(reply->readAll().size(), text.size());
        }
        QCoreApplication::processEvents();
        const qint64 perReply = (qint64(mallinfo2().uordblks) - qint64(before)) / kept;
        // Qt's reply with its headers and the posted body is ~4 KB; libcurl's handle adds ~9 KB, an inflater ~8 KB.
        QVERIFY2(perReply < 8 * 1024, qPrintable(QString("%1 bytes a kept reply").arg(perReply)));
        qDeleteAll(NetworkAccessManager::instance()->findChildren<QNetworkReply*>());
    }

    // Certificates are checked against the system's CAs and those added to Qt's default TLS
    // configuration (as tav-host --ca-file does); a refused handshake says why in its own line.
    void tls_data()
    {
        QTest::addColumn<QString>("certificate");
        QTest::addColumn<bool>("caGiven");
        QTest::addColumn<bool>("ipv6"); // a name the certificate does not carry
        QTest::addColumn<QString>("reason");
        QTest::newRow("trusted") << "server" << true << false << "";
        QTest::newRow("CA not given") << "server" << false << false << "unable to get local issuer certificate";
        QTest::newRow("expired") << "expired" << true << false << "certificate has expired";
        QTest::newRow("self-signed") << "selfsigned" << true << false << "self-signed certificate";
        QTest::newRow("wrong host name") << "server" << true << true << "no alternative certificate subject name matches";
    }
    void tls()
    {
        QFETCH(QString, certificate);
        QFETCH(bool, caGiven);
        QFETCH(bool, ipv6);
        QFETCH(QString, reason);
        if (!QFile::exists(certs_.filePath("ca.pem")))
            QSKIP("the openssl command is needed to make the test certificates");
        Peer peer(ipv6 ? QHostAddress::LocalHostIPv6 : QHostAddress::LocalHost);
        if (!peer.isListening())
            QSKIP("no IPv6 loopback here");
        peer.useTls(certs_.filePath(certificate + ".pem"), certs_.filePath(certificate == "selfsigned" ? "selfsigned.key" : "server.key"));
        const QSslConfiguration before = QSslConfiguration::defaultConfiguration();
        QSslConfiguration tls = before;
        if (caGiven)
            QVERIFY(tls.addCaCertificates(certs_.filePath("ca.pem")));
        QSslConfiguration::setDefaultConfiguration(tls);
        tavCoreLines.clear();
        const Outcome got = post(peer.url("https"));
        QSslConfiguration::setDefaultConfiguration(before);
        if (reason.isEmpty()) {
            QCOMPARE(got.body, QByteArray("fine"));
            QVERIFY2(tavCoreLines.isEmpty(), qPrintable(tavCoreLines.join('\n')));
            return;
        }
        QCOMPARE(got.error, int(QNetworkReply::SslHandshakeFailedError));
        QCOMPARE(got.text, QString("SSL handshake failed"));
        QCOMPARE(tavCoreLines.size(), 1);
        const QString prefix = QString("TavCore: network: TLS handshake with %1:%2 failed: ")
                                   .arg(ipv6 ? "::1" : "127.0.0.1").arg(peer.serverPort());
        QVERIFY2(tavCoreLines[0].startsWith(prefix) && tavCoreLines[0].contains(reason), qPrintable(tavCoreLines[0]));
    }

    // A proxy named in the environment carries the request (the target's name is never looked up).
    void proxyFromEnvironment()
    {
        Peer proxy;
        qputenv("http_proxy", proxy.url().toUtf8());
        const Outcome got = post("http://kep.example.invalid/service");
        qunsetenv("http_proxy");
        QCOMPARE(got.body, QByteArray("fine"));
        QCOMPARE(proxy.requests.size(), 1);
        QVERIFY2(proxy.requests[0].startsWith("POST http://kep.example.invalid/service HTTP/1.1\r\n"),
                 qPrintable(proxy.requests[0].left(200)));
    }

    // What the plug-in and the host read besides the body: the request as it was (its cache key
    // attribute), status, reason, raw and known headers, the unfollowed redirect's target.
    void replyMetaData()
    {
        Peer peer;
        peer.onRequest = [](QTcpSocket* socket, const QByteArray&) {
            socket->write(answer("moved", "HTTP/1.1 302 Found\r\nLocation: /elsewhere\r\nX-Seen: a\r\nX-Seen: b\r\n"
                                          "Content-Type: text/xml"));
        };
        QNetworkRequest request{QUrl(peer.url())};
        request.setAttribute(QNetworkRequest::User, "gtpi__1_M");
        // Large enough for libcurl to ask for "100 Continue" first, unless told not to.
        QNetworkReply* reply = NetworkAccessManager::instance()->post(request, QByteArray(2 << 20, 'b'));
        QSignalSpy metaData(reply, &QNetworkReply::metaDataChanged);
        QVERIFY(QSignalSpy(reply, &QNetworkReply::finished).wait(20000));
        QCOMPARE(metaData.count(), 1);
        QCOMPARE(reply->request().attribute(QNetworkRequest::User).toString(), QString("gtpi__1_M"));
        QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 302);
        QCOMPARE(reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toByteArray(), QByteArray("Found"));
        QCOMPARE(reply->attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl(), QUrl("/elsewhere"));
        QCOMPARE(reply->rawHeader("x-seen"), QByteArray("a, b"));
        QCOMPARE(reply->header(QNetworkRequest::ContentLengthHeader).toInt(), 5);
        QCOMPARE(reply->header(QNetworkRequest::ContentTypeHeader).toString(), QString("text/xml"));
        QCOMPARE(reply->url(), request.url());
        QCOMPARE(reply->operation(), QNetworkAccessManager::PostOperation);
        const QByteArray sent = peer.requests.value(0);
        QVERIFY2(!sent.toLower().contains("expect:") && sent.contains("\r\nAccept-Encoding: gzip, deflate\r\n"), sent.constData());
        delete reply;
    }
};

QTEST_GUILESS_MAIN(TestTransport)
#include "tst_transport.moc"
