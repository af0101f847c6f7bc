#include "KepSimProcess.h"
#include "TestDb.h"

#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>

namespace {
const QString error = "2 \"NetworkManager::sendRequestToKep: reply error ", tls = error + "[6]: SSL handshake failed\"";
const QString cache2 = "(service 0, cache 2, none 0, cancelled 0)", service2 = "(service 2, cache 0, none 0, cancelled 0)";
const QStringList nobody{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};

// setup: kep-sim's arguments | tav-host's, the service's URL, or a setup named in faults(); line: a
// whole stderr line (* ends a prefix, %1 the URL, %2 the cache); totals: where the answers came from,
// empty when the host is killed; cachedAfter: "=" as before, else a text of the cached answer;
// media: the one product, else the usual two; prefix: what tav-host runs under.
void row(const char* name, const QString& setup, const QString& line, const QString& totals = cache2, int updates = 4,
         const QString& cachedAfter = "=", int updatesNext = 4, const QString& media = "", const QStringList& prefix = {})
{
    QTest::newRow(name) << setup << media << line << totals << cachedAfter << updates << updatesNext << prefix;
}

// -1 for an answer that is not whole.
int updatesIn(const QByteArray& xml) { return xml.endsWith("</root>\n") ? xml.count("<update>") : -1; }
} // namespace

// The reference host, the plug-in and the simulator as child processes under faults of the
// network, the service, TLS and local storage: each run ends with the documented answer, leaves
// the cache sound and the records as they were, and the next run works.
class TestFaults : public QObject
{
    Q_OBJECT
    QTemporaryDir certs_, huge_;
    KepSimProcess healthy_;
    QString root_; // the row's scratch tree (HOME, system database, cache), open to an unprivileged user
    struct Result { int exitCode = -2; QByteArray out; QString err; }; // -2: killed or crashed

    // tav-host in the row's tree with the summary on; killed once killAt has shown twice on stderr.
    Result run(const QString& url, const QStringList& extra = {}, const QStringList& prefix = {}, const QByteArray& killAt = {})
    {
        QProcess host;
        host.setWorkingDirectory(root_); // auto-uninstall clean-up acts here
        host.setReadChannel(QProcess::StandardError);
        const QStringList command = prefix + QStringList{"env", "HOME=" + root_ + "/home", "XDG_CACHE_HOME=" + root_ + "/home/.cache",
            "TAV_SYSTEM_DB_DIR=" + root_ + "/sysdb", TAV_HOST_PATH, "--set", "KepWebServiceUrl=" + url, "--summary"};
        host.start(command.first(), command.mid(1) + extra);
        QByteArray err;
        while (!killAt.isEmpty() && err.count(killAt) < 2 && host.waitForReadyRead(60000))
            err += host.readAllStandardError();
        if (!killAt.isEmpty() || !host.waitForFinished(150000))
            host.kill();
        host.waitForFinished();
        return Result{host.exitStatus() == QProcess::NormalExit ? host.exitCode() : -2, host.readAllStandardOutput(),
                      QString::fromUtf8(err + host.readAllStandardError())};
    }

    // The query's first value in the reply cache, or why there is none.
    QString cache(const QString& sql)
    {
        const QString file = root_ + "/home/.cache/vasko/tav/network-cache.sqlite";
        QString value = "no cache file";
        if (QFile::exists(file)) {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", file);
            db.setDatabaseName(file);
            db.setConnectOptions("QSQLITE_OPEN_READONLY");
            db.open();
            QSqlQuery query(sql, db);
            value = query.next() ? query.value(0).toString() : query.lastError().text();
        }
        QSqlDatabase::removeDatabase(file);
        return value;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(healthy_.start(KEP_SIM_PATH, KEP_FIXTURES_DIR), qPrintable(healthy_.errorText()));
        if (QProcess::execute("openssl", {"version"}) == 0)
            QCOMPARE(QProcess::execute(KEP_CERTS_SCRIPT, {certs_.path()}), 0);
        QVERIFY(TestDb::writeFile(huge_.path() + "/MEDIA-HUGE/default.xml", "<product_info><return_code>0</return_code>"
            "<format>2.0</format><updates><update><id>1</id><description>" + QByteArray(50 << 20, 'x')
            + "</description><update_id>1</update_id></update></updates><product_news/></product_info>\n"));
    }

