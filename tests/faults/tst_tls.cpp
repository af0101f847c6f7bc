#include "HostRig.h"
#include "KepSimProcess.h"

#include <QtTest>

// The service over HTTPS with certificates made for the run: only a certificate that chains
// to a trusted authority, names 127.0.0.1 and is in date is accepted; anything else fails
// like a network error (logged, answered from the cache) and is never silently taken.
class TestTls : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void certificates_data();
    void certificates();

private:
    QTemporaryDir certs_;
    KepSimProcess plain_;
};

void TestTls::initTestCase()
{
    if (!HostRig::commandWorks({QStringLiteral("openssl"), QStringLiteral("version")}))
        QSKIP("the openssl command is needed to make the test certificates");
    QVERIFY(HostRig::commandWorks({QStringLiteral(KEP_CERTS_SCRIPT), certs_.path()}));
    QVERIFY2(plain_.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR)),
             qPrintable(plain_.errorText()));
}

void TestTls::certificates_data()
{
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<QString>("key");
    QTest::addColumn<bool>("trustTestCa");
    QTest::addColumn<QString>("totals");
    QTest::addColumn<QString>("errorLine");

    const QString refused = QStringLiteral("2 \"NetworkManager::sendRequestToKep: reply error [6]: SSL handshake failed\"");
    const QString cached = QStringLiteral("(service 0, cache 2, none 0, cancelled 0)");
    QTest::newRow("signed by the trusted test CA")
        << "server.pem" << "server.key" << true << "(service 2, cache 0, none 0, cancelled 0)" << QString();
    QTest::newRow("test CA not trusted") << "server.pem" << "server.key" << false << cached << refused;
    QTest::newRow("expired") << "expired.pem" << "server.key" << true << cached << refused;
    QTest::newRow("self-signed") << "selfsigned.pem" << "selfsigned.key" << true << cached << refused;
}

void TestTls::certificates()
{
    QFETCH(QString, certificate);
    QFETCH(QString, key);
    QFETCH(bool, trustTestCa);
    QFETCH(QString, totals);
    QFETCH(QString, errorLine);

    HostRig rig;
    rig.writeStandardRecords();
    rig.prime(plain_.url());
    if (QTest::currentTestFailed())
        return;
    const QMap<QString, QByteArray> records = rig.databaseFiles();

    KepSimProcess secure;
    QVERIFY2(secure.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR),
                          {"--tls", certs_.filePath(certificate), certs_.filePath(key)}),
             qPrintable(secure.errorText()));
    QVERIFY(secure.url().startsWith(QLatin1String("https://127.0.0.1:")));
    QStringList extra;
    if (trustTestCa)
        extra = QStringList{QStringLiteral("--ca-file"), certs_.filePath(QStringLiteral("ca.pem"))};
    const HostRig::Result result = rig.run(HostRig::hostArguments(secure.url(), extra));
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(HostRig::updatesIn(result.out), 4);
    QVERIFY2(result.summary().value(2).contains(totals), result.err.constData());
    if (!errorLine.isEmpty())
        QVERIFY2(result.errLines().contains(errorLine), result.err.constData());
    rig.checkRecovery(plain_.url(), records);
}

QTEST_GUILESS_MAIN(TestTls)
#include "tst_tls.moc"
