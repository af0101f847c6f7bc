#pragma once

#include <QString>

namespace KepPlugin {

// Looks over an answer before the HTML reader of the SOAP clean-up sees it, in one linear pass,
// and names what would make that reader run away in time or memory, or crash the host.
// Real answers are a SOAP envelope of a dozen elements around an escaped payload, far inside
// every limit here; the limits are this system's own, chosen from measurements of the reader.
class MarkupGuard
{
public:
    // The reader's time grows with the square of the nesting depth and of the number of
    // images, lists and other blocks; at these limits the worst answer takes well under 2 s.
    static constexpr int maxDepth = 64;
    static constexpr int maxTags = 1024;

    // Empty when the text may go to the HTML reader, else why it may not.
    static QString refusal(const QString& text);
};

} // namespace KepPlugin
