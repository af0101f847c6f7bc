#pragma once

#include <QMutex>
#include <QString>
#include <QVariant>
#include <QVariantMap>

namespace TavCoreShared {
namespace TavSettings {

// The host's settings: INI files it was told to read, overridden by values the host
// program set itself. There are no built-in defaults: an unknown key is an invalid variant.
class Q_DECL_EXPORT SettingsManager
{
public:
    static SettingsManager* instance();

    QVariant getProperty(const QString& key) const;

    // Reads the top-level keys of an INI file; later files win over earlier ones.
    bool loadFile(const QString& path);
    void setProperty(const QString& key, const QVariant& value);
    void clear();

private:
    SettingsManager() = default;
    mutable QMutex mutex_;
    QVariantMap fileValues_;
    QVariantMap overrides_;
};

} // namespace TavSettings
} // namespace TavCoreShared
