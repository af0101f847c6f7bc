#include "PlainRecordReader.h"

#include <QByteArray>

#include <cstring>

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// The characters QSettings writes into a key unescaped.
bool isKeyChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-'
        || c == '.';
}

// Printable ASCII that means nothing special to QSettings inside a value: no escapes, quotes,
// lists or comments.
bool isPlainValueChar(char c)
{
    return (c >= ' ' && c <= '~' && c != '\\' && c != '"' && c != ',' && c != ';') || c == '\t';
}

bool readLine(const char* begin, const char* end, std::map<std::string, std::string>& values)
{
    while (begin < end && isBlank(*begin))
        ++begin;
    while (end > begin && isBlank(end[-1]))
        --end;
    if (begin == end)
        return true;
    if (*begin == ';')
        return std::memchr(begin, '\r', size_t(end - begin)) == nullptr;
    if (end - begin == 9 && std::memcmp(begin, "[General]", 9) == 0)
        return true;
    const char* keyEnd = begin;
    while (keyEnd < end && isKeyChar(*keyEnd))
        ++keyEnd;
    const char* equals = keyEnd;
    while (equals < end && isBlank(*equals))
        ++equals;
    if (keyEnd == begin || equals == end || *equals != '=')
        return false;
    const char* value = equals + 1;
    while (value < end && isBlank(*value))
        ++value;
    // A leading @ marks a typed value.
    if (value < end && *value == '@')
        return false;
    for (const char* c = value; c < end; ++c) {
        if (!isPlainValueChar(*c))
            return false;
    }
    values[std::string(begin, keyEnd)] = std::string(value, end);
    return true;
}

} // namespace

namespace PlainRecordReader {

bool read(const QByteArray& text, std::map<std::string, std::string>& values)
{
    std::map<std::string, std::string> read;
    const char* line = text.constData();
    const char* const end = line + text.size();
    while (line < end) {
        const char* lineEnd = static_cast<const char*>(std::memchr(line, '\n', size_t(end - line)));
        if (!lineEnd)
            lineEnd = end;
        if (!readLine(line, lineEnd, read))
            return false;
        line = lineEnd < end ? lineEnd + 1 : end;
    }
    values.swap(read);
    return true;
}

} // namespace PlainRecordReader
