#pragma once

#include <QNetworkAccessManager>

namespace TavCoreShared {
namespace Network {

class NetworkCache;

// The host's one shared QNetworkAccessManager, created in the thread that first asks for it,
// and the persistent reply cache that goes with it.
class Q_DECL_EXPORT NetworkAccessManager : public QNetworkAccessManager
{
    Q_OBJECT
public:
    static NetworkAccessManager* instance();
    ~NetworkAccessManager() override;

    NetworkCache* cache();

private:
    NetworkAccessManager();
    Q_DISABLE_COPY(NetworkAccessManager)

    NetworkCache* cache_ = nullptr;
};

} // namespace Network
} // namespace TavCoreShared
