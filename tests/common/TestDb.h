#pragma once

#include <QMap>
#include <QString>

// The two product databases of the test run (the runner points HOME and TAV_SYSTEM_DB_DIR
// at a temporary directory), and small helpers to lay out records in them.
namespace TestDb {

QString userDir();
QString systemDir();
QString dir(bool peruser);

// Empties both databases (and creates them).
void reset();

// Writes GUID.ini with top-level keys the way the registration tool does.
void writeRecord(bool peruser, const QString& guid, const QMap<QString, QString>& values);
QMap<QString, QString> readRecord(bool peruser, const QString& guid);

// Refuses to run against anything but a temporary database.
bool isolated();

// Whole files; writeFile creates the parent directories.
QByteArray readFile(const QString& path);
bool writeFile(const QString& path, const QByteArray& bytes);
// Every entry of a directory, hidden ones too, sorted.
QStringList entries(const QString& dir);
// Inode, time and content of every file below the directories: equal snapshots mean nothing was written.
QMap<QString, QString> snapshot(const QStringList& dirs);

// A previous-generation product: DIR/NAME.properties, and NAME.pf unless profile is null.
void writeLegacy(const QString& dir, const QString& name, const QByteArray& properties, const QByteArray& profile);
QByteArray profileXml(const QMap<QString, QString>& data);

} // namespace TestDb
