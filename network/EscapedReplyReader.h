#pragma once

#include <QString>

namespace KepPlugin {

// The SOAP clean-up's HTML reader costs as much as parsing the answer twice. Real answers are a
// few envelope elements around one escaped payload, and for those its result is simply the text
// with the envelope's tags dropped, the five XML entities resolved and white space collapsed;
// this reads such answers in one pass. Anything else (other markup, other references, characters
// the reader treats specially) is declined and goes to the HTML reader as before.
class EscapedReplyReader
{
public:
    // True, with the text the HTML reader would give, when the answer is of that plain shape.
    static bool read(const QString& reply, QString* text);
};

} // namespace KepPlugin
