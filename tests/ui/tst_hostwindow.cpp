#include "HostWindow.h"
#include "KepSimProcess.h"
#include "PluginHost.h"
#include "TestDb.h"

#include "tavcore/SettingsManager.h"

#include <QQuickItem>
#include <QtTest>

// The demo answer drawn in the reference host's window with the plug-in's controls, offscreen,
// and kept as a picture for people to look at.
class TestHostWindow : public QObject
{
    Q_OBJECT
private slots:
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
