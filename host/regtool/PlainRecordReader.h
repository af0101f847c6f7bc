#pragma once

#include <map>
#include <string>

class QByteArray;

// The usual record, as its writers leave it: "[General]", comment lines and key=value lines
// with plain keys and plain ASCII values. Read directly it costs a fraction of QSettings,
// which must parse a private copy of every record.
namespace PlainRecordReader {

// The top-level values exactly as QSettings reads them; false for any text that is not
// made of such lines, and then values is left as it was.
bool read(const QByteArray& text, std::map<std::string, std::string>& values);

} // namespace PlainRecordReader
