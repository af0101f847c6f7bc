#include "KepDataProviderPlugin.h"

#include "DataManager.h"
#include "localdb/KepLog.h"
#include "network/NetworkManager.h"

// The controls are compiled into the static core; a static library's resources are
// registered only when asked for by name, and only from the global namespace.
static void registerUiResources()
{
    Q_INIT_RESOURCE(kepui);
}

namespace KepPlugin {

namespace {
const QString name_ = QStringLiteral("KEP");
const QString version_ = QStringLiteral("2.0.0.0");
} // namespace

NetworkManager* KepDataProviderPlugin::nm_ = nullptr;

KepDataProviderPlugin::KepDataProviderPlugin() = default;

KepDataProviderPlugin::~KepDataProviderPlugin()
{
    if (dataManager_) {
        dataManager_->deleteLater();
        dataManager_ = nullptr;
    }
}

QString KepDataProviderPlugin::name()
{
    return name_;
}

QString KepDataProviderPlugin::version()
{
    return version_;
}

bool KepDataProviderPlugin::initialize()
{
    registerUiResources();
    nm_ = new NetworkManager(this);
    connect(this, &KepDataProviderPlugin::interrupting, nm_, &NetworkManager::interrupt);
    return true;
}

bool KepDataProviderPlugin::validateTAVVersion(QString)
{
    return true;
}

bool KepDataProviderPlugin::validateDownloadedUpdate(QString, QString, int)
{
    return true;
}

QMap<QString, QObject*> KepDataProviderPlugin::qmlObjects()
{
    return {{QStringLiteral("kepplugin"), this}};
}

int KepDataProviderPlugin::getData(QString& data)
{
    auto* run = new DataManager(nullptr);
    connect(this, &KepDataProviderPlugin::interrupting, run, &DataManager::interrupt, Qt::DirectConnection);
    // Receivers run in connection order. The run's flag must be set before the request in
    // flight is aborted, or the worker can finish that product and pass the check before the
    // flag is up, losing the cancel; so the network client is moved behind the run.
    disconnect(this, &KepDataProviderPlugin::interrupting, nm_, &NetworkManager::interrupt);
    connect(this, &KepDataProviderPlugin::interrupting, nm_, &NetworkManager::interrupt);
    const int status = run->getUpdates();
    DataManager* used = run;
    if (status == 2) {
        KEP_LOG(0) << "KepDataProviderPlugin::getData(): cancelled. Using data from previous call.";
        if (dataManager_) {
            disconnect(this, nullptr, run, nullptr);
            run->deleteLater();
            used = dataManager_;
        } else {
            dataManager_ = run;
        }
    } else {
        KEP_LOG(0) << QStringLiteral("KepDataProviderPlugin::getData(): finished. Status = %1").arg(status);
        if (dataManager_) {
            disconnect(this, nullptr, dataManager_, nullptr);
            dataManager_->deleteLater();
        }
        dataManager_ = run;
    }
    data = used->data();
    return status;
}

void KepDataProviderPlugin::cancelCurrentAction()
{
    KEP_LOG(0) << "KepDataProviderPlugin::cancelCurrentAction()";
    emit interrupting();
}

} // namespace KepPlugin
