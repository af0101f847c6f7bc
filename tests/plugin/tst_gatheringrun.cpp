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

const QString studio = QStringLiteral("{STUDIO}");
const QString tools = QStringLiteral("{TOOLS}");
const QString asked = QStringLiteral("NetworkManager::call_GetTAVProductInfo");

void addProduct(const QString& guid, const QString& mediaId, const QString& updateId)
{
    TestDb::writeRecord(true, guid, {{QStringLiteral("ProductName"), guid}, {QStringLiteral("MediaID"), mediaId},
                                     {QStringLiteral("UpdateID"), updateId}});
}

int countContaining(const QStringList& lines, const QString& text)
{
    int count = 0;
    for (const QString& line : lines)
        count += line.contains(text) ? 1 : 0;
    return count;
}

} // namespace

// Whole runs of the plug-in in this process, with the host's threads: the plug-in in the main
// thread with its event loop, getData on a worker, cancels from a third thread.
class TestGatheringRun : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void successiveRunsReplaceEachOther();
    void cancelBeforeAnyRunGivesEmpty();
    void cancelAfterSuccessfulRunKeepsEarlierAnswer();
    void emptyDatabaseDiscardsPreviousAnswer();
    void cancelDuringLastProductStillCompletes();
    void testUpdatesOnlyForExactlyOne_data();
    void testUpdatesOnlyForExactlyOne();
    void productWithoutIdsIsStillAsked();
    void cacheServesWhenServiceIsGone();

private:
    bool startSim(const QStringList& extra = {});
    int getData(QString* data);
    void cancelWhileFirstRequestIsInFlight();

    QThread worker_;
    QTimer cancelPoll_;
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
    plugin_.reset();
    sim_.reset();
    log_.reset();
}

void TestGatheringRun::cleanupTestCase()
{
    worker_.quit();
    worker_.wait();
}

bool TestGatheringRun::startSim(const QStringList& extra)
{
    sim_ = std::make_unique<KepSimProcess>();
    if (!sim_->start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR), extra)) {
        qWarning("%s", qPrintable(sim_->errorText()));
        return false;
    }
    TavCoreShared::TavSettings::SettingsManager::instance()->setProperty(QStringLiteral("KepWebServiceUrl"),
                                                                           sim_->url());
    return true;
}

// Runs getData on the worker thread while this (the plug-in's) thread serves events.
int TestGatheringRun::getData(QString* data)
{
    std::atomic<bool> done{false};
    int status = -1;
    QString result;
    KepDataProviderPlugin* plugin = plugin_.get();
    auto* runner = new QObject;
    runner->moveToThread(&worker_);
    QMetaObject::invokeMethod(runner, [&, plugin, runner] {
        status = plugin->getData(result);
        runner->deleteLater();
        done.store(true);
    });
    if (!QTest::qWaitFor([&] { return done.load(); }, 90000))
        return -100;
    *data = result;
    return status;
}

// Once the run's first product request is on the wire, the host cancels from another thread.
void TestGatheringRun::cancelWhileFirstRequestIsInFlight()
{
    cancelPoll_.disconnect();
    connect(&cancelPoll_, &QTimer::timeout, this, [this] {
        if (countContaining(log_->lines(), asked) != 1)
            return;
        cancelPoll_.stop();
        KepDataProviderPlugin* plugin = plugin_.get();
        std::thread canceller([plugin] { plugin->cancelCurrentAction(); });
        canceller.join();
    });
    cancelPoll_.start(5);
}

void TestGatheringRun::successiveRunsReplaceEachOther()
{
    QVERIFY(startSim());
    addProduct(studio, QStringLiteral("MEDIA-STUDIO-2014"), QStringLiteral("1200"));
    QString first;
    QCOMPARE(getData(&first), 0);
    QVERIFY(first.contains(QLatin1String("<id>1210</id>")));
    QVERIFY(!first.contains(QLatin1String("Tools 2013")));

    addProduct(tools, QStringLiteral("MEDIA-TOOLS-2013"), QStringLiteral("310"));
    QString second;
    QCOMPARE(getData(&second), 0);
    QVERIFY(second.contains(QLatin1String("<id>1210</id>")));
    QVERIFY(second.contains(QLatin1String("Tools 2013")));
    QCOMPARE(countContaining(log_->lines(), QStringLiteral("KepDataProviderPlugin::getData(): finished. Status = 0")), 2);
}

void TestGatheringRun::cancelBeforeAnyRunGivesEmpty()
{
    QVERIFY(startSim({QStringLiteral("--delay-ms"), QStringLiteral("3000")}));
    addProduct(studio, QStringLiteral("MEDIA-STUDIO-2014"), QStringLiteral("1200"));
    addProduct(tools, QStringLiteral("MEDIA-TOOLS-2013"), QStringLiteral("310"));
    QString data = QStringLiteral("untouched");
    cancelWhileFirstRequestIsInFlight();
    QCOMPARE(getData(&data), 2);
    QCOMPARE(data, QString());
    const QStringList lines = log_->lines();
    QCOMPARE(countContaining(lines, asked), 1);
    QVERIFY(lines.contains(QStringLiteral("2 NetworkManager::sendRequestToKep: operation cancelled")));
    QVERIFY(lines.contains(QStringLiteral("0 DataManager::cancelAction(): requested cancel")));
    QVERIFY(lines.contains(QStringLiteral("0 KepDataProviderPlugin::getData(): cancelled. Using data from previous call.")));
}

