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
        sim.start(KEP_SIM_PATH, QStringList{"--fixtures", KEP_FIXTURES_DIR, "--port", "0", "--delay-ms", "200"} + arguments);
        QByteArray url;
        while (!url.startsWith("kep-sim listening on ") && sim.waitForReadyRead(10000))
            url = sim.readLine().trimmed();
        const QUrl address(QString::fromUtf8(url.mid(21)));
        QVERIFY2(address.port() > 0, url.constData());

        QByteArray log;
        const auto logged = [&sim, &log](const QByteArray& what) { return (log += sim.readAllStandardError()).count(what); };
        const int rounds = 6;
        for (int round = 0; round < rounds; ++round) {
            QTcpSocket clients[3];
            for (QTcpSocket& client : clients) {
                client.connectToHost(QHostAddress::LocalHost, quint16(address.port()));
                QVERIFY(client.waitForConnected(5000));
                client.write(request);
                QVERIFY(client.waitForBytesWritten(5000));
            }
            // Gone once the server has the questions: closed, or reset.
            QTRY_COMPARE_WITH_TIMEOUT(logged("kep-sim: mediaID="), 3 * (round + 1), 10000);
            clients[0].disconnectFromHost();
            clients[1].close();
            clients[2].abort();
        }
        QTRY_COMPARE_WITH_TIMEOUT(logged("the client went away before the delayed answer"), 3 * rounds, 10000);
        QCOMPARE(sim.state(), QProcess::Running);

        // And the next client is answered.
        QTcpSocket next;
        next.connectToHost(QHostAddress::LocalHost, quint16(address.port()));
        QVERIFY(next.waitForConnected(5000));
        next.write(request);
        QTRY_VERIFY_WITH_TIMEOUT(next.bytesAvailable() > 0 || next.state() != QAbstractSocket::ConnectedState, 10000);
        QCOMPARE(sim.state(), QProcess::Running);
        sim.kill();
        sim.waitForFinished();
    }
};

QTEST_GUILESS_MAIN(TestKepSimClientsGone)
#include "tst_kepsimclientsgone.moc"
