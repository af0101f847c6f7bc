#include "Update.h"

#include "KepXmlTags.h"

namespace KepPlugin {

Update::~Update() = default;

// Asked for every key read and every update parsed: built once, shared by every copy.
QStringList Update::getSupportedXmlTags()
{
    using namespace Tags;
    static const QStringList tags = {ID,
                                     TITLE,
                                     DESCRIPTION,
                                     UPDATE_ID,
                                     DOWNLOAD_URL,
                                     DOWNLOAD_URL_AKAMAI,
                                     DOWNLOAD_URL_ONLINE,
                                     DOWNLOAD_URL_ONLINE_AKAMAI,
                                     DOWNLOAD_FILE_NAME,
                                     DOWNLOAD_FILE_NAME_ONLINE,
                                     DOWNLOAD_SIZE,
                                     DOWNLOAD_CHEKSUM,
                                     DOWNLOAD_CHEKSUM_ONLINE,
                                     PUBLISH_DATE,
                                     ADDITIONAL_INFO_URL,
                                     MEDIA_ID,
                                     PACKAGE_NAME,
                                     RELATED_UPDATES};
    return tags;
}

void Update::addRelatedUpdate(int id)
{
    if (!relatedUpdates_.contains(id))
        relatedUpdates_.append(id);
}

} // namespace KepPlugin
