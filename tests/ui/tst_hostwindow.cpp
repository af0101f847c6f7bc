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

        // What the answer offers: each update's one-click flag ("1" earns the badge), and news.
        QMap<QString, bool> oneClick;
        for (const QVariant& update : window.updates())
            oneClick.insert(update.toMap().value("updateId").toString(), update.toMap().value("oneClickSupported") == "1");
        const int news = window.news().size();
        QVERIFY2(oneClick.values().contains(true) && oneClick.values().contains(false) && news > 0,
                 "the demo must offer updates with and without the one-click badge, and news");
        // What is drawn: Repeater delegates are not QObject children of the content item, but items.
        QMap<QString, QList<QQuickItem*>> drawn;
        for (QList<QQuickItem*> pending{window.window()->contentItem()}; !pending.isEmpty();) {
            drawn[pending.first()->objectName()].append(pending.first());
            pending += pending.takeFirst()->childItems();
        }
        QCOMPARE(drawn.value("updateEntry").size(), oneClick.size());
        QCOMPARE(drawn.value("newsEntry").size(), news);
        QCOMPARE(drawn.value("emptyState").value(0)->isVisible(), false);
        for (QQuickItem* update : drawn.value("updateEntry")) {
            const QString updateId = update->property("updateId").toString();
            QVERIFY2(oneClick.contains(updateId), qPrintable(updateId));
            QCOMPARE(update->findChild<QQuickItem*>("oneClickBadge")->isVisible(), oneClick.value(updateId));
        }

        const QImage image(picture);
        QCOMPARE(image.size(), window.window()->size() * window.window()->devicePixelRatio());
        QVERIFY(image.height() >= window.window()->property("fullHeight").toInt()); // grown to the whole answer
        QSet<QRgb> colours;
        for (int i = 0; i < image.width() * image.height(); i += 97)
            colours.insert(image.pixel(i % image.width(), i / image.width()));
        QVERIFY(colours.size() >= 16); // not a blank page
    }
};

QTEST_MAIN(TestHostWindow)
#include "tst_hostwindow.moc"
