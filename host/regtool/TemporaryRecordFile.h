#pragma once

#include <QByteArray>
#include <QString>

// The file a record is written to before it is renamed over the record. Its writer holds an
// advisory lock on it for as long as it lives, so that a temporary file left by a killed
// writer can be told from a live one of a concurrent writer, and removed.
class TemporaryRecordFile
{
public:
    // For the record at recordPath: ".GUID.ini.XXXXXX" beside it.
    explicit TemporaryRecordFile(const QString& recordPath);
    // Removes the file unless it was renamed.
    ~TemporaryRecordFile();
    TemporaryRecordFile(const TemporaryRecordFile&) = delete;
    TemporaryRecordFile& operator=(const TemporaryRecordFile&) = delete;

    // Creates, locks and fills the file with the given permission bits, and syncs it, so
    // that the rename can only ever show a whole record.
    bool write(const QByteArray& text, unsigned mode);
    bool renameOverRecord();

    // Removes the temporary files of dead writers in a directory; a live writer's lock keeps
    // its file.
    static void removeStale(const QString& dir);

private:
    bool create();

    QByteArray record_;
    QByteArray path_;
    int fd_ = -1;
};