    void faults_data()
    {
        for (const char* column : {"setup", "media", "line", "totals", "cachedAfter"})
            QTest::addColumn<QString>(column);
        QTest::addColumn<int>("updates");
        QTest::addColumn<int>("updatesNext");
        QTest::addColumn<QStringList>("prefix");
#ifndef KEP_SLOW
        // Port 1 is a privileged one that nothing here listens on.
        row("refused", "http://127.0.0.1:1/", error + "[1]: Connection refused\"");
        row("reset mid-body", "--fault reset", error + "[2]: Connection closed*");
        row("HTTP 500 with a body", "--fault http500",
            error + "[401]: Error transferring %1 - server replied: Internal Server Error\"");
        // Status 200 is trusted whatever the body: the portal page replaces the cached answer.
        row("captive portal", "--fault html", "*", service2, 0, "GuestNet");
        // A network namespace of its own: the resolver's question cannot leave the machine.
        row("unknown host name", "http://kep-sim.invalid:8080/", error + "[3]: Host kep-sim.invalid not found\"", cache2, 4,
            "=", 4, "", {"unshare", "--net"});
        row("50 MB answer", "huge", error + "[299]: Answer larger than 4194304 bytes, aborted\"",
            "(service 0, cache 1, none 0, cancelled 0)", 0, "=", 0, "MEDIA-HUGE");
        const QString readOnly = "TavCore: network cache: %2 is read-only for this user: answers are read from it but not stored";
        row("cache directory read-only", "", readOnly, service2, 4, "=", 4, "", nobody);
        row("cache read-only, service down", "http://127.0.0.1:1/", readOnly, cache2, 4, "=", 4, "", nobody);
        // An ignored SIGXFSZ turns the file-size limit into the write error of a full disk.
        row("cache disk full", "no cache yet", "TavCore: network cache: cannot open %2: disk I/O error; working without a cache",
            service2, 4, "", 4, "", {"sh", "-c", "trap '' XFSZ; exec prlimit --fsize=20000 \"$@\"", "sh"});
        // The converted record never appears, and nothing half-written is left beside the others.
        row("record cannot be written back", "legacy record",
            "2 LocalDataBaseManager::convertFncProductEntry: error during convertation: # 5", service2, 4, "=", 5, "", nobody);
        // Killed while the second request is in flight: the first answer is committed.
        row("host killed during a run", "--delay-ms 3000 | --log-level 0", "*", "", -1, "Studio 2014");
        row("TLS, trusted test CA", "--tls CERTS/server.pem CERTS/server.key | --ca-file CERTS/ca.pem", "*", service2);
        row("TLS, CA not given", "--tls CERTS/server.pem CERTS/server.key", tls);
        row("TLS, expired", "--tls CERTS/expired.pem CERTS/server.key | --ca-file CERTS/ca.pem", tls);
        row("TLS, self-signed", "--tls CERTS/selfsigned.pem CERTS/selfsigned.key | --ca-file CERTS/ca.pem", tls);
#else
        row("never answers", "--fault hang", error + "[5]: Operation canceled\"", "(service 0, cache 1, none 0, cancelled 0)",
            2, "=", 2, "MEDIA-STUDIO-2014");
        // The shortest answer (an unknown media id) arrives within the time-out even at 10 bytes/s.
        row("trickle", "--fault trickle", "*", "(service 1, cache 0, none 0, cancelled 0)", 0, "=", 0, "M");
#endif
    }

