#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

namespace KepPlugin {

// One update or news element of the service's reply, as tag -> text.
class MessageBase
{
public:
    MessageBase() = default;
    virtual ~MessageBase();

    virtual void setData(const QMap<QString, QString>& data);
    // Only the supported tags are answered; any other key gives an empty string.
    virtual QString getDataByKey(QString key);
    virtual QStringList getSupportedXmlTags() = 0;

protected:
    QMap<QString, QString> data_;

private:
    Q_DISABLE_COPY(MessageBase)
};

} // namespace KepPlugin
