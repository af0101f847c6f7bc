#pragma once

#include "AnswerFault.h"
#include "FixtureStore.h"

#include <KDSoapServer/KDSoapServer.h>
#include <QSet>

namespace KepSim {

// The SOAP endpoint: hands every connection a server object that answers from the fixtures.
class KepSimServer : public KDSoapServer
{
    Q_OBJECT
public:
    KepSimServer(const FixtureStore& fixtures, int delayMs, const AnswerFault& fault = AnswerFault(),
                 QObject* parent = nullptr);

    QObject* createServerObject() override;

protected:
    void incomingConnection(qintptr descriptor) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    Q_DISABLE_COPY(KepSimServer)

    FixtureStore fixtures_;
    int delayMs_;
    AnswerFault fault_;
    QSet<qintptr> connections_;
};

} // namespace KepSim
