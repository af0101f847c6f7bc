#include "AnswerFault.h"

#include <QRegularExpression>

namespace KepSim {

namespace {

struct Named
{
    const char* name;
    AnswerFault::Kind kind;
    const char* effect;
};

const Named modes[] = {
    {"hang", AnswerFault::Hang, "read the request, never answer"},
    {"reset", AnswerFault::Reset, "send the headers and half the body, then reset the connection"},
    {"http500", AnswerFault::Http500, "status 500 with a plain-text body"},
    {"html", AnswerFault::Html, "a captive-portal HTML page with status 200"},
    {"truncated", AnswerFault::Truncated, "Content-Length larger than the body, then close"},
    {"trickle", AnswerFault::Trickle, "the real headers, then the body one byte every 100 ms"},
    {"soapfault", AnswerFault::SoapFault, "a SOAP 1.1 Fault (status 500)"},
};

} // namespace

bool AnswerFault::parse(const QString& text, AnswerFault* fault, QString* error)
{
    for (const Named& mode : modes) {
        if (text == QLatin1String(mode.name)) {
            *fault = AnswerFault();
            fault->kind = mode.kind;
            return true;
        }
    }
    // The service's own way of saying no: a number in brackets leading the result text.
    static const QRegularExpression code(QStringLiteral("^\\[\\d+\\]"));
    if (code.match(text).hasMatch()) {
        *fault = AnswerFault();
        fault->kind = ServiceCode;
        fault->serviceText = text;
        return true;
    }
    *error = QStringLiteral("unknown --fault %1; one of: hang, reset, http500, html, truncated, trickle, "
                            "soapfault, or a service code such as \"[321] quota\"")
                 .arg(text);
    return false;
}

QString AnswerFault::description()
{
    QString lines;
    for (const Named& mode : modes)
        lines += QStringLiteral("  %1 %2\n").arg(QLatin1String(mode.name), -10).arg(QLatin1String(mode.effect));
    lines += QStringLiteral("  \"[N] text\" a normal SOAP answer whose result text is that, e.g. \"[321] quota\"\n");
    return lines;
}

} // namespace KepSim
