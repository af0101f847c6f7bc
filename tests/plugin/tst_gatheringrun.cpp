#include "KepSimProcess.h"
#include "LogCapture.h"
#include "TestDb.h"

#include "plugin/KepDataProviderPlugin.h"
#include "tavcore/SettingsManager.h"

#include <QThread>
#include <QtTest>

#include <atomic>
#include <memory>
#include <thread>

using namespace KepPlugin;

namespace {

const QString asked = QStringLiteral("NetworkManager::call_GetTAVProductInfo");
const QString bareDocument = QStringLiteral("<?xml version=\"1.0\"?>\n<root>\n    <updates/>\n    <product_news/>\n</root>");

void addProducts(int count)
{
    const QList<QStringList> products = {{"{STUDIO}", "MEDIA-STUDIO-2014", "1200"}, {"{TOOLS}", "MEDIA-TOOLS-2013", "310"}};
    for (int i = 0; i < count; ++i)
        TestDb::writeRecord(true, products[i][0], {{"MediaID", products[i][1]}, {"UpdateID", products[i][2]}});
}

void setSetting(const QString& key, const QVariant& value)
{
    TavCoreShared::TavSettings::SettingsManager::instance()->setProperty(key, value);
}

} // namespace

// Whole runs in this process with the host's threads: the plug-in in the main thread with its
// event loop, getData on a worker, cancels from a third thread.
class TestGatheringRun : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();
    void runs_data();
    void runs();
    void testUpdatesOnlyForExactlyOne_data();
    void testUpdatesOnlyForExactlyOne();
    void cacheServesWhenServiceIsGone();
    void regression_cancelLostWhileLoggerIsSlow();

private:
    void startSim(int delayMs = 0);
    int getData(QString* data);
    void cancelWhileRequestIsInFlight();

    QThread worker_;
    QTimer cancelPoll_;
    std::thread canceller_;
    std::unique_ptr<KepDataProviderPlugin> plugin_;
    std::unique_ptr<KepSimProcess> sim_;
    std::unique_ptr<LogCapture> log_;
};

void TestGatheringRun::initTestCase()
{
    QVERIFY2(TestDb::isolated(), "run through ctest: needs the temporary databases");
    worker_.start();
}

void TestGatheringRun::init()
{
    TestDb::reset();
    TavCoreShared::TavSettings::SettingsManager::instance()->clear();
    log_ = std::make_unique<LogCapture>(0);
    plugin_ = std::make_unique<KepDataProviderPlugin>();
    QVERIFY(plugin_->initialize());
}

void TestGatheringRun::cleanup()
{
    cancelPoll_.stop();
    if (canceller_.joinable())
        canceller_.join();
    plugin_.reset();
    sim_.reset();
    log_.reset();
}

void TestGatheringRun::cleanupTestCase()
{
    worker_.quit();
    worker_.wait();
}

void TestGatheringRun::startSim(int delayMs)
{
    sim_ = std::make_unique<KepSimProcess>();
    QVERIFY2(sim_->start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR),
                         {QStringLiteral("--delay-ms"), QString::number(delayMs)}),
             qPrintable(sim_->errorText()));
    setSetting(QStringLiteral("KepWebServiceUrl"), sim_->url());
}

// getData on the worker thread while this (the plug-in's) thread serves events.
int TestGatheringRun::getData(QString* data)
{
    std::atomic<bool> done{false};
    int status = -1;
    KepDataProviderPlugin* plugin = plugin_.get();
    auto* runner = new QObject;
    runner->moveToThread(&worker_);
    QMetaObject::invokeMethod(runner, [&, plugin, runner] {
        status = plugin->getData(*data);
        runner->deleteLater();
        done.store(true);
    });
    return QTest::qWaitFor([&] { return done.load(); }, 90000) ? status : -100;
}

// Once the run's first product request is on the wire, the host cancels from another thread.
void TestGatheringRun::cancelWhileRequestIsInFlight()
{
    cancelPoll_.disconnect();
    connect(&cancelPoll_, &QTimer::timeout, this, [this] {
        if (!log_->lines().filter(asked).isEmpty()) {
            cancelPoll_.stop();
            KepDataProviderPlugin* plugin = plugin_.get();
            // Not joined here: the plug-in's thread must stay free while the cancel is on its way.
            canceller_ = std::thread([plugin] { plugin->cancelCurrentAction(); });
        }
    });
    cancelPoll_.start(5);
}

void TestGatheringRun::runs_data()
{
    QTest::addColumn<int>("earlierProducts"); // -1: no earlier run
    QTest::addColumn<int>("products");
    QTest::addColumn<bool>("cancel");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("answer"); // "earlier", "new", or the exact text
    QTest::newRow("second run replaces the first") << 1 << 2 << false << 0 << "new";
    QTest::newRow("cancel before any run finished") << -1 << 2 << true << 2 << "";
    QTest::newRow("cancel after a successful run") << 1 << 2 << true << 2 << "earlier";
    QTest::newRow("empty database discards the earlier answer") << 1 << 0 << false << 5 << "";
    QTest::newRow("cancel after an empty run") << 0 << 2 << true << 2 << "";
    QTest::newRow("cancel during the last product") << -1 << 1 << true << 0 << bareDocument;
}

