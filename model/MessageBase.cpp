#include "MessageBase.h"

namespace KepPlugin {

MessageBase::~MessageBase() = default;

void MessageBase::setData(const QMap<QString, QString>& data)
{
    data_ = data;
}

QString MessageBase::getDataByKey(QString key)
{
    if (!getSupportedXmlTags().contains(key))
        return QString();
    return data_.value(key);
}

} // namespace KepPlugin
