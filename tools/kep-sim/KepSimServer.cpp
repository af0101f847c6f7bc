#include "KepSimServer.h"

#include "KepSimServerObject.h"

namespace KepSim {

KepSimServer::KepSimServer(const FixtureStore& fixtures, int delayMs, const AnswerFault& fault, QObject* parent)
    : KDSoapServer(parent)
    , fixtures_(fixtures)
    , delayMs_(delayMs)
    , fault_(fault)
{
}

QObject* KepSimServer::createServerObject()
{
    return new KepSimServerObject(fixtures_, delayMs_, fault_);
}

} // namespace KepSim
