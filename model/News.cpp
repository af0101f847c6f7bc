#include "News.h"

#include "KepXmlTags.h"

namespace KepPlugin {

News::~News() = default;

QStringList News::getSupportedXmlTags()
{
    return {Tags::ID, Tags::TITLE, Tags::DESCRIPTION, Tags::PUBLISH_DATE};
}

} // namespace KepPlugin
