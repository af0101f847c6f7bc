#pragma once

#include <QString>

// Everything the reply parser can learn from an element: its name, its text and, in order,
// its children, a text child as "#". Written the same for the DOM and for the plain tree that
// stands in for it, so that the two can be compared.
template <typename Node>
QString xmlOutline(const Node& element)
{
    QString out = element.tagName() + QLatin1Char('[') + element.text() + QLatin1String("](");
    for (auto child = element.firstChild(); !child.isNull(); child = child.nextSibling())
        out += (child.toElement().isNull() ? QStringLiteral("#") : xmlOutline(child.toElement())) + QLatin1Char(' ');
    return out + QLatin1Char(')');
}
