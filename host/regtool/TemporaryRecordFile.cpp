#include "TemporaryRecordFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// QTemporaryFile's and mkstemp's six random characters.
const QString staleNamePattern = QStringLiteral(".*.ini.??????");

bool sameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

TemporaryRecordFile::TemporaryRecordFile(const QString& recordPath)
    : record_(QFile::encodeName(recordPath))
{
}

TemporaryRecordFile::~TemporaryRecordFile()
{
    if (fd_ < 0)
        return;
    if (!path_.isEmpty())
        ::unlink(path_.constData());
    ::close(fd_);
}

bool TemporaryRecordFile::create()
{
    const QFileInfo record(QFile::decodeName(record_));
    const QByteArray pattern =
        QFile::encodeName(record.absolutePath() + QStringLiteral("/.") + record.fileName() + QStringLiteral(".XXXXXX"));
    // A sweeper may take the lock between creation and our lock, and remove the file: then
    // the file we hold has no name any more, and we start again.
    for (int attempt = 0; attempt < 8; ++attempt) {
        QByteArray name = pattern;
        const int fd = ::mkostemp(name.data(), O_CLOEXEC);
        if (fd < 0)
            return false;
        struct stat info;
        if (::flock(fd, LOCK_EX) == 0 && ::fstat(fd, &info) == 0 && info.st_nlink > 0) {
            fd_ = fd;
            path_ = name;
            return true;
        }
        ::close(fd);
    }
    return false;
}

bool TemporaryRecordFile::write(const QByteArray& text, unsigned mode)
{
    if (fd_ >= 0 || !create())
        return false;
    qint64 written = 0;
    while (written < text.size()) {
        const ssize_t done = ::write(fd_, text.constData() + written, size_t(text.size() - written));
        if (done < 0 && errno != EINTR)
            return false;
        written += qMax<ssize_t>(done, 0);
    }
    return ::fchmod(fd_, mode_t(mode)) == 0 && ::fdatasync(fd_) == 0;
}

bool TemporaryRecordFile::renameOverRecord()
{
    if (fd_ < 0 || std::rename(path_.constData(), record_.constData()) != 0)
        return false;
    path_.clear();
    return true;
}

void TemporaryRecordFile::removeStale(const QString& dir)
{
    const QStringList names = QDir(dir).entryList({staleNamePattern}, QDir::Files | QDir::Hidden | QDir::System);
    for (const QString& name : names) {
        const QByteArray path = QFile::encodeName(dir + QLatin1Char('/') + name);
        const int fd = ::open(path.constData(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
        if (fd < 0)
            continue;
        struct stat held;
        struct stat named;
        // Unlocked means its writer is gone; the name is checked again under the lock, as the
        // writer may have renamed the file into a record meanwhile.
        if (::fstat(fd, &held) == 0 && S_ISREG(held.st_mode) && ::flock(fd, LOCK_EX | LOCK_NB) == 0
            && ::lstat(path.constData(), &named) == 0 && sameFile(held, named))
            ::unlink(path.constData());
        ::close(fd);
    }
}
