#pragma once

#include <QByteArray>
#include <QString>

namespace KepPlugin {

// Reads a file of the product databases, which anyone who can write there may have made
// into something else: only a regular file of bounded size is read, and nothing that could
// block (a FIFO), have side effects (a device) or fill the host's memory is opened.
class DatabaseFile
{
public:
    // Real records and profiles are a few hundred bytes to a few KB. A thousand times that
    // still reads in milliseconds, while its DOM (tens of bytes per byte of XML) stays a
    // small part of a 32-bit host's address space.
    static constexpr qint64 maxBytes = 1 << 20;

    enum class Status { Read, NotReadable, TooLarge };

    // Not readable also for anything but a regular file (after symbolic links).
    static Status read(const QString& path, QByteArray& bytes);
    // Whether read() would take the file, without reading it.
    static Status check(const QString& path);
};

} // namespace KepPlugin
