#include "KepSimProcess.h"
#include "LogCapture.h"
#include "TestDb.h"

#include "plugin/KepDataProviderPlugin.h"
#include "tavcore/SettingsManager.h"

#include <QtTest>

#include <memory>
#include <thread>

namespace {

using Fields = QMap<QString, QString>;
// By letter: the record's file and ids; B has none and lives in the system database.
const QHash<QChar, QStringList> records = {{'S', {"{STUDIO}", "MEDIA-STUDIO-2014", "1200"}},
                                           {'T', {"{TOOLS}", "MEDIA-TOOLS-2013", "310"}}, {'B', {"{BARE}"}}};

// The run's own lines in order, as words: a product letter with the test-update switch asks it.
QStringList expectedLog(const QString& words)
{
    const QHash<QString, QString> lines = {
        {"reply", "0 NetworkManager::sendRequestToKep: reply ok"},
        {"cancel", "0 KepDataProviderPlugin::cancelCurrentAction()\n0 DataManager::cancelAction(): requested cancel"},
        {"stored", "0 DataManager::cancelAction(): requested cancel"},
        {"abort", "2 NetworkManager::sendRequestToKep: operation cancelled"},
        {"kept", "0 KepDataProviderPlugin::getData(): cancelled. Using data from previous call."},
        {"empty", "1 DataManager::getUpdates(): product list is empty"},
        {"code10", "0 NetworkManager::checkNetworkReply(): error code parsed =  \"10\""}};
    QStringList log;
    for (const QString& word : words.split(' ')) {
        if (word.startsWith("done"))
            log << "0 \"KepDataProviderPlugin::getData(): finished. Status = " + word.mid(4) + '"';
        else if (word.size() == 2)
            log << QStringLiteral("0 \"NetworkManager::call_GetTAVProductInfo: mediaId=[%1];updateId=[%2];showTestUpdate=[%3]\"")
                       .arg(records[word[0]].value(1), records[word[0]].value(2), word.mid(1));
        else
            log << lines.value(word, "unknown word " + word).split('\n');
    }
    return log;
}

QtMessageHandler chained_ = nullptr;
// A host logger that stalls on the run's cancel line, as a busy stderr can.
void slowOnCancelLine(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (message.contains(QLatin1String("DataManager::cancelAction()")))
        QThread::msleep(500);
    chained_(type, context, message);
}

} // namespace

// Whole runs in this process with the host's threads: the plug-in in the main thread with its
// event loop, getData on a worker, cancels from a third thread through a slow logger.
class TestGatheringRun : public QObject
{
    Q_OBJECT
    QObject relay_; // lives in the worker, which goes first
    struct Worker : QThread { ~Worker() override { quit(); wait(); } } worker_;
    std::thread canceller_;
    KepSimProcess sim_;
    std::unique_ptr<KepPlugin::KepDataProviderPlugin> plugin_;
    std::unique_ptr<LogCapture> log_;

    // Records of the products named by letter, served by a new simulator.
    void startSim(int delayMs, const QString& letters)
    {
        TestDb::reset();
        for (QChar letter : letters) {
            const QStringList record = records[letter];
            TestDb::writeRecord(letter != 'B', record[0], letter == 'B' ? Fields{{"ProductName", "Bare"}}
                                                                        : Fields{{"MediaID", record[1]}, {"UpdateID", record[2]}});
        }
        sim_.stop();
        QVERIFY2(sim_.start(KEP_SIM_PATH, KEP_FIXTURES_DIR, {"--delay-ms", QString::number(delayMs)}),
                 qPrintable(sim_.errorText()));
        TavCoreShared::TavSettings::SettingsManager::instance()->setProperty("KepWebServiceUrl", sim_.url());
    }

    // getData on the worker thread while this (the plug-in's) thread serves events. Once the run's
    // first request is on the wire the host may cancel from a third thread, not joined here: the
    // plug-in's thread, busy in the request's own event loop, must stay free for the cancel.
    int getData(QString* data, bool cancel = false)
    {
        std::atomic<int> status{-100};
        QTimer poll;
        connect(&poll, &QTimer::timeout, [&] {
            if (!log_->lines().filter("call_GetTAVProductInfo").isEmpty() && !canceller_.joinable())
                canceller_ = std::thread([plugin = plugin_.get()] { plugin->cancelCurrentAction(); });
        });
        if (cancel)
            poll.start(5);
        QMetaObject::invokeMethod(&relay_, [&] { status = plugin_->getData(*data); });
        return QTest::qWaitFor([&] { return status != -100; }, 90000) ? int(status) : -100;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(TestDb::isolated(), "run through ctest: needs the temporary databases");
        worker_.start();
        relay_.moveToThread(&worker_);
        log_ = std::make_unique<LogCapture>(0);
        chained_ = qInstallMessageHandler(slowOnCancelLine);
    }

