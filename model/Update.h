#pragma once

#include "MessageBase.h"

#include <QList>

namespace KepPlugin {

// An update offered for a product, with the numbers of the updates related to it.
class Update : public MessageBase
{
public:
    Update() = default;
    ~Update() override;

    QStringList getSupportedXmlTags() override;

    void addRelatedUpdate(int id);
    QList<int> relatedUpdates() const { return relatedUpdates_; }

private:
    QList<int> relatedUpdates_;
};

} // namespace KepPlugin
