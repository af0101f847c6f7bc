#pragma once

// Names shared by every unit of the plug-in. Each unit holds its own copy, built when the
// library is loaded; HOME and TAV_SYSTEM_DB_DIR are therefore read once, at load time.

#include <QString>
#include <QStringList>

#include <cstdlib>

namespace KepPlugin {
namespace Keys {

// Host configuration files (they belong to the host; the plug-in never opens them).
static const QString HOST_DIR = QStringLiteral("/opt/vasko/tav");
static const QString APP_SETTINGS_FILE = QStringLiteral("app.conf");
static const QString USER_SETTINGS_FILE = QStringLiteral("user.conf");
static const QString DOWNLOADS_SETTINGS_FILE = QStringLiteral("downloads.conf");
static const QString INSTALLS_SETTINGS_FILE = QStringLiteral("installs.conf");

// Host settings keys.
static const QString LocalDbName = QStringLiteral("LocalDbName");
static const QString ServerUrl = QStringLiteral("ServerUrl");
static const QString KepWebServiceUrl = QStringLiteral("KepWebServiceUrl");
static const QString AllowCollectingSystemInfo = QStringLiteral("AllowCollectingSystemInfo");
static const QString ShowTestUpdates = QStringLiteral("ShowTestUpdates");
static const QString LastUpdateDate = QStringLiteral("LastUpdateDate");

// Product-record keys, narrow forms.
static const char* const PRODUCT_NAME = "ProductName";
static const char* const PRODUCT_VERSION = "ProductVersion";
static const char* const MEDIA_ID = "MediaID";
static const char* const UPDATE_ID = "UpdateID";
static const char* const PRODUCT_ID = "ProductID";
static const char* const OWNER_PRODUCT_CODE = "OwnerProductCode";
static const char* const AUTO_UNINSTALL_MODE = "AutoUninstallMode";
static const char* const RECORD_MIGRATED = "RecordMigrated";
static const char* const COMMAND_LINE_INSTALL_FULL_IMAGE = "CommandLineInstallFullImage";
static const char* const COMMAND_LINE_UPGRADE_GET_DOWNLOAD_LIST = "CommandLineUpgradeGetDownloadList";
static const char* const COMMAND_LINE_UPGRADE_FULL_IMAGE = "CommandLineUpgradeFullImage";
static const char* const LAST_UPDATE_DATE = "LastUpdateDate";

// Product-record keys, Qt forms.
static const QString ProductName = QString::fromLatin1(PRODUCT_NAME);
static const QString ProductVersion = QString::fromLatin1(PRODUCT_VERSION);
static const QString MediaID = QString::fromLatin1(MEDIA_ID);
static const QString UpdateID = QString::fromLatin1(UPDATE_ID);
static const QString ProductID = QString::fromLatin1(PRODUCT_ID);
static const QString OwnerProductCode = QString::fromLatin1(OWNER_PRODUCT_CODE);
static const QString AutoUninstallMode = QString::fromLatin1(AUTO_UNINSTALL_MODE);
static const QString RecordMigrated = QString::fromLatin1(RECORD_MIGRATED);

// The keys a Product copies out of its record, in this order.
static const QStringList REG_TOOL_FIELD_KEYS = {ProductName, ProductVersion, MediaID,          ProductID,
                                                UpdateID,    OwnerProductCode, AutoUninstallMode, RecordMigrated};

// Database locations and record naming.
static const QString SYSTEM_DB_DIR = [] {
    const char* relocated = std::getenv("TAV_SYSTEM_DB_DIR");
    return (relocated && *relocated) ? QString::fromLocal8Bit(relocated) : QStringLiteral("/opt/vasko/tav/db");
}();
// Empty when HOME is unset: there is no user database then.
static const QString USER_DB_DIR = [] {
    const char* home = std::getenv("HOME");
    return (home && *home) ? QString::fromLocal8Bit(home) + QStringLiteral("/vasko/tav/db") : QString();
}();
static const QString RECORD_SUFFIX = QStringLiteral("ini");
static const QString LEGACY_RECORD_SUFFIX = QStringLiteral(".properties");
static const QString LEGACY_PROFILE_SUFFIX = QStringLiteral(".pf");
static const QString REG_TOOL_LIBRARY = QStringLiteral("tav.dataprovider.kep.regtool");
static constexpr int REG_TOOL_MAJOR_VERSION = 1;

} // namespace Keys
} // namespace KepPlugin