    void faults()
    {
        QFETCH(QString, setup);
        QFETCH(QString, media);
        QFETCH(QString, line);
        QFETCH(QString, totals);
        QFETCH(QString, cachedAfter);
        QFETCH(QStringList, prefix);
        if (setup.contains("CERTS") && !QFile::exists(certs_.filePath("ca.pem")))
            QSKIP("the openssl command is needed to make the test certificates");
        if (!prefix.isEmpty() && QProcess::execute(prefix.first(), prefix.mid(1) << "true") != 0)
            QSKIP(qPrintable(prefix.first() + " is not permitted here"));
        QTemporaryDir scratch;
        root_ = scratch.path();
        const QString product = media.isEmpty() ? "MEDIA-STUDIO-2014" : media, db = root_ + "/home/vasko/tav/db";
        TestDb::writeFile(db + "/{" + product + "}.ini", "MediaID=" + product.toUtf8() + "\nUpdateID=1200\n");
        if (media.isEmpty())
            TestDb::writeFile(root_ + "/sysdb/{TOOLS}.ini", "MediaID=MEDIA-TOOLS-2013\nUpdateID=310\n");
        if (setup != "no cache yet")
            QCOMPARE(run(healthy_.url()).exitCode, 0);
        const QString cached = "SELECT value FROM replies WHERE key = 'gtpi__1200_" + product + "'", before = cache(cached);

        setup.replace("CERTS", certs_.path());
        if (setup == "legacy record") { // a previous-generation record to convert
            const QString legacy = KEP_FIXTURES_DIR "/../db/system/{A1D0C0DE-0003-4000-8000-000000000003}";
            QVERIFY(QFile::copy(legacy + ".properties", db + "/legacy.properties") && QFile::copy(legacy + ".pf", db + "/legacy.pf"));
        }
        if (prefix == nobody)
            QCOMPARE(QProcess::execute("chmod", {"-R", "a+rX", root_}), 0);
        KepSimProcess sim;
        const QStringList simArguments = setup.startsWith("--") ? setup.section(" | ", 0, 0).split(' ') : QStringList();
        QVERIFY2(sim.start(KEP_SIM_PATH, setup == "huge" ? huge_.path() : KEP_FIXTURES_DIR, simArguments), qPrintable(sim.errorText()));
        const QString url = setup.startsWith("http") ? setup : sim.url();
        const QStringList databases{db, root_ + "/sysdb"};
        const QMap<QString, QString> records = TestDb::snapshot(databases);

        const QByteArray killAt = totals.isEmpty() ? "NetworkManager::call_GetTAVProductInfo" : "";
        const Result result = run(url, setup.section(" | ", 1).split(' ', Qt::SkipEmptyParts), prefix, killAt);
        QVERIFY2(killAt.isEmpty() ? result.exitCode == 0 && result.err.contains(" ms " + totals + ", ") : result.exitCode == -2,
                 qPrintable(result.err));
        QTEST(updatesIn(result.out), "updates");
        line = "\n" + line.replace("%1", url).replace("%2", root_ + "/home/.cache/vasko/tav/network-cache.sqlite");
        QVERIFY2(("\n" + result.err).contains(line.endsWith('*') ? line.chopped(1) : line + "\n"), qPrintable(result.err));
        const QString after = cache(cached);
        QVERIFY2(cachedAfter == "=" ? after == before : after.contains(cachedAfter), qPrintable(after.left(300)));

        // Records as before, the cache sound, and a good run works again.
        QCOMPARE(TestDb::snapshot(databases), records);
        QVERIFY(QStringList({"ok", "no cache file"}).contains(cache("PRAGMA integrity_check")));
        const Result next = run(healthy_.url());
        QVERIFY2(next.exitCode == 0 && next.err.contains(", cache 0, none 0, cancelled 0)"), qPrintable(next.err));
        QTEST(updatesIn(next.out), "updatesNext");
    }
};

QTEST_GUILESS_MAIN(TestFaults)
#include "tst_faults.moc"
