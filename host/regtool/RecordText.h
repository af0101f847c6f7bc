#pragma once

#include <map>
#include <string>

class QByteArray;

// A record's INI text as QSettings reads it back, made in memory: formatting through
// QSettings itself needs a file with a lock file beside it, and a killed writer leaves both.
namespace RecordText {

// Top-level keys under "[General]"; a plain value is written as it is, so that the direct
// reader takes the record, anything else quoted and escaped. Keys and values are in the
// local 8-bit encoding; keys must not hold a slash or a backslash.
QByteArray format(const std::map<std::string, std::string>& values);

} // namespace RecordText
