#include "HostRig.h"
#include "KepSimProcess.h"

#include <QProcess>
#include <QTcpServer>
#include <QtTest>

// The whole chain (reference host, plug-in, simulator as child processes) under faults of the
// network, the service and the local storage: each run must end with the documented status
// and answer, leave the reply cache and the product records intact, and the next run must work.
class TestFaults : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void simRefusesBadOptions_data();
    void simRefusesBadOptions();
    void brokenService_data();
    void brokenService();
    void fiftyMegabyteAnswer();
    void unwritableStorage_data();
    void unwritableStorage();
    void hostKilledDuringRun();

private:
    // Checks shared with the other fault suites live in HostRig.
    void checkAftermath(HostRig& rig, const QMap<QString, QByteArray>& records)
    {
        rig.checkRecovery(healthy_.url(), records);
    }

    KepSimProcess healthy_;
};

void TestFaults::initTestCase()
{
    QVERIFY2(healthy_.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR)),
             qPrintable(healthy_.errorText()));
}

void TestFaults::simRefusesBadOptions_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("reason");
    const QString fixtures = QStringLiteral(KEP_FIXTURES_DIR);
    QTest::newRow("unknown fault") << QStringList{"--fixtures", fixtures, "--fault", "flaky"}
                                   << "kep-sim: unknown --fault flaky; one of: hang, reset, http500, html, truncated, "
                                      "trickle, soapfault, or a service code such as \"[321] quota\"";
    QTest::newRow("code without brackets") << QStringList{"--fixtures", fixtures, "--fault", "321 quota"}
                                           << "kep-sim: unknown --fault 321 quota; one of: hang, reset, http500, "
                                              "html, truncated, trickle, soapfault, or a service code such as "
                                              "\"[321] quota\"";
    QTest::newRow("fault without mode") << QStringList{"--fixtures", fixtures, "--fault"}
                                        << "kep-sim: Missing value after '--fault'.";
    QTest::newRow("tls without key") << QStringList{"--fixtures", fixtures, "--tls", "cert.pem"}
                                     << "kep-sim: --tls needs CERT and KEY";
    QTest::newRow("tls certificate missing")
        << QStringList{"--fixtures", fixtures, "--tls", "/nonexistent/cert.pem", "/nonexistent/key.pem"}
        << "kep-sim: no PEM certificate in /nonexistent/cert.pem";
}

void TestFaults::simRefusesBadOptions()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, reason);
    QProcess sim;
    sim.start(QStringLiteral(KEP_SIM_PATH), arguments);
    QVERIFY(sim.waitForFinished(10000));
    QCOMPARE(sim.exitCode(), 64);
    QCOMPARE(sim.readAllStandardOutput(), QByteArray());
    QCOMPARE(QString::fromUtf8(sim.readAllStandardError()).trimmed(), reason);
}

