#pragma once

#include "localdb/KepKeys.h"

#include <QDir>
#include <QMap>

// The two product databases of the test run (the runner points HOME and TAV_SYSTEM_DB_DIR
// at a temporary directory), and small helpers to lay out records and files in them.
struct TestDb
{
    static QString userDir() { return KepPlugin::Keys::USER_DB_DIR; }
    static QString systemDir() { return KepPlugin::Keys::SYSTEM_DB_DIR; }
    static QString dir(bool peruser) { return peruser ? userDir() : systemDir(); }
    // Refuses to run against anything but a temporary database.
    static bool isolated() { return !userDir().isEmpty() && !systemDir().startsWith(QLatin1String("/opt/")); }
    // Empties both databases (and creates them).
    static void reset();

    // GUID.ini with top-level keys, written and read the way any QSettings user does.
    static void writeRecord(bool peruser, const QString& guid, const QMap<QString, QString>& values);
    static QMap<QString, QString> readRecord(bool peruser, const QString& guid);
    // Whole files; writeFile creates the parent directories.
    static QByteArray readFile(const QString& path);
    static bool writeFile(const QString& path, const QByteArray& bytes);
    // Every entry of a directory, hidden ones too, sorted.
    static QStringList entries(const QString& dir)
    {
        return QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }
    // Inode, time and content of every file below the directories: equal snapshots mean nothing was written.
    static QMap<QString, QString> snapshot(const QStringList& dirs);
};
