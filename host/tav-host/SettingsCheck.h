#pragma once

#include <QString>
#include <QStringList>

// Checks what tav-host is given as host settings before the settings manager reads it: that
// manager takes only top-level keys of a text INI file and ignores everything else silently.
class SettingsCheck
{
public:
    // Empty when the file can serve as a settings file, else what is wrong with it.
    static QString checkFile(const QString& path, QStringList* keys = nullptr);
    // A warning for a key that differs from one the plug-in reads only in case or separators,
    // else empty.
    static QString nearMiss(const QString& key);
    static const QStringList& knownKeys();
};
