#include "PluginHost.h"

#include "plugin/IDataProvider.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QTimer>

namespace {
const QString pluginIid = QStringLiteral("com.vasko.tav.plugins.dataprovider.kep/1.0");
} // namespace

PluginHost::PluginHost() = default;

PluginHost::~PluginHost()
{
    shutdown();
}

QString PluginHost::defaultPluginPath()
{
    const QString bin = QCoreApplication::applicationDirPath();
    for (const QString& dir : {QStringLiteral("/../lib/tav/plugins"), QStringLiteral("/../" KEP_INSTALL_LIBDIR "/tav/plugins")}) {
        const QString path = QDir::cleanPath(bin + dir + QStringLiteral("/libkepdataprovider.so"));
        if (QFileInfo::exists(path))
            return path;
    }
    return QDir::cleanPath(bin + QStringLiteral("/../lib/tav/plugins/libkepdataprovider.so"));
}

QString PluginHost::load(const QString& path)
{
    loader_.setFileName(path);
    const QString iid = loader_.metaData().value(QStringLiteral("IID")).toString();
    if (iid.isEmpty())
        return QStringLiteral("cannot read plug-in metadata of %1: %2").arg(path, loader_.errorString());
    if (iid != pluginIid)
        return QStringLiteral("%1 is not a KEP data provider (IID %2)").arg(path, iid);
    QObject* instance = loader_.instance();
    if (!instance)
        return QStringLiteral("cannot load %1: %2").arg(path, loader_.errorString());
    provider_ = qobject_cast<IDataProvider*>(instance);
    if (!provider_)
        return QStringLiteral("%1 does not implement the data-provider interface").arg(path);
    provider_->initialize();
    return QString();
}

void PluginHost::start(int cancelAfterMs)
{
    // One object in the worker thread receives every run, so the plug-in's deferred deletions
    // happen there between runs.
    if (!runner_) {
        runner_ = new QObject;
        runner_->moveToThread(&worker_);
        connect(&worker_, &QThread::finished, runner_, &QObject::deleteLater);
        // Made once, before the worker starts: every run is then just a queued signal.
        connect(this, &PluginHost::runRequested, runner_, [this] {
            QString data;
            const int status = provider_->getData(data);
            emit finished(status, data);
        });
        worker_.start();
    }
    emit starting();
    emit runRequested();
    if (cancelAfterMs >= 0 && !canceller_.isRunning()) {
        auto* timer = new QTimer;
        timer->setSingleShot(true);
        timer->setInterval(cancelAfterMs);
        timer->moveToThread(&canceller_);
        connect(timer, &QTimer::timeout, timer, [this] { cancel(); });
        connect(&canceller_, &QThread::started, timer, qOverload<>(&QTimer::start));
        connect(&canceller_, &QThread::finished, timer, &QObject::deleteLater);
        canceller_.start();
    }
}

void PluginHost::cancel()
{
    if (!provider_)
        return;
    emit cancelling();
    provider_->cancelCurrentAction();
}

QString PluginHost::pluginName() const
{
    return provider_ ? provider_->name() : QString();
}

QString PluginHost::pluginVersion() const
{
    return provider_ ? provider_->version() : QString();
}

QMap<QString, QObject*> PluginHost::qmlObjects() const
{
    return provider_ ? provider_->qmlObjects() : QMap<QString, QObject*>();
}

void PluginHost::shutdown()
{
    canceller_.quit();
    canceller_.wait();
    delete provider_;
    provider_ = nullptr;
    worker_.quit();
    worker_.wait();
    runner_ = nullptr;
}
