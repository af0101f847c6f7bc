#include "HostRig.h"
#include "KepSimProcess.h"

#include <QTcpServer>

// The reference host, the plug-in and the simulator as child processes under faults of the
// network, the service, TLS and local storage: each run ends with the documented answer, leaves
// the cache sound and the records as they were, and the next run works.
class TestFaults : public QObject
{
    Q_OBJECT
    QTemporaryDir certs_;
    KepSimProcess healthy_;

private slots:
    void initTestCase()
    {
        QVERIFY2(healthy_.start(KEP_SIM_PATH, KEP_FIXTURES_DIR), qPrintable(healthy_.errorText()));
        if (QProcess::execute("openssl", {"version"}) == 0)
            QCOMPARE(QProcess::execute(KEP_CERTS_SCRIPT, {certs_.path()}), 0);
    }

    void faults_data()
    {
        QTest::addColumn<QString>("setup");  // kep-sim's arguments | tav-host's, or a setup named below
        QTest::addColumn<QString>("media");  // the one product, else the usual two
        QTest::addColumn<QString>("line");   // a whole stderr line (* ends a prefix), %1 the URL, %2 the cache
        QTest::addColumn<QString>("totals"); // where the answers came from; empty when the host died
        QTest::addColumn<int>("updates");
        QTest::addColumn<QString>("cachedAfter"); // "=": as before, else a text of the cached answer
        QTest::addColumn<int>("updatesNext");
        const QString cache2 = "(service 0, cache 2, none 0, cancelled 0)";
        const QString service2 = "(service 2, cache 0, none 0, cancelled 0)";
        const QString error = "2 \"NetworkManager::sendRequestToKep: reply error ";
        const QString tls = error + "[6]: SSL handshake failed\"";
#ifndef KEP_SLOW
        QTest::newRow("refused") << "refused" << "" << error + "[1]: Connection refused\"" << cache2 << 4 << "=" << 4;
        QTest::newRow("reset mid-body")
            << "--fault reset" << "" << error + "[2]: Connection closed*" << cache2 << 4 << "=" << 4;
        QTest::newRow("HTTP 500 with a body")
            << "--fault http500" << "" << error + "[401]: Error transferring %1 - server replied: Internal Server Error\""
            << cache2 << 4 << "=" << 4;
        // Status 200 is trusted whatever the body: the portal page replaces the cached answer.
        QTest::newRow("captive portal") << "--fault html" << "" << "*" << service2 << 0 << "GuestNet" << 4;
        QTest::newRow("unknown host name")
            << "no such host" << "" << error + "[3]: Host kep-sim.invalid not found\"" << cache2 << 4 << "=" << 4;
        QTest::newRow("50 MB answer") << "huge" << "MEDIA-HUGE" << "*" << "(service 1, cache 0, none 0, cancelled 0)"
                                      << 1 << "xxxxxxxx" << 0;
        QTest::newRow("cache directory read-only")
            << "read-only cache" << ""
            << "TavCore: network cache: cannot write: attempt to write a readonly database; working without a cache"
            << service2 << 4 << "=" << 4;
        QTest::newRow("cache disk full")
            << "full cache" << "" << "TavCore: network cache: cannot open %2: disk I/O error; working without a cache"
            << service2 << 4 << "" << 4;
        // The converted record never appears, and nothing half-written is left beside the others.
        QTest::newRow("record cannot be written back")
            << "read-only records" << ""
            << "2 LocalDataBaseManager::convertFncProductEntry: error during convertation: # 5" << service2 << 4
            << "=" << 5;
        // Killed while the second request is in flight: the first answer is committed.
        QTest::newRow("host killed during a run")
            << "--delay-ms 3000 | --log-level 0" << "" << "*" << "" << -1 << "Studio 2014" << 4;
        QTest::newRow("TLS, trusted test CA") << "--tls CERTS/server.pem CERTS/server.key | --ca-file CERTS/ca.pem"
                                              << "" << "*" << service2 << 4 << "=" << 4;
        QTest::newRow("TLS, CA not given") << "--tls CERTS/server.pem CERTS/server.key" << "" << tls << cache2 << 4 << "=" << 4;
        QTest::newRow("TLS, expired") << "--tls CERTS/expired.pem CERTS/server.key | --ca-file CERTS/ca.pem" << ""
                                      << tls << cache2 << 4 << "=" << 4;
        QTest::newRow("TLS, self-signed") << "--tls CERTS/selfsigned.pem CERTS/selfsigned.key | --ca-file CERTS/ca.pem"
                                          << "" << tls << cache2 << 4 << "=" << 4;
#else
        QTest::newRow("never answers") << "--fault hang" << "MEDIA-STUDIO-2014" << error + "[5]: Operation canceled\""
                                       << "(service 0, cache 1, none 0, cancelled 0)" << 2 << "=" << 2;
        // The shortest answer (an unknown media id) arrives within the time-out even at 10 bytes/s.
        QTest::newRow("trickle") << "--fault trickle" << "M" << "*" << "(service 1, cache 0, none 0, cancelled 0)" << 0
                                 << "=" << 0;
#endif
    }

