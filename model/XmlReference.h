#pragma once

#include <QChar>

namespace KepPlugin {
namespace XmlReference {

// The character of the reference of XML's own five ("&lt;", "&gt;", "&amp;", "&quot;",
// "&apos;") starting at from, with next set past it; a null QChar for anything else.
inline QChar predefined(const QChar* from, const QChar* end, const QChar** next)
{
    static const struct
    {
        const char* name;
        int size;
        char value;
    } known[] = {{"&lt;", 4, '<'}, {"&gt;", 4, '>'}, {"&amp;", 5, '&'}, {"&quot;", 6, '"'}, {"&apos;", 6, '\''}};
    for (const auto& reference : known) {
        if (end - from < reference.size)
            continue;
        int i = 1;
        while (i < reference.size && from[i].unicode() == ushort(reference.name[i]))
            ++i;
        if (i == reference.size) {
            *next = from + reference.size;
            return QLatin1Char(reference.value);
        }
    }
    return QChar();
}

} // namespace XmlReference
} // namespace KepPlugin
