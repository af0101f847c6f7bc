#pragma once

// Element names of the service's product XML, shared by the records, the parser and the
// consolidated response. "download_cheksum" is the service's own spelling.

#include <QString>

namespace KepPlugin {
namespace Tags {

static const QString ID = QStringLiteral("id");
static const QString TITLE = QStringLiteral("title");
static const QString DESCRIPTION = QStringLiteral("description");
static const QString UPDATE_ID = QStringLiteral("update_id");
static const QString DOWNLOAD_URL = QStringLiteral("download_url");
static const QString DOWNLOAD_URL_AKAMAI = QStringLiteral("download_url_akamai");
static const QString DOWNLOAD_URL_ONLINE = QStringLiteral("download_url_online");
static const QString DOWNLOAD_URL_ONLINE_AKAMAI = QStringLiteral("download_url_online_akamai");
static const QString DOWNLOAD_FILE_NAME = QStringLiteral("download_file_name");
static const QString DOWNLOAD_FILE_NAME_ONLINE = QStringLiteral("download_file_name_online");
static const QString DOWNLOAD_SIZE = QStringLiteral("download_size");
static const QString DOWNLOAD_CHEKSUM = QStringLiteral("download_cheksum");
static const QString DOWNLOAD_CHEKSUM_ONLINE = QStringLiteral("download_cheksum_online");
static const QString PUBLISH_DATE = QStringLiteral("publish_date");
static const QString ADDITIONAL_INFO_URL = QStringLiteral("additional_info_url");
static const QString MEDIA_ID = QStringLiteral("media_id");
static const QString PACKAGE_NAME = QStringLiteral("package_name");
static const QString RELATED_UPDATES = QStringLiteral("related_updates");

// Structure of the reply and of the consolidated document.
static const QString ROOT = QStringLiteral("root");
static const QString RETURN_CODE = QStringLiteral("return_code");
static const QString FORMAT = QStringLiteral("format");
static const QString UPDATES = QStringLiteral("updates");
static const QString UPDATE = QStringLiteral("update");
static const QString PRODUCT_NEWS = QStringLiteral("product_news");
static const QString MESSAGE = QStringLiteral("message");
static const QString ONE_CLICK_UPDATE_MODE_IS_SUPPORTED = QStringLiteral("one_click_update_mode_is_supported");

} // namespace Tags
} // namespace KepPlugin
