#include "ProductRecord.h"

#include "PlainRecordReader.h"
#include "RecordText.h"
#include "TemporaryRecordFile.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>
#include <QSettings>
#include <QString>
#include <QStringList>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdlib>
#include <set>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Both locations are fixed when the library is loaded, like the host's own copy.
const std::string userDbDir_ = [] {
    const char* home = std::getenv("HOME");
    return (home && *home) ? std::string(home) + "/vasko/tav/db" : std::string();
}();

const std::string systemDbDir_ = [] {
    const char* dir = std::getenv("TAV_SYSTEM_DB_DIR");
    return (dir && *dir) ? std::string(dir) : std::string("/opt/vasko/tav/db");
}();

QString local(const std::string& text)
{
    return QString::fromLocal8Bit(text.data(), int(text.size()));
}

std::string narrow(const QString& text)
{
    return text.toLocal8Bit().toStdString();
}

bool validGuid(const std::string& guid)
{
    return !guid.empty() && guid.find('/') == std::string::npos && guid != "." && guid != "..";
}

// QSettings reads both separators as groups, so such a key would vanish from the top level.
bool validKey(const std::string& key)
{
    return !key.empty() && key.find_first_of("/\\") == std::string::npos;
}

// QSettings accepts almost anything and silently drops what it cannot parse; a record
// must at least be text made of blank, comment, section and key=value lines.
bool looksLikeIni(const QByteArray& bytes)
{
    if (bytes.contains('\0'))
        return false;
    bool continued = false;
    const QList<QByteArray> lines = bytes.split('\n');
    for (const QByteArray& raw : lines) {
        const QByteArray line = raw.trimmed();
        const bool wasContinued = continued;
        continued = line.endsWith('\\');
        if (wasContinued || line.isEmpty() || line.startsWith(';') || line.startsWith('#'))
            continue;
        if (line.startsWith('[') ? !line.endsWith(']') : !line.contains('='))
            return false;
    }
    return true;
}

// Real records are a few hundred bytes; anyone who can write to a database may leave a file
// there that is not one. A bound keeps such a file, and the copies parsing makes of it, to a
// few MiB of the host's address space.
constexpr qint64 maxRecordBytes = 1 << 20;

// Without QFile's extra status calls: reading a whole database is mostly system calls. Only a
// regular file is opened (a device may act on open), without blocking (a FIFO put there in the
// meantime) and without becoming the controlling terminal.
bool readRegularFile(const std::string& path, QByteArray& bytes)
{
    struct stat info;
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > maxRecordBytes)
        return false;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return false;
    bool ok = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    char chunk[16384];
    while (ok && bytes.size() <= maxRecordBytes) {
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got == 0)
            break;
        if (got > 0)
            bytes.append(chunk, int(got));
        else
            ok = errno == EINTR;
    }
    ::close(fd);
    return ok && bytes.size() <= maxRecordBytes;
}

// QSettings keeps parsed files by name and trusts an unchanged size and millisecond time
// stamp, so a record rewritten within one millisecond would read stale: each load parses a
// private copy. A fresh temporary file per record cost more than the parse (inode allocation),
// so the copy goes to one in-memory file, stamped with a time of its own that makes QSettings
// read it again.
QMutex scratchMutex_;

QString scratchCopy(const QByteArray& bytes)
{
    static const int fd = memfd_create("regtool-record", MFD_CLOEXEC);
    static const QString path = QStringLiteral("/proc/self/fd/%1").arg(fd);
    static const bool usable = fd >= 0 && QFileInfo::exists(path);
    static qint64 stamp = 0;
    if (!usable || ftruncate(fd, 0) != 0
        || pwrite(fd, bytes.constData(), size_t(bytes.size()), 0) != qint64(bytes.size()))
        return QString();
    ++stamp;
    const timespec times[2] = {{0, UTIME_OMIT}, {time_t(1000000000 + stamp / 1000), long(stamp % 1000) * 1000000}};
    return futimens(fd, times) == 0 ? path : QString();
}

// Temporary files of writers killed before their rename are removed once per process and
// directory, on the first record touched there: they only appear when a process dies, and
// every run reads its records.
void removeStaleTemporaries(const std::string& dir)
{
    static QMutex mutex;
    static std::set<std::string> swept;
    QMutexLocker lock(&mutex);
    if (dir.empty() || !swept.insert(dir).second)
        return;
    TemporaryRecordFile::removeStale(local(dir));
}

