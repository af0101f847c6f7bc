#include "News.h"

#include "KepXmlTags.h"

namespace KepPlugin {

News::~News() = default;

// Built once, like the update's list.
QStringList News::getSupportedXmlTags()
{
    static const QStringList tags = {Tags::ID, Tags::TITLE, Tags::DESCRIPTION, Tags::PUBLISH_DATE};
    return tags;
}

} // namespace KepPlugin
