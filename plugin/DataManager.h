#pragma once

#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>

namespace KepPlugin {

class LocalDataBaseManager;
class NetworkManager;
class Product;

// One gathering run: the registered products, asked one after another, and the consolidated
// answer. It can be cancelled from any thread between products.
class DataManager : public QObject
{
    Q_OBJECT
public:
    explicit DataManager(QObject* parent = nullptr);
    ~DataManager() override;

    // 0 done, 2 cancelled, 5 no registered products.
    int getUpdates();
    QList<Product*> productList();
    QString data() const { return data_; }
    QString getConsolidatedProviderResponseInXml();
    void clearData();

signals:
    void requestProductDataFromKep(QString updateId, QString mediaId, bool showTestUpdate);
    void interrupting();

public slots:
    void interrupt();

private:
    Q_DISABLE_COPY(DataManager)
    bool cancelled();

    NetworkManager* network_;
    LocalDataBaseManager* localDb_;
    QString data_;
    QMutex mutex_;
    bool cancel_ = false;
};

} // namespace KepPlugin
