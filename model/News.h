#pragma once

#include "MessageBase.h"

namespace KepPlugin {

// A news message about a product.
class News : public MessageBase
{
public:
    News() = default;
    ~News() override;

    QStringList getSupportedXmlTags() override;
};

} // namespace KepPlugin
