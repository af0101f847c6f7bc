#include "KepSimServer.h"

#include "KepSimServerObject.h"

#include <QCoreApplication>
#include <QEvent>
#include <QSocketNotifier>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

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

// A client that sends the HTTP header and the body in two writes (Qt does) waits, with Nagle,
// for the header's ACK, which Linux delays by some 40 ms on a kept-alive connection. Quick-ack
// mode ends by itself, so it is asked for again whenever a connection has data to read.
void KepSimServer::incomingConnection(qintptr descriptor)
{
    if (connections_.isEmpty() && QCoreApplication::instance())
        QCoreApplication::instance()->installEventFilter(this);
    connections_.insert(descriptor);
    KDSoapServer::incomingConnection(descriptor);
}

bool KepSimServer::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::SockAct) {
        const auto* notifier = qobject_cast<QSocketNotifier*>(watched);
        if (notifier && notifier->type() == QSocketNotifier::Read && connections_.contains(notifier->socket())) {
            const int on = 1;
            setsockopt(int(notifier->socket()), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
        }
    }
    return false;
}

} // namespace KepSim
