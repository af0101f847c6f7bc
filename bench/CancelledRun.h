#pragma once

#include "plugin/KepDataProviderPlugin.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QThread>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

// Helpers of the programs that time a cancel as the host makes it: the plug-in in the main
// thread with its event loop, getData on a worker thread, the cancel from a third thread.
namespace KepBench {

// HOME and TAV_SYSTEM_DB_DIR are read when the program loads: false, with a word on stderr,
// unless bench/run.sh has set up a temporary environment.
inline bool inTemporaryEnvironment(const char* program)
{
    if (!qEnvironmentVariableIsEmpty("TAV_SYSTEM_DB_DIR"))
        return true;
    std::fprintf(stderr, "%s: run through bench/run.sh (needs a temporary HOME and TAV_SYSTEM_DB_DIR)\n", program);
    return false;
}

// The plug-in initialised in this, the main, thread, and the worker thread getData runs on.
struct HostThreads
{
    HostThreads()
    {
        plugin.initialize();
        worker.start();
    }
    ~HostThreads()
    {
        worker.quit();
        worker.wait();
    }
    Q_DISABLE_COPY(HostThreads)
    KepPlugin::KepDataProviderPlugin plugin;
    QThread worker;
};

// One getData on the worker, cancelled once `waitForMoment(done)` returns in a third thread (`done`
// tells it that getData has returned already); milliseconds from the cancel call to getData's
// return, and getData's status in `status`.
template<typename Wait>
double cancelledRunMs(HostThreads& host, Wait waitForMoment, int* status)
{
    KepPlugin::KepDataProviderPlugin& plugin = host.plugin;
    using Clock = std::chrono::steady_clock;
    std::atomic<bool> done{false};
    Clock::time_point returned, cancelled;
    QEventLoop loop;
    auto* runner = new QObject;
    runner->moveToThread(&host.worker);
    QMetaObject::invokeMethod(runner, [&, runner] {
        QString data;
        *status = plugin.getData(data);
        returned = Clock::now();
        done.store(true);
        runner->deleteLater();
        QMetaObject::invokeMethod(&loop, "quit", Qt::QueuedConnection);
    });
    std::thread canceller([&] {
        waitForMoment(done);
        cancelled = Clock::now();
        plugin.cancelCurrentAction();
    });
    if (!done.load())
        loop.exec();
    canceller.join();
    return std::chrono::duration<double, std::milli>(returned - cancelled).count();
}

} // namespace KepBench
