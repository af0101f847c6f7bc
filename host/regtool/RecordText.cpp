#include "RecordText.h"

#include <QByteArray>
#include <QString>

namespace {

const char hexDigits[] = "0123456789ABCDEF";

bool isKeyChar(ushort c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-'
        || c == '.';
}

bool isHexDigit(ushort c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// QSettings' key escapes: %XX for Latin-1, %UXXXX beyond.
void appendKey(const QString& key, QByteArray& out)
{
    for (const QChar ch : key) {
        const ushort c = ch.unicode();
        if (isKeyChar(c)) {
            out += char(c);
        } else if (c <= 0xff) {
            out += '%';
            out += hexDigits[c >> 4];
            out += hexDigits[c & 0xf];
        } else {
            out += "%U";
            for (int shift = 12; shift >= 0; shift -= 4)
                out += hexDigits[(c >> shift) & 0xf];
        }
    }
}

// What the direct reader takes and QSettings reads as the same text: printable ASCII without
// quotes, escapes, list commas, comments, a type marker or blanks at either end.
bool isPlain(const QString& value)
{
    if (value.startsWith(QLatin1Char('@')) || value.startsWith(QLatin1Char(' ')) || value.endsWith(QLatin1Char(' ')))
        return false;
    for (const QChar ch : value) {
        const ushort c = ch.unicode();
        if (c < ' ' || c > '~' || c == '\\' || c == '"' || c == ',' || c == ';')
            return false;
    }
    return true;
}

// In double quotes, where commas and semicolons are text; QSettings reads a \x escape for as
// long as hex digits follow, so a hex digit right after one is escaped too. A leading @ is
// doubled, as QSettings takes "@..." for a typed value even when quoted.
void appendQuoted(const QString& value, QByteArray& out)
{
    out += '"';
    if (value.startsWith(QLatin1Char('@')))
        out += '@';
    bool afterHex = false;
    for (const QChar ch : value) {
        const ushort c = ch.unicode();
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
            afterHex = false;
        } else if (c >= ' ' && c <= '~' && !(afterHex && isHexDigit(c))) {
            out += char(c);
            afterHex = false;
        } else {
            out += "\\x";
            out += QByteArray::number(c, 16);
            afterHex = true;
        }
    }
    out += '"';
}

QString local(const std::string& text)
{
    return QString::fromLocal8Bit(text.data(), int(text.size()));
}

} // namespace

namespace RecordText {

QByteArray format(const std::map<std::string, std::string>& values)
{
    QByteArray out("[General]\n");
    for (const auto& entry : values) {
        appendKey(local(entry.first), out);
        out += '=';
        const QString value = local(entry.second);
        if (isPlain(value))
            out += value.toLatin1();
        else
            appendQuoted(value, out);
        out += '\n';
    }
    return out;
}

} // namespace RecordText
