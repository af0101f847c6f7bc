#include "HostWindow.h"
#include "KepSimProcess.h"
#include "LogTap.h"
#include "PluginHost.h"
#include "RunSummary.h"
#include "TestDb.h"

#include "tavcore/SettingsManager.h"

#include <QQuickItem>
#include <QTcpServer>
#include <QtTest>

// The demo answer drawn in the reference host's window with the plug-in's controls, offscreen,
// and kept as a picture for people to look at.
class TestHostWindow : public QObject
{
    Q_OBJECT

    static QString text(QQuickWindow* window, const char* name)
    {
        auto* item = window->findChild<QQuickItem*>(name);
        return item && item->isVisible() ? item->property("text").toString() : QStringLiteral("(hidden)");
    }

private slots:
    // What the host makes of a finished run: getData's status, where each product's answer came
    // from, and how many entries the answer holds.
    void states_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QStringList>("sources");
        QTest::addColumn<int>("entries");
        QTest::addColumn<QString>("state");
        QTest::newRow("all answered, nothing offered") << 0 << QStringList{"service", "service"} << 0 << "upToDate";
        QTest::newRow("all answered, entries") << 0 << QStringList{"service", "service"} << 3 << "answered";
        QTest::newRow("nobody answered") << 0 << QStringList{"none", "none"} << 0 << "unreachable";
        QTest::newRow("the cache answered all") << 0 << QStringList{"cache", "cache"} << 3 << "offline";
        QTest::newRow("cache and nothing, nothing listed") << 0 << QStringList{"cache", "none"} << 0 << "offline";
        QTest::newRow("one answered, one not") << 0 << QStringList{"service", "none"} << 0 << "offline";
        // The plug-in does not look at the cancel flag after the last product: status 0.
        QTest::newRow("cancel during the last product") << 0 << QStringList{"service", "cancelled"} << 2 << "offline";
        QTest::newRow("the only product cancelled") << 0 << QStringList{"cancelled"} << 0 << "unreachable";
        QTest::newRow("cancelled") << 2 << QStringList{"service"} << 0 << "cancelled";
        QTest::newRow("no products") << 5 << QStringList() << 0 << "noProducts";
        QTest::newRow("no summary") << 0 << QStringList() << 0 << "upToDate";
    }

    void states()
    {
        QFETCH(int, status);
        QFETCH(QStringList, sources);
        QFETCH(int, entries);
        QList<ProductOutcome> outcomes;
        for (const QString& source : sources) {
            outcomes.append(ProductOutcome());
            outcomes.last().source = source;
        }
        QTEST(HostWindow::stateFor(status, outcomes, entries), "state");
    }

    // A run against a service that is not there: the window says so, why, and offers to retry.
    void unreachableRun()
    {
        QVERIFY2(TestDb::isolated(), "run through ctest: needs the temporary databases");
        QTemporaryDir scratch;
        QVERIFY(QDir::setCurrent(scratch.path()));
        TestDb::reset();
        TestDb::writeRecord(true, "{STUDIO}", {{"MediaID", "MEDIA-STUDIO-2014"}, {"UpdateID", "1200"}});
        TestDb::writeRecord(false, "{TOOLS}", {{"MediaID", "MEDIA-TOOLS-2013"}, {"UpdateID", "310"}});
        QTcpServer closed; // a port nobody listens on once the server is closed
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        TavCoreShared::TavSettings::SettingsManager::instance()->setProperty("KepWebServiceUrl", QString("http://127.0.0.1:%1/").arg(port));
        RunSummary summary;
        LogTap tap(&summary, 3);
        PluginHost host;
        summary.follow(&host);
        QCOMPARE(host.load(KEP_PLUGIN_PATH), QString());
        HostWindow window(&host, &summary);
        QCOMPARE(window.load(), QString());
        QSignalSpy answered(&window, &HostWindow::answerChanged);
        window.checkForUpdates();
        QCOMPARE(window.state(), QString("checking"));
        QVERIFY(answered.wait(30000));
        QCOMPARE(window.state(), QString("unreachable"));
        QCOMPARE(window.uncheckedCount(), 2);
        QCOMPARE(text(window.window(), "stateHeadline"), QString("Could not check for updates"));
        QCOMPARE(text(window.window(), "stateDetail"), QString("The service could not be reached: connection refused."));
        QCOMPARE(text(window.window(), "retryButton"), QString("Try again"));
        QCOMPARE(text(window.window(), "bannerHeadline"), QString("(hidden)"));
        // "Try again" starts the next run.
        QVERIFY(QMetaObject::invokeMethod(window.window()->findChild<QQuickItem*>("retryButton"), "clicked"));
        QCOMPARE(window.state(), QString("checking"));
        QVERIFY(answered.wait(30000));
        QCOMPARE(window.state(), QString("unreachable"));
        QCOMPARE(window.uncheckedCount(), 2); // this run's products only
        host.shutdown();
    }

    void demoAnswer()
    {
        QVERIFY2(TestDb::isolated(), "run through ctest: needs the temporary databases");
        QTemporaryDir scratch; // an auto-uninstalled record is removed relative to the working directory
        QVERIFY(QDir::setCurrent(scratch.path()));
        TestDb::reset();
        for (const auto& [from, to] : {std::pair("user", TestDb::userDir()), {"system", TestDb::systemDir()}}) {
            const QDir source(KEP_EXAMPLES_DIR "/db/" + QString(from));
            for (const QString& file : source.entryList(QDir::Files))
                QVERIFY(QFile::copy(source.filePath(file), to + "/" + file));
        }
        KepSimProcess sim;
        QVERIFY2(sim.start(KEP_SIM_PATH, KEP_EXAMPLES_DIR "/service"), qPrintable(sim.errorText()));
        TavCoreShared::TavSettings::SettingsManager::instance()->setProperty("KepWebServiceUrl", sim.url());
        PluginHost host;
        QCOMPARE(host.load(KEP_PLUGIN_PATH), QString());
        HostWindow window(&host);
        QCOMPARE(window.load(), QString());
        const QString picture = KEP_SCREENSHOT_DIR "/tav-host-demo.png";
        QFile::remove(picture);
        window.setScreenshotPath(picture);
        QSignalSpy saved(&window, &HostWindow::screenshotSaved);
        window.checkForUpdates();
        QVERIFY(saved.wait(60000));
        QCOMPARE(saved.first().first().toString(), QString());
        QCOMPARE(window.status(), 0);

        // Each update drawn once, with the badge where its one-click flag is "1", and each news item.
        QMap<QString, bool> oneClick;
        for (const QVariant& update : window.updates())
            oneClick.insert(update.toMap().value("updateId").toString(), update.toMap().value("oneClickSupported") == "1");
        QVERIFY2(oneClick.values().contains(true) && oneClick.values().contains(false) && !window.news().isEmpty(),
                 "the demo must offer updates with and without the one-click badge, and news");
        // Repeater delegates are not QObject children of the content item, but items.
        QMap<QString, int> drawn; // by name, the hidden ones apart
        QMap<QString, bool> badges;
        for (QList<QQuickItem*> pending{window.window()->contentItem()}; !pending.isEmpty();
             pending += pending.takeFirst()->childItems()) {
            QQuickItem* item = pending.first();
            ++drawn[item->objectName() + (item->isVisible() ? "" : " (hidden)")];
            if (item->objectName() == "updateEntry")
                badges.insert(item->property("updateId").toString(), item->findChild<QQuickItem*>("oneClickBadge")->isVisible());
        }
        QCOMPARE(badges, oneClick);
        QCOMPARE(drawn.value("updateEntry"), oneClick.size());
        QCOMPARE(drawn.value("newsEntry"), window.news().size());
        QCOMPARE(drawn.value("emptyState (hidden)"), 1);

        QVERIFY(QImage(picture).height() >= window.window()->property("fullHeight").toInt()); // grown to the whole answer
    }
};

QTEST_MAIN(TestHostWindow)
#include "tst_hostwindow.moc"
