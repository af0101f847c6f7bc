#pragma once

#include <QMap>
#include <QObject>
#include <QPluginLoader>
#include <QString>
#include <QThread>

class IDataProvider;

// Loads the data provider the way the host does and runs getData on a worker thread while
// the calling (main) thread keeps its event loop going.
class PluginHost : public QObject
{
    Q_OBJECT
public:
    PluginHost();
    ~PluginHost() override;
    Q_DISABLE_COPY(PluginHost)

    // Loads, checks the IID and the interface, initialises; on failure returns the reason.
    QString load(const QString& path);
    // Starts one getData run on the worker thread; finished() follows. May be called again once
    // finished() has come. A cancel is sent from a third thread after cancelAfterMs when that is
    // 0 or more (first run only).
    void start(int cancelAfterMs);
    // Asks the plug-in to stop the run in progress; finished() still follows.
    void cancel();
    // The objects the plug-in offers to the host's QML; empty before load() succeeded.
    QMap<QString, QObject*> qmlObjects() const;
    // Deletes the plug-in object, then lets the worker thread run the deletions it deferred.
    void shutdown();

    // The loaded plug-in's name() and version(); empty before load() succeeded.
    QString pluginName() const;
    QString pluginVersion() const;

    static QString defaultPluginPath();

signals:
    // Sent in the calling thread before the run is handed to the worker.
    void starting();
    // Sent in the worker thread once getData has returned.
    void finished(int status, const QString& data);
    // Sent in the cancelling thread just before the plug-in is asked to stop.
    void cancelling();
    void runRequested();

private:
    QPluginLoader loader_;
    IDataProvider* provider_ = nullptr;
    QObject* runner_ = nullptr;
    QThread worker_;
    QThread canceller_;
};
