#include "XmlNesting.h"

namespace KepPlugin {
namespace XmlNesting {

namespace {

// Index just past the terminator, or the end of the text when it is missing.
int skipPast(const QString& text, int from, QLatin1String terminator)
{
    const int at = text.indexOf(terminator, from);
    return at < 0 ? text.size() : at + terminator.size();
}

// Index of the '>' closing the start tag whose name begins at from (quoted attribute values
// may hold '>'), or -1.
int endOfStartTag(const QString& text, int from)
{
    QChar quote;
    for (int i = from; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (!quote.isNull()) {
            if (c == quote)
                quote = QChar();
        } else if (c == QLatin1Char('"') || c == QLatin1Char('\'')) {
            quote = c;
        } else if (c == QLatin1Char('>')) {
            return i;
        }
    }
    return -1;
}

// A linear scan that never counts fewer open elements than the DOM would build: comments,
// CDATA and processing instructions are skipped, declarations are read like content.
} // namespace

bool nestsTooDeep(const QString& text)
{
    int depth = 0;
    int at = 0;
    while ((at = text.indexOf(QLatin1Char('<'), at)) >= 0) {
        const QStringRef next = text.midRef(at + 1);
        if (next.startsWith(QLatin1String("!--"))) {
            at = skipPast(text, at + 4, QLatin1String("-->"));
        } else if (next.startsWith(QLatin1String("![CDATA["))) {
            at = skipPast(text, at + 9, QLatin1String("]]>"));
        } else if (next.startsWith(QLatin1Char('?'))) {
            at = skipPast(text, at + 2, QLatin1String("?>"));
        } else if (next.startsWith(QLatin1Char('/'))) {
            depth = qMax(0, depth - 1);
            ++at;
        } else if (next.startsWith(QLatin1Char('!'))) {
            ++at;
        } else {
            const int close = endOfStartTag(text, at + 1);
            if (close < 0)
                return false;
            if (text.at(close - 1) != QLatin1Char('/') && ++depth > maxElementNesting)
                return true;
            at = close + 1;
        }
    }
    return false;
}

} // namespace XmlNesting
} // namespace KepPlugin
