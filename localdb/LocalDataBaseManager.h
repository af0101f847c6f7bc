#pragma once

#include "localdb/VersionedLibrary.h"

#include <QDomDocument>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>

namespace KepPlugin {

class Product;

// The products registered on this machine, read from the user's and the system's product
// databases after the previous generation's records there have been converted; writes a
// product's changed values back into its record.
class LocalDataBaseManager : public QObject
{
    Q_OBJECT
public:
    explicit LocalDataBaseManager(QObject* parent = nullptr);
    ~LocalDataBaseManager() override;

    void findRegisteredProducts();
    void readProductsDb(bool peruser);
    Product* getProductByGuid(QString guid) const;
    QList<Product*> productList() const { return products_; }
    void clearData();

    void convertRegDb(QString path);
    bool convertFncProductEntry(QString file, bool peruser);
    QDomDocument getXmlFromFile(QString file);

public slots:
    void setValueInRegDb(QString guid, QString key, QString value);

private:
    Q_DISABLE_COPY(LocalDataBaseManager)

    void writeValue(const QByteArray& guid, const QByteArray& key, const QByteArray& value, bool peruser);

    QList<Product*> products_;
    QHash<QString, Product*> byGuid_;
    VersionedLibrary regTool_;
};

} // namespace KepPlugin
