// Cancel latency: the plug-in in the main thread with its event loop, getData on a worker
// thread, cancelCurrentAction from a third thread while the first product's request waits on a
// simulator that holds every answer for 10 s. Timed from the cancel call to getData's return.
// HOME and TAV_SYSTEM_DB_DIR are read when the program loads, so it runs only inside the
// temporary environment bench/run.sh sets up.
// usage: bench_cancel [--quick]

#include "BenchStats.h"
#include "CancelledRun.h"

#include "localdb/KepKeys.h"
#include "plugin/KepDataProviderPlugin.h"
#include "tavcore/Logger.h"
#include "tavcore/SettingsManager.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QProcess>
#include <QSettings>
#include <QThread>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <set>
#include <thread>

using namespace KepPlugin;

namespace {

// Set once the plug-in logs that it is asking the service.
std::atomic<bool> asking{false};

void watchLog(QtMsgType, const QMessageLogContext&, const QString& line)
{
    if (line.contains(QLatin1String("NetworkManager::call_GetTAVProductInfo")))
        asking.store(true);
}

// kep-sim on a free loopback port; its URL, or an empty string.
QString startSim(QProcess& sim)
{
    static const QByteArray marker("kep-sim listening on ");
    sim.setStandardErrorFile(QProcess::nullDevice());
    sim.start(QStringLiteral(KEP_SIM_PATH), {QStringLiteral("--fixtures"), QStringLiteral(KEP_FIXTURES_DIR),
                                             QStringLiteral("--port"), QStringLiteral("0"),
                                             QStringLiteral("--delay-ms"), QStringLiteral("10000")});
    QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired() && sim.state() != QProcess::NotRunning) {
        if (!sim.canReadLine() && !sim.waitForReadyRead(int(deadline.remainingTime())))
            continue;
        while (sim.canReadLine()) {
            const QByteArray line = sim.readLine().trimmed();
            if (line.startsWith(marker))
                return QString::fromUtf8(line.mid(marker.size()));
        }
    }
    return QString();
}

void writeRecord(const QString& guid, const QString& media, const QString& update)
{
    QDir().mkpath(Keys::USER_DB_DIR);
    QSettings record(Keys::USER_DB_DIR + QLatin1Char('/') + guid + QStringLiteral(".ini"), QSettings::IniFormat);
    record.setValue(QStringLiteral("MediaID"), media);
    record.setValue(QStringLiteral("UpdateID"), update);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (!KepBench::inTemporaryEnvironment("bench_cancel"))
        return 64;
    const int tries = app.arguments().contains(QStringLiteral("--quick")) ? 20 : 100;
    // Two products: the one in flight is abandoned and the second is never asked.
    writeRecord(QStringLiteral("{BENCH-1}"), QStringLiteral("MEDIA-STUDIO-2014"), QStringLiteral("1200"));
    writeRecord(QStringLiteral("{BENCH-2}"), QStringLiteral("MEDIA-TOOLS-2013"), QStringLiteral("310"));
    QProcess sim;
    const QString url = startSim(sim);
    if (url.isEmpty()) {
        std::fprintf(stderr, "bench_cancel: kep-sim did not start\n");
        return 1;
    }
    auto* settings = TavCoreShared::TavSettings::SettingsManager::instance();
    settings->setProperty(Keys::KepWebServiceUrl, url);
    settings->setProperty(Keys::ShowTestUpdates, QStringLiteral("0"));
    // Level 0 so that the line announcing the request is emitted; the handler only looks at it.
    TavCoreShared::TavLogger::Logger::instance()->setLogLevel(0);
    qInstallMessageHandler(watchLog);
    KepBench::HostThreads host;

    QVector<double> latencies;
    std::set<int> statuses;
    for (int i = 0; i < tries; ++i) {
        asking.store(false);
        int status = -1;
        latencies.append(KepBench::cancelledRunMs(host, [](const std::atomic<bool>& done) {
            while (!asking.load() && !done.load())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            // Long enough for the request to be written and waiting on the simulator.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }, &status));
        statuses.insert(status);
    }
    qInstallMessageHandler(nullptr);
    sim.terminate();
    sim.waitForFinished(3000);

    QStringList seen;
    for (int status : statuses)
        seen.append(QString::number(status));
    using namespace KepBench;
    std::printf("COMPARE %d tries, cancel 20 ms after the request was sent, getData statuses [%s]: "
                "median %.2f ms, max %.2f ms, min %.2f ms\n",
                tries, qPrintable(seen.join(QLatin1Char(','))), median(latencies), maximum(latencies),
                minimum(latencies));
    return 0;
}
