#include "KepSimProcess.h"
#include "TestDb.h"

#include <QProcess>
#include <QtTest>

// The reference host's command-line contract: exit statuses, what goes to standard output and
// standard error, cancelling from a third thread, the per-product summary.
class TestTavHost : public QObject
{
    Q_OBJECT
private slots:
    void commandLines_data()
    {
        QTest::addColumn<QString>("products"); // "" none, else STUDIO per user and the other system-wide
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("out"); // a pattern for all of standard output
        QTest::addColumn<QStringList>("err"); // patterns of whole lines on standard error
        const QString xml = "<\\?xml version=\"1.0\"\\?>\n<root>\n.*<update>.*</root>\n";
        const QStringList none;
        auto refused = [](const QStringList& arguments, int code, const QString& reason) {
            QTest::addRow("%s", qPrintable(arguments.join(' ').replace(TAVCORE_PATH, "tavcore")))
                << "" << arguments << code << "" << QStringList{"^tav-host: " + reason + "$"};
        };
        refused({"--frobnicate"}, 64, "unknown argument --frobnicate");
        refused({"--plugin"}, 64, "--plugin needs a value");
        refused({"--log-level", "high"}, 64, "--log-level expects a number of 0 or more, got high");
        refused({"--cancel-after", "-5"}, 64, "--cancel-after expects a number of 0 or more, got -5");
        refused({"--set", "KepWebServiceUrl"}, 64, "--set expects KEY=VALUE, got KepWebServiceUrl");
        refused({"--settings", "/nonexistent/tav.conf"}, 64, "cannot read settings file.*");
        refused({"--plugin", TAVCORE_PATH}, 1, "cannot read plug-in metadata.*");
        QTest::newRow("help") << "" << QStringList{"--help"} << 0 << "usage: tav-host .*\n" << none;
        QTest::newRow("no products") << "" << none << 5 << "" << none;
        // The service takes its time whenever the run is to be cancelled.
        QTest::newRow("cancelled from a third thread") << "MEDIA-TOOLS-2013" << QStringList{"--cancel-after", "1500"} << 2
                                                       << "" << none;
        QTest::newRow("answered, cancel after the run ended") << "MEDIA-TOOLS-2013" << QStringList{"--cancel-after", "60000"}
                                                              << 0 << xml << none;
        // Learnt from the level-0 trace, which the default level still keeps off standard error.
        QTest::newRow("summary") << "MEDIA-UNKNOWN" << QStringList{"--summary"} << 0 << xml
                                 << QStringList{"^summary: media \\[MEDIA-STUDIO-2014\\] update \\[1200\\] \\d+ ms, service, 2 updates, 2 news$",
                                                "^summary: media \\[MEDIA-UNKNOWN\\] update \\[310\\] \\d+ ms, service, 0 updates, 0 news$",
                                                "^summary: 2 products asked in \\d+ ms \\(service 2, cache 0, none 0, "
                                                "cancelled 0\\), 2 updates, 2 news$"};
    }

    void commandLines()
    {
        QFETCH(QString, products);
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, out);
        QFETCH(QStringList, err);
        QVERIFY2(TestDb::isolated(), "run through ctest: needs the temporary databases");
        TestDb::reset();
        KepSimProcess sim;
        QVERIFY2(sim.start(KEP_SIM_PATH, KEP_FIXTURES_DIR, {"--delay-ms", exitCode == 2 ? "5000" : "0"}), qPrintable(sim.errorText()));
        if (!products.isEmpty()) {
            TestDb::writeRecord(true, "{STUDIO}", {{"MediaID", "MEDIA-STUDIO-2014"}, {"UpdateID", "1200"}});
            TestDb::writeRecord(false, "{OTHER}", {{"MediaID", products}, {"UpdateID", "310"}});
        }
        QProcess host;
        QElapsedTimer clock;
        clock.start();
        host.start(TAV_HOST_PATH, QStringList{"--set", "KepWebServiceUrl=" + sim.url()} + arguments);
        QVERIFY(host.waitForFinished(120000) && host.exitStatus() == QProcess::NormalExit);
        QVERIFY2(clock.elapsed() < 30000, "a cancelled or finished run must not wait for the time-out");
        QCOMPARE(host.exitCode(), exitCode);
        const QString written = host.readAllStandardOutput(), error = host.readAllStandardError();
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(out), QRegularExpression::DotMatchesEverythingOption)
                     .match(written).hasMatch(), qPrintable(written.left(300)));
        for (const QString& line : err)
            QVERIFY2(QRegularExpression(line, QRegularExpression::MultilineOption).match(error).hasMatch(), qPrintable(error));
        QCOMPARE(error.count("summary: "), err.filter("summary").size());
        QVERIFY2(!error.contains("call_GetTAVProductInfo"), qPrintable(error));
    }
};

QTEST_GUILESS_MAIN(TestTavHost)
#include "tst_tavhost.moc"