QString valueText(const QVariant& value)
{
    // An unquoted comma makes QSettings split the text; a record means it as one value.
    return value.type() == QVariant::StringList ? value.toStringList().join(QStringLiteral(", "))
                                                : value.toString();
}

} // namespace

ProductRecord::ProductRecord(std::string guid, bool peruser)
    : guid_(std::move(guid))
{
    const std::string& dir = peruser ? userDbDir_ : systemDbDir_;
    if (!dir.empty() && validGuid(guid_))
        path_ = dir + "/" + guid_ + ".ini";
    removeStaleTemporaries(dir);
}

ProductRecord::~ProductRecord() = default;

std::string ProductRecord::userDbDir()
{
    return userDbDir_;
}

std::string ProductRecord::systemDbDir()
{
    return systemDbDir_;
}

bool ProductRecord::isExist()
{
    return !path_.empty() && QFileInfo(local(path_)).isFile();
}

bool ProductRecord::load()
{
    QByteArray bytes;
    if (path_.empty() || !readRegularFile(path_, bytes) || !looksLikeIni(bytes))
        return false;
    if (PlainRecordReader::read(bytes, values_))
        return true;
    QMutexLocker lock(&scratchMutex_);
    QString source = scratchCopy(bytes);
    QTemporaryFile copy(QDir::tempPath() + QStringLiteral("/regtool-record.XXXXXX"));
    if (source.isEmpty()) {
        const bool copied = copy.open() && copy.write(bytes) == bytes.size() && copy.flush();
        source = copied ? copy.fileName() : local(path_);
    }
    QSettings ini(source, QSettings::IniFormat);
    // Raw UTF-8 from other writers reads right; Qt's own escapes read the same either way.
    ini.setIniCodec("UTF-8");
    if (ini.status() != QSettings::NoError)
        return false;
    std::map<std::string, std::string> values;
    const QStringList keys = ini.childKeys();
    for (const QString& key : keys)
        values[narrow(key)] = narrow(valueText(ini.value(key)));
    values_.swap(values);
    return true;
}

std::string ProductRecord::getValue(std::string key)
{
    const auto it = values_.find(key);
    return it == values_.end() ? std::string() : it->second;
}

void ProductRecord::setValue(std::string key, std::string value)
{
    values_[std::move(key)] = std::move(value);
}

bool ProductRecord::save()
{
    if (path_.empty())
        return false;
    for (const auto& entry : values_) {
        if (!validKey(entry.first))
            return false;
    }
    // A new record is readable by every user, who all read the system database; an existing
    // one keeps its mode.
    struct stat target;
    const unsigned mode = ::stat(path_.c_str(), &target) == 0 ? target.st_mode & 07777 : 0644;
    // Written beside the record and renamed over it, so a crash never leaves half a record.
    TemporaryRecordFile temp(local(path_));
    return temp.write(RecordText::format(values_), mode) && temp.renameOverRecord();
}

namespace {

int writeRecord(ProductRecord& record, bool create)
{
    if (record.filePath().empty())
        return EINVAL;
    const QString dir = QFileInfo(local(record.filePath())).absolutePath();
    if (create && !QDir().mkpath(dir))
        return EACCES;
    return record.save() ? 0 : EIO;
}

std::string text(const char* value)
{
    return value ? std::string(value) : std::string();
}

} // namespace

int registerProduct(const char* guid, const char* productName, const char* version, const char* mediaId,
                    const char* productId, const char* updateId, int peruser)
{
    ProductRecord record(text(guid), peruser != 0);
    // A record that does not load is replaced: registering again is how a broken one is repaired.
    if (record.isExist())
        record.load();
    record.setValue("ProductName", text(productName));
    record.setValue("ProductVersion", text(version));
    record.setValue("MediaID", text(mediaId));
    record.setValue("ProductID", text(productId));
    record.setValue("UpdateID", text(updateId));
    return writeRecord(record, true);
}

int setValue(const char* guid, const char* key, const char* value, int peruser)
{
    if (!key || !validKey(key))
        return EINVAL;
    ProductRecord record(text(guid), peruser != 0);
    if (record.isExist() && !record.load())
        return EIO;
    record.setValue(key, text(value));
    return writeRecord(record, false);
}