void TestFaults::brokenService_data()
{
    QTest::addColumn<QString>("service");       // "sim", "refused" or "unknown host"
    QTest::addColumn<QStringList>("simArguments");
    QTest::addColumn<bool>("primed");
    QTest::addColumn<QString>("errorLine");     // a whole log line (a pattern); %1 is the service URL
    QTest::addColumn<QString>("totals");        // where the two answers came from
    QTest::addColumn<int>("updates");
    QTest::addColumn<QString>("cachedAfter");   // text the cached Studio answer holds afterwards

    const auto exactly = [](const char* line) {
        return QRegularExpression::escape(QString::fromUtf8(line)).replace(QLatin1String("\\%1"), QLatin1String("%1"));
    };
    // The transport may see the cut itself or leave it to the length check.
    const QString cutShort = QStringLiteral(
        "2 \"NetworkManager::sendRequestToKep: reply error \\[2\\]: Connection closed( after \\d+ of \\d+ bytes)?\"");
    const QString cached = QStringLiteral("(service 0, cache 2, none 0, cancelled 0)");
    const QString fromService = QStringLiteral("(service 2, cache 0, none 0, cancelled 0)");
    const QString studioXml = QStringLiteral("Studio 2014");
    QTest::newRow("refused, cached") << "refused" << QStringList{} << true
                                     << exactly("2 \"NetworkManager::sendRequestToKep: reply error [1]: Connection refused\"")
                                     << cached << 4 << studioXml;
    QTest::newRow("refused, nothing cached")
        << "refused" << QStringList{} << false
        << exactly("2 \"NetworkManager::sendRequestToKep: reply error [1]: Connection refused\"")
        << "(service 0, cache 0, none 2, cancelled 0)" << 0 << QString();
    QTest::newRow("reset mid-body") << "sim" << QStringList{"--fault", "reset"} << true << cutShort << cached << 4
                                    << studioXml;
    QTest::newRow("truncated body") << "sim" << QStringList{"--fault", "truncated"} << true << cutShort << cached << 4
                                    << studioXml;
    QTest::newRow("HTTP 500 with a body")
        << "sim" << QStringList{"--fault", "http500"} << true
        << exactly("2 \"NetworkManager::sendRequestToKep: reply error [401]: Error transferring %1 - server "
                   "replied: Internal Server Error\"")
        << cached << 4 << studioXml;
    QTest::newRow("SOAP fault") << "sim" << QStringList{"--fault", "soapfault"} << true
                                << exactly("2 \"NetworkManager::sendRequestToKep: reply error [401]: Error "
                                           "transferring %1 - server replied: Internal Server Error\"")
                                << cached << 4 << studioXml;
    // Status 200 is trusted whatever the body: the portal page replaces the cached answer.
    QTest::newRow("captive portal page") << "sim" << QStringList{"--fault", "html"} << true << QString() << fromService
                                         << 0 << "Welcome to GuestNet";
    QTest::newRow("service code [321]") << "sim" << QStringList{"--fault", "[321] quota"} << true << QString()
                                        << fromService << 0 << "[321] quota";
    QTest::newRow("unknown host name")
        << "unknown host" << QStringList{} << true
        << exactly("2 \"NetworkManager::sendRequestToKep: reply error [3]: Host kep-sim.invalid not found\"") << cached
        << 4
        << studioXml;
}

void TestFaults::brokenService()
{
    QFETCH(QString, service);
    QFETCH(QStringList, simArguments);
    QFETCH(bool, primed);
    QFETCH(QString, errorLine);
    QFETCH(QString, totals);
    QFETCH(int, updates);
    QFETCH(QString, cachedAfter);

    HostRig rig;
    QVERIFY(rig.isValid());
    rig.writeStandardRecords();
    if (primed)
        rig.prime(healthy_.url());
    if (QTest::currentTestFailed())
        return;
    const QMap<QString, QByteArray> records = rig.databaseFiles();

    KepSimProcess faulty;
    QString url;
    QStringList prefix;
    if (service == QLatin1String("sim")) {
        QVERIFY2(faulty.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR), simArguments),
                 qPrintable(faulty.errorText()));
        url = faulty.url();
    } else if (service == QLatin1String("refused")) {
        QTcpServer probe; // a port that was free a moment ago and has nobody listening now
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        url = QStringLiteral("http://127.0.0.1:%1/").arg(probe.serverPort());
    } else {
        // A network namespace of its own: the resolver's question cannot leave the machine.
        prefix = QStringList{QStringLiteral("unshare"), QStringLiteral("--net")};
        if (!HostRig::commandWorks(prefix + QStringList{QStringLiteral("true")}))
            QSKIP("unshare --net is not permitted here; the name lookup would reach the real resolver");
        url = QStringLiteral("http://kep-sim.invalid:8080/");
    }

    const HostRig::Result result = rig.run(HostRig::hostArguments(url), prefix);
    QCOMPARE(result.exitCode, 0);
    QVERIFY2(result.summary().value(2).contains(totals), result.err.constData());
    QCOMPARE(HostRig::updatesIn(result.out), updates);
    if (!errorLine.isEmpty()) {
        const QRegularExpression whole(QRegularExpression::anchoredPattern(
            QString(errorLine).replace(QLatin1String("%1"), QRegularExpression::escape(url))));
        QVERIFY2(!result.errLines().filter(whole).isEmpty(), result.err.constData());
    }
    if (cachedAfter.isEmpty())
        QCOMPARE(rig.cachedValue(HostRig::studioKey()), QString());
    else
        QVERIFY2(rig.cachedValue(HostRig::studioKey()).contains(cachedAfter), qPrintable(rig.cachedValue(HostRig::studioKey())));
    checkAftermath(rig, records);
}