void TestGatheringRun::cancelAfterSuccessfulRunKeepsEarlierAnswer()
{
    QVERIFY(startSim());
    addProduct(studio, QStringLiteral("MEDIA-STUDIO-2014"), QStringLiteral("1200"));
    addProduct(tools, QStringLiteral("MEDIA-TOOLS-2013"), QStringLiteral("310"));
    QString earlier;
    QCOMPARE(getData(&earlier), 0);
    QVERIFY(earlier.startsWith(QLatin1String("<?xml")));

    QVERIFY(startSim({QStringLiteral("--delay-ms"), QStringLiteral("3000")}));
    log_->clear();
    cancelWhileFirstRequestIsInFlight();
    QString data;
    QCOMPARE(getData(&data), 2);
    QCOMPARE(data, earlier);
}

void TestGatheringRun::emptyDatabaseDiscardsPreviousAnswer()
{
    QVERIFY(startSim());
    addProduct(studio, QStringLiteral("MEDIA-STUDIO-2014"), QStringLiteral("1200"));
    QString data;
    QCOMPARE(getData(&data), 0);
    QVERIFY(!data.isEmpty());

    TestDb::reset();
    log_->clear();
    QCOMPARE(getData(&data), 5);
    QCOMPARE(data, QString());
    QCOMPARE(countContaining(log_->lines(), asked), 0);
    QVERIFY(log_->contains(QStringLiteral("1 DataManager::getUpdates(): product list is empty")));

    // The empty run is now the one kept: a cancelled run hands back its (empty) answer.
    addProduct(studio, QStringLiteral("MEDIA-STUDIO-2014"), QStringLiteral("1200"));
    addProduct(tools, QStringLiteral("MEDIA-TOOLS-2013"), QStringLiteral("310"));
    QVERIFY(startSim({QStringLiteral("--delay-ms"), QStringLiteral("3000")}));
    log_->clear();
    cancelWhileFirstRequestIsInFlight();
    QCOMPARE(getData(&data), 2);
    QCOMPARE(data, QString());
}

void TestGatheringRun::cancelDuringLastProductStillCompletes()
{
    QVERIFY(startSim({QStringLiteral("--delay-ms"), QStringLiteral("3000")}));
    addProduct(studio, QStringLiteral("MEDIA-STUDIO-2014"), QStringLiteral("1200"));
    cancelWhileFirstRequestIsInFlight();
    QString data;
    QCOMPARE(getData(&data), 0);
    QVERIFY(log_->contains(QStringLiteral("2 NetworkManager::sendRequestToKep: operation cancelled")));
    QCOMPARE(data, QStringLiteral("<?xml version=\"1.0\"?>\n<root>\n    <updates/>\n    <product_news/>\n</root>"));
}

void TestGatheringRun::testUpdatesOnlyForExactlyOne_data()
{
    QTest::addColumn<QVariant>("setting");
    QTest::addColumn<bool>("testUpdateListed");
    QTest::newRow("1") << QVariant(QStringLiteral("1")) << true;
    QTest::newRow("number 1") << QVariant(1) << true;
    QTest::newRow("true") << QVariant(QStringLiteral("true")) << false;
    QTest::newRow("yes") << QVariant(QStringLiteral("yes")) << false;
    QTest::newRow("blank before 1") << QVariant(QStringLiteral(" 1")) << false;
    QTest::newRow("absent") << QVariant() << false;
}

void TestGatheringRun::testUpdatesOnlyForExactlyOne()
{
    QFETCH(QVariant, setting);
    QFETCH(bool, testUpdateListed);
    QVERIFY(startSim());
    if (setting.isValid())
        TavCoreShared::TavSettings::SettingsManager::instance()->setProperty(QStringLiteral("ShowTestUpdates"), setting);
    addProduct(studio, QStringLiteral("MEDIA-STUDIO-2014"), QStringLiteral("1200"));
    QString data;
    QCOMPARE(getData(&data), 0);
    QCOMPARE(data.contains(QLatin1String("<id>1220</id>")), testUpdateListed);
    QCOMPARE(countContaining(log_->lines(), QStringLiteral("showTestUpdate=[%1]").arg(testUpdateListed ? 1 : 0)), 1);
}

void TestGatheringRun::productWithoutIdsIsStillAsked()
{
    QVERIFY(startSim());
    TestDb::writeRecord(true, QStringLiteral("{BARE}"), {{QStringLiteral("ProductName"), QStringLiteral("Bare")}});
    QString data;
    QCOMPARE(getData(&data), 0);
    QVERIFY(log_->contains(
        QStringLiteral("0 \"NetworkManager::call_GetTAVProductInfo: mediaId=[];updateId=[];showTestUpdate=[0]\"")));
    QVERIFY(log_->contains(QStringLiteral("0 NetworkManager::sendRequestToKep: reply ok")));
}

void TestGatheringRun::cacheServesWhenServiceIsGone()
{
    QVERIFY(startSim());
    addProduct(studio, QStringLiteral("MEDIA-STUDIO-2014"), QStringLiteral("1200"));
    QString fresh;
    QCOMPARE(getData(&fresh), 0);
    sim_->stop();
    log_->clear();
    QString cached;
    QCOMPARE(getData(&cached), 0);
    QCOMPARE(cached, fresh);
    QVERIFY(log_->contains(QStringLiteral("0 NetworkManager::sendRequestToKep: cached data loaded")));
}

QTEST_GUILESS_MAIN(TestGatheringRun)
#include "tst_gatheringrun.moc"
