#include "DataManager.h"

#include "ConsolidatedResponseWriter.h"
#include "KepDataProviderPlugin.h"
#include "localdb/KepKeys.h"
#include "localdb/KepLog.h"
#include "localdb/ThreadHandOver.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"
#include "network/NetworkManager.h"
#include "tavcore/SettingsManager.h"


namespace KepPlugin {

DataManager::DataManager(QObject* parent)
    : QObject(parent)
    , network_(KepDataProviderPlugin::networkManager())
    , localDb_(new LocalDataBaseManager(this))
{
    // The network client lives in the plug-in's thread: each product request runs there
    // while this thread waits for it.
    connect(this, &DataManager::requestProductDataFromKep, network_, &NetworkManager::call_GetTAVProductInfo,
            Qt::BlockingQueuedConnection);
    // A cancel can come from any thread as soon as the plug-in has connected this run.
    KEP_HANDED_OVER(&mutex_);
}

DataManager::~DataManager()
{
    clearData();
}

bool DataManager::cancelled()
{
    VisibleMutexLocker lock(&mutex_);
    return cancel_;
}

int DataManager::getUpdates()
{
    localDb_->findRegisteredProducts();
    if (productList().isEmpty()) {
        KEP_LOG(1) << "DataManager::getUpdates(): product list is empty";
        return 5;
    }
    if (cancelled())
        return 2;
    const bool showTestUpdate =
        TavCoreShared::TavSettings::SettingsManager::instance()->getProperty(Keys::ShowTestUpdates).toString()
        == QLatin1String("1");
    const QList<Product*> products = productList();
    for (Product* product : products) {
        if (cancelled())
            return 2;
        emit requestProductDataFromKep(product->getDataByKey(Keys::UpdateID), product->getDataByKey(Keys::MediaID),
                                       showTestUpdate);
        KEP_TAKEN_OVER(network_);
        product->parseRawXmlData(network_->networkReplyStr());
    }
    data_ = getConsolidatedProviderResponseInXml();
    return 0;
}

QList<Product*> DataManager::productList()
{
    return localDb_->productList();
}

QString DataManager::getConsolidatedProviderResponseInXml()
{
    return ConsolidatedResponseWriter::toXml(productList());
}

void DataManager::clearData()
{
    localDb_->clearData();
    {
        VisibleMutexLocker lock(&mutex_);
        cancel_ = false;
    }
    if (!data_.isNull())
        data_ = QString();
}

void DataManager::interrupt()
{
    KEP_LOG(0) << "DataManager::cancelAction(): requested cancel";
    {
        VisibleMutexLocker lock(&mutex_);
        cancel_ = true;
    }
    emit interrupting();
}

} // namespace KepPlugin