    void faults()
    {
        QFETCH(QString, setup);
        QFETCH(QString, media);
        QFETCH(QString, line);
        QFETCH(QString, totals);
        QFETCH(int, updates);
        QFETCH(QString, cachedAfter);
        QFETCH(int, updatesNext);
        const QStringList nobody{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
        if (setup.contains("CERTS") && !QFile::exists(certs_.filePath("ca.pem")))
            QSKIP("the openssl command is needed to make the test certificates");
        if (setup.startsWith("read-only") && QProcess::execute(nobody.first(), nobody.mid(1) << "true") != 0)
            QSKIP("setpriv cannot switch to uid 65534 here");
        HostRig rig;
        const QString product = media.isEmpty() ? "MEDIA-STUDIO-2014" : media;
        rig.writeRecord("/home/vasko/tav/db", product);
        if (media.isEmpty())
            rig.writeRecord("/sysdb", "MEDIA-TOOLS-2013", "310");
        if (setup != "full cache")
            QCOMPARE(rig.run(healthy_.url()).exitCode, 0);
        const QString cached = "SELECT value FROM replies WHERE key = 'gtpi__1200_" + product + "'", before = rig.cache(cached);

        setup.replace("CERTS", certs_.path());
        QStringList simArgs = setup.section(" | ", 0, 0).split(' '), prefix;
        QString fixtures = KEP_FIXTURES_DIR, url;
        QTcpServer probe; // a port that was free a moment ago and has nobody listening now
        QTemporaryDir huge;
        if (setup == "refused" && probe.listen(QHostAddress::LocalHost)) {
            url = QString("http://127.0.0.1:%1/").arg(probe.serverPort());
            probe.close();
        } else if (setup == "no such host") {
            // A network namespace of its own: the resolver's question cannot leave the machine.
            if (QProcess::execute("unshare", {"--net", "true"}) != 0)
                QSKIP("unshare --net is not permitted here; the lookup would reach the real resolver");
            prefix = QStringList{"unshare", "--net"};
            url = "http://kep-sim.invalid:8080/";
        } else if (setup == "huge") {
            QFile file(huge.filePath("MEDIA-HUGE/default.xml"));
            QVERIFY(QDir(huge.path()).mkdir("MEDIA-HUGE") && file.open(QIODevice::WriteOnly));
            file.write("<product_info><return_code>0</return_code><format>2.0</format><updates><update><id>1</id>"
                       "<description>" + QByteArray(50 << 20, 'x') + "</description><update_id>1</update_id>"
                       "</update></updates><product_news/></product_info>\n");
            file.close();
            fixtures = huge.path();
        } else if (setup.startsWith("read-only")) {
            const QString legacy = KEP_FIXTURES_DIR "/../db/system/{A1D0C0DE-0003-4000-8000-000000000003}";
            if (setup == "read-only records") // a previous-generation record to convert
                QVERIFY(QFile::copy(legacy + ".properties", rig.path("/home/vasko/tav/db/legacy.properties"))
                        && QFile::copy(legacy + ".pf", rig.path("/home/vasko/tav/db/legacy.pf")));
            QCOMPARE(QProcess::execute("chmod", {"-R", "a+rX", rig.path({})}), 0);
            prefix = nobody;
        } else if (setup == "full cache") {
            // An ignored SIGXFSZ turns the file-size limit into the write error of a full disk.
            prefix = QStringList{"sh", "-c", "trap '' XFSZ; exec prlimit --fsize=20000 \"$@\"", "sh"};
        }
        KepSimProcess sim;
        if (url.isEmpty()) {
            QVERIFY2(sim.start(KEP_SIM_PATH, fixtures, setup.startsWith("--") ? simArgs : QStringList()),
                     qPrintable(sim.errorText()));
            url = sim.url();
        }
        const QMap<QString, QString> records = rig.databaseFiles();

        const QByteArray killAt = totals.isEmpty() ? "NetworkManager::call_GetTAVProductInfo" : "";
        const HostRig::Result result = rig.run(url, setup.section(" | ", 1).split(' ', Qt::SkipEmptyParts), prefix, killAt);
        QVERIFY2(result.exitCode == (killAt.isEmpty() ? 0 : -2), qPrintable(result.err));
        QCOMPARE(HostRig::updatesIn(result.out), updates);
        QVERIFY2(result.err.contains(" ms " + totals + ", ") || killAt.size(), qPrintable(result.err));
        line = "\n" + line.replace("%1", url).replace("%2", rig.path("/home/.cache/vasko/tav/network-cache.sqlite"));
        QVERIFY2(("\n" + result.err).contains(line.endsWith('*') ? line.chopped(1) : line + "\n"),
                 qPrintable(result.err));
        const QString after = rig.cache(cached);
        QVERIFY2(cachedAfter == "=" ? after == before : after.contains(cachedAfter), qPrintable(after.left(300)));
        rig.checkRecovery(healthy_.url(), records, updatesNext);
    }
};

QTEST_GUILESS_MAIN(TestFaults)
#include "tst_faults.moc"
