#include "DatabaseFile.h"

#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace KepPlugin {

namespace {

DatabaseFile::Status statusOf(const struct stat& info)
{
    if (!S_ISREG(info.st_mode))
        return DatabaseFile::Status::NotReadable;
    return info.st_size > DatabaseFile::maxBytes ? DatabaseFile::Status::TooLarge : DatabaseFile::Status::Read;
}

} // namespace

DatabaseFile::Status DatabaseFile::check(const QString& path)
{
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return Status::NotReadable;
    return statusOf(info);
}

DatabaseFile::Status DatabaseFile::read(const QString& path, QByteArray& bytes)
{
    bytes.clear();
    // Checked before opening, as opening a device may already do something; checked again on
    // the open file, which may have been replaced in between. Non-blocking, so that a FIFO
    // put there in that moment cannot block the open.
    Status status = check(path);
    if (status != Status::Read)
        return status;
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return Status::NotReadable;
    struct stat info;
    status = ::fstat(fd, &info) == 0 ? statusOf(info) : Status::NotReadable;
    // The file may grow after fstat: never more than the bound is read.
    char chunk[16384];
    while (status == Status::Read) {
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got == 0)
            break;
        if (got < 0 && errno != EINTR)
            status = Status::NotReadable;
        else if (got > 0 && bytes.size() + got > maxBytes)
            status = Status::TooLarge;
        else if (got > 0)
            bytes.append(chunk, int(got));
    }
    ::close(fd);
    if (status != Status::Read)
        bytes.clear();
    return status;
}

} // namespace KepPlugin
