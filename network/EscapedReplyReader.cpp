#include "EscapedReplyReader.h"

#include "model/XmlReference.h"

namespace KepPlugin {

namespace {

// No HTML element has a prefixed name or one this long, so the reader ignores such a tag.
bool isForeignElement(const QStringRef& name)
{
    return name.contains(QLatin1Char(':')) || name.size() > 10;
}

bool isNameChar(QChar c)
{
    const ushort u = c.unicode();
    return (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') || u == ':' || u == '_'
        || u == '-' || u == '.';
}

int skipName(const QString& reply, int i)
{
    while (i < reply.size() && isNameChar(reply.at(i)))
        ++i;
    return i;
}

int skipSpace(const QString& reply, int i)
{
    while (i < reply.size() && (reply.at(i) == QLatin1Char(' ') || reply.at(i) == QLatin1Char('\t')
                                || reply.at(i) == QLatin1Char('\n') || reply.at(i) == QLatin1Char('\r')))
        ++i;
    return i;
}

// Index past the attributes from i on, each after a blank and written name="value" or
// name='value' with no markup in the value; -1 for anything else before the tag's end.
int skipAttributes(const QString& reply, int i)
{
    const int size = reply.size();
    for (;;) {
        const int next = skipSpace(reply, i);
        const int nameEnd = skipName(reply, next);
        if (nameEnd == next)
            return next;
        if (next == i || nameEnd + 2 > size || reply.at(nameEnd) != QLatin1Char('='))
            return -1;
        const QChar quote = reply.at(nameEnd + 1);
        if (quote != QLatin1Char('"') && quote != QLatin1Char('\''))
            return -1;
        const int close = reply.indexOf(quote, nameEnd + 2);
        if (close < 0)
            return -1;
        const QStringRef value = reply.midRef(nameEnd + 2, close - nameEnd - 2);
        if (value.contains(QLatin1Char('<')) || value.contains(QLatin1Char('&')) || value.contains(QLatin1Char('>')))
            return -1;
        i = close + 1;
    }
}

// Moves past a start or end tag of a foreign element starting at `at`; false for any other
// markup.
bool skipTag(const QString& reply, int* at)
{
    int i = *at + 1;
    const bool end = i < reply.size() && reply.at(i) == QLatin1Char('/');
    const int nameStart = end ? i + 1 : i;
    i = skipName(reply, nameStart);
    if (!isForeignElement(reply.midRef(nameStart, i - nameStart)))
        return false;
    i = end ? skipSpace(reply, i) : skipAttributes(reply, i);
    if (i < 0)
        return false;
    const QStringRef close = reply.midRef(i, 2);
    if (close.startsWith(QLatin1Char('>')) || (!end && close == QLatin1String("/>"))) {
        *at = i + close.indexOf(QLatin1Char('>')) + 1;
        return true;
    }
    return false;
}

// The declaration that opens an envelope, and nothing else of its kind.
bool skipDeclaration(const QString& reply, int* at)
{
    if (*at != 0 || !reply.startsWith(QLatin1String("<?xml")))
        return false;
    const int i = skipAttributes(reply, 5);
    if (i < 0 || reply.midRef(i, 2) != QLatin1String("?>"))
        return false;
    *at = i + 2;
    return true;
}

bool isAsciiSpace(ushort u)
{
    return u == ' ' || (u >= '\t' && u <= '\r');
}

// Characters outside ASCII that the reader turns into something else.
bool isSpecial(QChar c)
{
    return c.isSpace() || c.unicode() == 0xfdd0 || c.unicode() == 0xfdd1;
}

} // namespace

bool EscapedReplyReader::read(const QString& reply, QString* text)
{
    QString out(reply.size(), Qt::Uninitialized);
    QChar* to = out.data();
    const QChar* const begin = reply.constData();
    const QChar* const end = begin + reply.size();
    bool dropSpace = true; // at the start of the text, and after a space already written
    for (const QChar* p = begin; p < end;) {
        const ushort u = p->unicode();
        if (u == '<') {
            int at = int(p - begin);
            if (!(reply.midRef(at, 2) == QLatin1String("<?") ? skipDeclaration(reply, &at) : skipTag(reply, &at)))
                return false;
            p = begin + at;
            continue;
        }
        if (isAsciiSpace(u)) {
            ++p;
            if (!dropSpace)
                *to++ = QLatin1Char(' ');
            dropSpace = true;
            continue;
        }
        dropSpace = false;
        if (u == '&') {
            // Any other reference goes to the HTML reader, which knows hundreds.
            const QChar c = XmlReference::predefined(p, end, &p);
            if (c.isNull())
                return false;
            *to++ = c;
        } else if (u == 0) {
            return false; // never in an answer, which ends at its first zero
        } else if (u < 0x80) {
            *to++ = *p++;
        } else if (p->isHighSurrogate() && p + 1 < end && p[1].isLowSurrogate()) {
            *to++ = *p++;
            *to++ = *p++;
        } else if (p->isSurrogate() || isSpecial(*p)) {
            return false;
        } else {
            *to++ = *p++;
        }
    }
    out.truncate(int(to - out.constData()));
    // The references shrink, and the text lives as long as the parse; give the slack back.
    out.squeeze();
    *text = out;
    return true;
}

} // namespace KepPlugin