void TestGatheringRun::runs()
{
    QFETCH(int, earlierProducts);
    QFETCH(int, products);
    QFETCH(bool, cancel);
    QFETCH(int, status);
    QFETCH(QString, answer);
    QString earlier;
    if (earlierProducts >= 0) {
        startSim();
        addProducts(earlierProducts);
        QCOMPARE(getData(&earlier), earlierProducts ? 0 : 5);
        TestDb::reset();
    }
    addProducts(products);
    startSim(cancel ? 5000 : 0);
    if (cancel)
        cancelWhileRequestIsInFlight();
    log_->clear();
    QString data = QStringLiteral("untouched");
    QCOMPARE(getData(&data), status);
    const QStringList lines = log_->lines();
    if (answer == QLatin1String("earlier")) {
        QVERIFY(earlier.contains(QLatin1String("<update>")));
        QCOMPARE(data, earlier);
    } else if (answer == QLatin1String("new")) {
        QVERIFY(data.contains(QLatin1String("Studio 2014")) && data.contains(QLatin1String("Tools 2013")));
        QVERIFY(!earlier.contains(QLatin1String("Tools 2013")));
    } else {
        QCOMPARE(data, answer);
    }
    QCOMPARE(lines.filter(asked).size(), cancel ? 1 : products);
    QCOMPARE(lines.contains(QStringLiteral("2 NetworkManager::sendRequestToKep: operation cancelled")), cancel);
    QCOMPARE(lines.contains(QStringLiteral("0 KepDataProviderPlugin::getData(): cancelled. Using data from previous call.")),
             status == 2);
    QCOMPARE(lines.contains(QStringLiteral("1 DataManager::getUpdates(): product list is empty")), status == 5);
}

void TestGatheringRun::testUpdatesOnlyForExactlyOne_data()
{
    QTest::addColumn<QVariant>("setting");
    QTest::addColumn<bool>("listed");
    QTest::newRow("1") << QVariant(QStringLiteral("1")) << true;
    QTest::newRow("number 1") << QVariant(1) << true;
    QTest::newRow("true") << QVariant(QStringLiteral("true")) << false;
    QTest::newRow("blank before 1") << QVariant(QStringLiteral(" 1")) << false;
    QTest::newRow("absent") << QVariant() << false;
}

void TestGatheringRun::testUpdatesOnlyForExactlyOne()
{
    QFETCH(QVariant, setting);
    QFETCH(bool, listed);
    startSim();
    setSetting(QStringLiteral("ShowTestUpdates"), setting);
    addProducts(1);
    // A product without ids is still asked, with empty ones.
    TestDb::writeRecord(false, QStringLiteral("{BARE}"), {{"ProductName", "Bare"}});
    QString data;
    QCOMPARE(getData(&data), 0);
    QCOMPARE(data.contains(QLatin1String("<id>1220</id>")), listed);
    const QString flag = listed ? "1" : "0";
    QCOMPARE(log_->lines().filter(QStringLiteral("showTestUpdate=[%1]").arg(flag)).size(), 2);
    QVERIFY(log_->contains(
        QStringLiteral("0 \"NetworkManager::call_GetTAVProductInfo: mediaId=[];updateId=[];showTestUpdate=[%1]\"").arg(flag)));
}

void TestGatheringRun::cacheServesWhenServiceIsGone()
{
    startSim();
    addProducts(1);
    QString fresh;
    QCOMPARE(getData(&fresh), 0);
    sim_->stop();
    log_->clear();
    QString cached;
    QCOMPARE(getData(&cached), 0);
    QCOMPARE(cached, fresh);
    QVERIFY(log_->contains(QStringLiteral("0 NetworkManager::sendRequestToKep: cached data loaded")));
}

namespace {
QtMessageHandler chained_ = nullptr;
// A host logger that stalls on the run's cancel line, as a busy stderr can.
void slowOnCancelLine(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (message.contains(QLatin1String("DataManager::cancelAction()")))
        QThread::msleep(500);
    chained_(type, context, message);
}
} // namespace

// The network abort used to be queued before the run's flag was set: with a slow logger the
// worker finished the aborted product and asked the next one, and the cancel was lost.
void TestGatheringRun::regression_cancelLostWhileLoggerIsSlow()
{
    addProducts(2);
    startSim(5000);
    cancelWhileRequestIsInFlight();
    chained_ = qInstallMessageHandler(slowOnCancelLine);
    QString data;
    const int status = getData(&data);
    qInstallMessageHandler(chained_);
    QCOMPARE(status, 2);
    QCOMPARE(log_->lines().filter(asked).size(), 1);
}

QTEST_GUILESS_MAIN(TestGatheringRun)
#include "tst_gatheringrun.moc"
