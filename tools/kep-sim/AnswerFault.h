#pragma once

#include <QString>

namespace KepSim {

// One fault the simulator injects into every answer. Transport faults break HTTP itself and
// are played by the front layer; the others are SOAP answers made by the server object.
struct AnswerFault
{
    enum Kind { None, Hang, Reset, Http500, Html, Truncated, Trickle, SoapFault, ServiceCode };

    Kind kind = None;
    QString serviceText; // the result text of a ServiceCode fault, e.g. "[321] quota"

    bool breaksTransport() const { return kind >= Hang && kind <= Trickle; }

    // Reads a --fault value; false with *error set when it names no fault.
    static bool parse(const QString& text, AnswerFault* fault, QString* error);
    // The modes as the help text lists them.
    static QString description();
};

} // namespace KepSim