void TestFaults::fiftyMegabyteAnswer()
{
    QTemporaryDir fixtures;
    QVERIFY(QDir().mkpath(fixtures.path() + QStringLiteral("/MEDIA-HUGE")));
    QFile file(fixtures.path() + QStringLiteral("/MEDIA-HUGE/default.xml"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    const QByteArray sentence("Every line of these release notes says the same thing again. ");
    QByteArray notes;
    while (notes.size() < 50 * 1024 * 1024)
        notes += sentence;
    file.write("<product_info><return_code>0</return_code><format>2.0</format><updates>"
               "<update><id>1</id><title>Huge notes</title><description>" + notes + "</description>"
               "<update_id>1</update_id></update>"
               "<update><id>2</id><title>Small</title><description>x</description><update_id>2</update_id></update>"
               "</updates><product_news/></product_info>\n");
    file.close();
    notes.clear();

    KepSimProcess sim;
    QVERIFY2(sim.start(QStringLiteral(KEP_SIM_PATH), fixtures.path()), qPrintable(sim.errorText()));
    HostRig rig;
    rig.writeRecord(rig.userDb(), QStringLiteral("{HUGE}"), {{"MediaID", "MEDIA-HUGE"}, {"UpdateID", "1"}});
    const QMap<QString, QByteArray> records = rig.databaseFiles();
    const HostRig::Result result = rig.run(HostRig::hostArguments(sim.url()));
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(HostRig::updatesIn(result.out), 2);
    QVERIFY(result.out.size() > 50 * 1024 * 1024);
    QVERIFY2(result.summary().value(1).contains(QLatin1String("(service 1, cache 0, none 0, cancelled 0)")),
             result.err.constData());
    QVERIFY(rig.cachedValue(QStringLiteral("gtpi__1_MEDIA-HUGE")).size() > 50 * 1024 * 1024);
    QCOMPARE(rig.databaseFiles(), records);
    QCOMPARE(rig.cacheIntegrity(), QStringLiteral("ok"));
    qInfo("50 MB answer: %lld ms for the whole host run", static_cast<long long>(result.elapsedMs));
}

void TestFaults::unwritableStorage_data()
{
    QTest::addColumn<QString>("storage");
    QTest::addColumn<QString>("expectedLine");  // a whole line of standard error
    QTest::addColumn<bool>("cacheUnchanged");
    QTest::addColumn<int>("updatesNextRun"); // a record left to convert is converted by the next run

    QTest::newRow("cache directory read-only")
        << "read-only cache"
        << "TavCore: network cache: cannot write: attempt to write a readonly database; working without a cache"
        << true << 4;
    QTest::newRow("cache disk full")
        << "full cache" << "TavCore: network cache: cannot open %1: disk I/O error; working without a cache" << false << 4;
    QTest::newRow("record cannot be written back")
        << "read-only records"
        << "2 LocalDataBaseManager::convertFncProductEntry: error during convertation: # 5" << true << 5;
}

void TestFaults::unwritableStorage()
{
    QFETCH(QString, storage);
    QFETCH(QString, expectedLine);
    QFETCH(bool, cacheUnchanged);
    QFETCH(int, updatesNextRun);

    HostRig rig;
    rig.writeStandardRecords();
    QStringList prefix;
    if (storage == QLatin1String("full cache")) {
        // Room for the empty database and little more; an ignored SIGXFSZ turns the limit into
        // the write error a full disk gives.
        if (!HostRig::commandWorks({QStringLiteral("prlimit"), QStringLiteral("--fsize=65536"), QStringLiteral("true")}))
            QSKIP("prlimit is not available");
        prefix = QStringList{QStringLiteral("sh"), QStringLiteral("-c"),
                             QStringLiteral("trap '' XFSZ; exec prlimit --fsize=20000 \"$@\""), QStringLiteral("sh")};
    } else {
        if (!HostRig::commandWorks(HostRig::unprivileged + QStringList{QStringLiteral("true")}))
            QSKIP("setpriv cannot switch to uid 65534 here");
        rig.prime(healthy_.url());
        if (QTest::currentTestFailed())
            return;
        if (storage == QLatin1String("read-only records")) {
            // A previous-generation record to convert into the (read-only) user database.
            QFile properties(rig.userDb() + QStringLiteral("/legacy.properties"));
            QVERIFY(properties.open(QIODevice::WriteOnly));
            properties.write("ProductCode={LEGACY}\nProductName=Legacy Suite\nVersion=10.0\n");
            properties.close();
            QFile profile(rig.userDb() + QStringLiteral("/legacy.pf"));
            QVERIFY(profile.open(QIODevice::WriteOnly));
            profile.write("<profiles><profile><data id=\"MediaID\" value=\"MEDIA-LEGACY-10\"/>"
                          "<data id=\"UpdateID\" value=\"310\"/></profile></profiles>");
            profile.close();
        }
        rig.openToEveryone();
        prefix = HostRig::unprivileged;
    }
    const QMap<QString, QByteArray> records = rig.databaseFiles();
    const QString cacheBefore = rig.cachedValue(HostRig::studioKey());
    QFile cacheFile(rig.cacheFile());
    const QByteArray cacheBytes = cacheFile.open(QIODevice::ReadOnly) ? cacheFile.readAll() : QByteArray();
    cacheFile.close();

    const HostRig::Result result = rig.run(HostRig::hostArguments(healthy_.url()), prefix);
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(HostRig::updatesIn(result.out), 4);
    QVERIFY2(result.summary().value(2).contains(QLatin1String("(service 2, cache 0, none 0, cancelled 0)")),
             result.err.constData());
    QVERIFY2(result.errLines().contains(QString(expectedLine).replace(QLatin1String("%1"), rig.cacheFile())),
             result.err.constData());
    if (cacheUnchanged) {
        QVERIFY(cacheFile.open(QIODevice::ReadOnly));
        QCOMPARE(cacheFile.readAll(), cacheBytes);
        QCOMPARE(rig.cachedValue(HostRig::studioKey()), cacheBefore);
    }
    // The converted record never appeared, and no temporary file was left beside the others.
    rig.checkRecovery(healthy_.url(), records, updatesNextRun);
}

void TestFaults::hostKilledDuringRun()
{
    KepSimProcess slow;
    QVERIFY2(slow.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR), {"--delay-ms", "3000"}),
             qPrintable(slow.errorText()));
    HostRig rig;
    rig.writeStandardRecords();
    const QMap<QString, QByteArray> records = rig.databaseFiles();

    QProcess host;
    host.setReadChannel(QProcess::StandardError);
    rig.start(host, HostRig::hostArguments(slow.url(), {QStringLiteral("--log-level"), QStringLiteral("0")}));
    // Killed while the second product's request is in flight: the first answer is committed.
    QByteArray seen;
    QDeadlineTimer deadline(60000);
    while (seen.count("NetworkManager::call_GetTAVProductInfo") < 2 && !deadline.hasExpired()
           && host.state() != QProcess::NotRunning) {
        if (host.waitForReadyRead(int(deadline.remainingTime())))
            seen += host.readAllStandardError();
    }
    QVERIFY2(seen.count("NetworkManager::call_GetTAVProductInfo") == 2, seen.constData());
    host.kill();
    QVERIFY(host.waitForFinished(10000));
    QCOMPARE(host.exitStatus(), QProcess::CrashExit);
    QCOMPARE(host.readAllStandardOutput(), QByteArray());

    QCOMPARE(rig.cacheIntegrity(), QStringLiteral("ok"));
    QVERIFY(rig.cachedValue(HostRig::studioKey()).contains(QLatin1String("Studio 2014")));
    QCOMPARE(rig.cachedValue(QStringLiteral("gtpi__310_MEDIA-TOOLS-2013")), QString());
    checkAftermath(rig, records);
}

QTEST_GUILESS_MAIN(TestFaults)
#include "tst_faults.moc"