    void cleanup()
    {
        if (canceller_.joinable())
            canceller_.join();
        plugin_.reset();
    }

    void cleanupTestCase()
    {
        qInstallMessageHandler(chained_);
        log_.reset();
    }

    void runs_data()
    {
        QTest::addColumn<QString>("letters"); // the products asked; those of an earlier run before ">"
        QTest::addColumn<QVariant>("showTestUpdates");
        QTest::addColumn<QString>("answer"); // "earlier", or a pattern for all of it
        QTest::addColumn<QString>("log");    // a cancel is sent once a request is on the wire
        QTest::newRow("second run replaces the first") << "S>ST" << QVariant() << "<\\?xml.*Studio 2014.*Tools 2013.*"
                                                       << "S0 reply T0 reply done0";
        // The network abort used to be queued before the run's flag was set: with a slow logger
        // the worker finished the aborted product and asked the next one, and the cancel was lost.
        QTest::newRow("regression_cancelLostWhileLoggerIsSlow, no run before") << "ST" << QVariant() << ""
                                                                                << "S0 cancel abort kept";
        // The stored run is still connected, and hears the cancel too.
        QTest::newRow("cancel after a successful run") << "S>ST" << QVariant() << "earlier"
                                                       << "S0 cancel stored abort kept";
        QTest::newRow("empty database discards the earlier answer") << "S>" << QVariant() << "" << "empty done5";
        QTest::newRow("cancel during the last product")
            << "S" << QVariant() << "<\\?xml version=\"1.0\"\\?>\n<root>\n    <updates/>\n    <product_news/>\n</root>"
            << "S0 cancel abort done0";
        // Read once per run and sent for every product, even one without ids.
        for (const auto& [setting, on] : QList<QPair<QVariant, bool>>{{"1", true}, {1, true}, {"true", false}, {" 1", false}, {{}, false}})
            QTest::addRow("test updates [%s] %s", qPrintable(setting.toString()), setting.isValid() ? setting.typeName() : "absent")
                << "SB" << setting << (on ? ".*<id>1220</id>.*" : "(?!.*<id>1220</id>).*Studio 2014.*")
                << QStringLiteral("S%1 reply B%1 reply code10 done0").arg(on);
    }

    void runs()
    {
        QFETCH(QString, letters);
        QFETCH(QVariant, showTestUpdates);
        QFETCH(QString, answer);
        QFETCH(QString, log);
        TavCoreShared::TavSettings::SettingsManager::instance()->clear();
        plugin_ = std::make_unique<KepPlugin::KepDataProviderPlugin>();
        QVERIFY(plugin_->initialize());
        QString earlierData, data = "untouched";
        if (letters.contains('>')) {
            startSim(0, letters.section('>', 0, 0));
            QCOMPARE(getData(&earlierData), 0);
            QVERIFY(earlierData.contains("<update>"));
        }
        TavCoreShared::TavSettings::SettingsManager::instance()->setProperty("ShowTestUpdates", showTestUpdates);
        startSim(log.contains("cancel") ? 5000 : 0, letters.section('>', -1));
        log_->clear();
        // The status is the one the run's last line stands for.
        QCOMPARE(getData(&data, log.contains("cancel")), log.endsWith("kept") ? 2 : log.rightRef(1).toInt());
        QCOMPARE(log_->lines().filter(QRegularExpression("^\\d \"?(KepDataProviderPlugin|DataManager|NetworkManager)::")),
                 expectedLog(log));
        const QRegularExpression whole(QRegularExpression::anchoredPattern(answer), QRegularExpression::DotMatchesEverythingOption);
        QVERIFY2(answer == "earlier" ? data == earlierData : whole.match(data).hasMatch(), qPrintable(data.left(300)));
    }
};

QTEST_GUILESS_MAIN(TestGatheringRun)
#include "tst_gatheringrun.moc"
