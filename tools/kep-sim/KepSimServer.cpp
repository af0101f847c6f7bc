#include "KepSimServer.h"

#include "KepSimServerObject.h"

namespace KepSim {

KepSimServer::KepSimServer(const FixtureStore& fixtures, int delayMs, QObject* parent)
    : KDSoapServer(parent)
    , fixtures_(fixtures)
    , delayMs_(delayMs)
{
}

QObject* KepSimServer::createServerObject()
{
    return new KepSimServerObject(fixtures_, delayMs_);
}

} // namespace KepSim
