#pragma once

#include <QMap>
#include <QObject>
#include <QString>

// The host's interface to a data provider: identity, one-time set-up, and the data itself.
class IDataProvider : public QObject
{
    Q_OBJECT
public:
    ~IDataProvider() override = default;

    virtual QString name() = 0;
    virtual QString version() = 0;
    virtual bool initialize() = 0;
    virtual bool validateTAVVersion(QString version) = 0;
    virtual int getData(QString& data) = 0;
    virtual QMap<QString, QObject*> qmlObjects() = 0;

public slots:
    virtual void cancelCurrentAction() = 0;
    virtual bool validateDownloadedUpdate(QString updateId, QString fileName, int type) = 0;
};

Q_DECLARE_INTERFACE(IDataProvider, "com.vasko.tav.dataprovider.kep/1.0")
