#pragma once

#include "AnswerFault.h"
#include "FixtureStore.h"

#include <KDSoapServer/KDSoapServer.h>

namespace KepSim {

// The SOAP endpoint: hands every connection a server object that answers from the fixtures.
class KepSimServer : public KDSoapServer
{
    Q_OBJECT
public:
    KepSimServer(const FixtureStore& fixtures, int delayMs, const AnswerFault& fault = AnswerFault(),
                 QObject* parent = nullptr);

    QObject* createServerObject() override;

private:
    Q_DISABLE_COPY(KepSimServer)

    FixtureStore fixtures_;
    int delayMs_;
    AnswerFault fault_;
};

} // namespace KepSim
