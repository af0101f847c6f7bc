#include "SettingsManager.h"

#include <QFileInfo>
#include <QMutexLocker>
#include <QSettings>

namespace TavCoreShared {
namespace TavSettings {

SettingsManager* SettingsManager::instance()
{
    static SettingsManager manager;
    return &manager;
}

QVariant SettingsManager::getProperty(const QString& key) const
{
    QMutexLocker lock(&mutex_);
    if (overrides_.contains(key))
        return overrides_.value(key);
    return fileValues_.value(key);
}

bool SettingsManager::loadFile(const QString& path)
{
    const QFileInfo info(path);
    if (!info.isFile() || !info.isReadable())
        return false;
    QSettings file(path, QSettings::IniFormat);
    if (file.status() != QSettings::NoError)
        return false;
    QMutexLocker lock(&mutex_);
    const QStringList keys = file.childKeys();
    for (const QString& key : keys)
        fileValues_.insert(key, file.value(key));
    return true;
}

void SettingsManager::setProperty(const QString& key, const QVariant& value)
{
    QMutexLocker lock(&mutex_);
    overrides_.insert(key, value);
}

void SettingsManager::clear()
{
    QMutexLocker lock(&mutex_);
    fileValues_.clear();
    overrides_.clear();
}

} // namespace TavSettings
} // namespace TavCoreShared
