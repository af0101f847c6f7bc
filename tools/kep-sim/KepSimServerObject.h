#pragma once

#include "AnswerFault.h"
#include "FixtureStore.h"

#include <KDSoapServer/KDSoapServerObjectInterface.h>

#include <QObject>

namespace KepSim {

// Answers GetTAVProductInfo for one connection: checks the AuthHeader, then returns the
// fixture's product XML, or a bracketed service code text, as the text of the result; or the
// injected SOAP fault or service code instead.
class KepSimServerObject : public QObject, public KDSoapServerObjectInterface
{
    Q_OBJECT
    Q_INTERFACES(KDSoapServerObjectInterface)
public:
    KepSimServerObject(const FixtureStore& fixtures, int delayMs, const AnswerFault& fault);

    void processRequest(const KDSoapMessage& request, KDSoapMessage& response, const QByteArray& soapAction) override;

    static const QString serviceNamespace;
    static QString passwordFor(const QString& login);

private:
    Q_DISABLE_COPY(KepSimServerObject)

    QString answerText(const KDSoapMessage& request, QString* note);

    const FixtureStore& fixtures_;
    int delayMs_;
    AnswerFault fault_;
};

} // namespace KepSim
