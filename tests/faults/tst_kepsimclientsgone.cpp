#include <QTcpSocket>
#include <QtTest>

namespace {

const QByteArray body = "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                        "<GetTAVProductInfo xmlns=\"urn:vasko:kep:registration:1\"><mediaID>M</mediaID></GetTAVProductInfo>"
                        "</soap:Body></soap:Envelope>";
const QByteArray request = "POST / HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml;charset=utf-8\r\nContent-Length: "
                           + QByteArray::number(body.size()) + "\r\n\r\n" + body;

} // namespace

// The simulator while its clients go away between the question and a delayed answer, which
// every test of a time-out or a cancel does: it drops those answers and goes on serving.
class TestKepSimClientsGone : public QObject
{
    Q_OBJECT
private slots:
    void clientsGone_data()
    {
        QTest::addColumn<QStringList>("arguments");
        // The modes in which an answer waits in the SOAP server; the others are answered, or
        // never, by the front layer alone.
        QTest::newRow("delayed answer") << QStringList{};
        QTest::newRow("delayed, reset") << QStringList{"--fault", "reset"};
        QTest::newRow("delayed, truncated") << QStringList{"--fault", "truncated"};
        QTest::newRow("delayed, trickle") << QStringList{"--fault", "trickle"};
        QTest::newRow("delayed, service code") << QStringList{"--fault", "[321] quota"};
    }
    void clientsGone()
    {
        QFETCH(QStringList, arguments);
        QProcess sim;
        sim.start(KEP_SIM_PATH, QStringList{"--fixtures", KEP_FIXTURES_DIR, "--port", "0", "--delay-ms", "20"} + arguments);
        QByteArray url;
        while (!url.startsWith("kep-sim listening on ") && sim.waitForReadyRead(10000))
            url = sim.readLine().trimmed();
        const QUrl address(QString::fromUtf8(url.mid(21)));
        QVERIFY2(address.port() > 0, url.constData());

        // Each client goes away at another moment around the answer's delay, closing or
        // resetting: some before the server reads the question, most while the answer waits,
        // some after it was sent.
        const int clients = 300;
        QTcpSocket sockets[clients];
        int gone = 0;
        for (int i = 0; i < clients; ++i) {
            QTcpSocket& client = sockets[i];
            client.connectToHost(QHostAddress::LocalHost, quint16(address.port()));
            client.write(request);
            QTimer::singleShot(i % 40, &client, [&client, &gone, i] {
                if (i % 2)
                    client.abort();
                else
                    client.disconnectFromHost();
                ++gone;
            });
        }
        QTRY_COMPARE_WITH_TIMEOUT(gone, clients, 10000);
        // The next client is answered (even the reset comes after the header), which is after
        // every earlier delayed answer was due.
        QTcpSocket next;
        next.connectToHost(QHostAddress::LocalHost, quint16(address.port()));
        next.write(request);
        QTRY_VERIFY_WITH_TIMEOUT(next.bytesAvailable() > 0 || next.state() == QAbstractSocket::UnconnectedState, 10000);
        QVERIFY2(next.peek(9) == "HTTP/1.1 ", qPrintable(sim.readAllStandardError().right(300)));
        QCOMPARE(sim.state(), QProcess::Running);
        sim.kill();
        sim.waitForFinished();
    }
};

QTEST_GUILESS_MAIN(TestKepSimClientsGone)
#include "tst_kepsimclientsgone.moc"
