#pragma once

#include "IDataProvider.h"

#include <QPointer>

namespace KepPlugin {

class DataManager;
class NetworkManager;

// The plug-in object the host loads: owns the one network client and keeps the last run's
// answer, so that a cancelled run can hand back the previous one.
class KepDataProviderPlugin : public IDataProvider
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "com.vasko.tav.plugins.dataprovider.kep/1.0" FILE "kepplugin.json")
    Q_INTERFACES(IDataProvider)
public:
    KepDataProviderPlugin();
    ~KepDataProviderPlugin() override;

    QString name() override;
    QString version() override;
    bool initialize() override;
    bool validateTAVVersion(QString version) override;
    int getData(QString& data) override;
    QMap<QString, QObject*> qmlObjects() override;
    bool validateDownloadedUpdate(QString updateId, QString fileName, int type) override;

    Q_INVOKABLE void cancelCurrentAction() override;

    static NetworkManager* networkManager() { return nm_; }

signals:
    void interrupting();

private:
    Q_DISABLE_COPY(KepDataProviderPlugin)

    DataManager* dataManager_ = nullptr;
    static NetworkManager* nm_;
};

} // namespace KepPlugin
