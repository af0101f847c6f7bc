#include "ConsolidatedAnswer.h"

#include <QDomDocument>
#include <QStringList>
#include <QVariantMap>

namespace {

QString childText(const QDomElement& parent, const QString& tag)
{
    return parent.firstChildElement(tag).text();
}

// Document tag -> name of the QML property the control takes.
QVariantMap fields(const QDomElement& element, const QList<QPair<QString, QString>>& names)
{
    QVariantMap map;
    for (const auto& name : names)
        map.insert(name.second, childText(element, name.first));
    return map;
}

} // namespace

ConsolidatedAnswer ConsolidatedAnswer::read(const QString& xml)
{
    ConsolidatedAnswer answer;
    if (xml.trimmed().isEmpty())
        return answer;
    QDomDocument document;
    int line = 0;
    if (!document.setContent(xml, &answer.error_, &line)) {
        answer.error_ = QStringLiteral("line %1: %2").arg(line).arg(answer.error_);
        return answer;
    }
    const QDomElement root = document.documentElement();
    static const QList<QPair<QString, QString>> updateNames{
        {QStringLiteral("id"), QStringLiteral("updateId")},
        {QStringLiteral("title"), QStringLiteral("title")},
        {QStringLiteral("description"), QStringLiteral("description")},
        {QStringLiteral("download_size"), QStringLiteral("downloadSize")},
        {QStringLiteral("publish_date"), QStringLiteral("publishDate")},
        {QStringLiteral("additional_info_url"), QStringLiteral("infoUrl")},
        {QStringLiteral("one_click_update_mode_is_supported"), QStringLiteral("oneClickSupported")}};
    static const QList<QPair<QString, QString>> newsNames{
        {QStringLiteral("id"), QStringLiteral("newsId")},
        {QStringLiteral("title"), QStringLiteral("title")},
        {QStringLiteral("description"), QStringLiteral("description")},
        {QStringLiteral("publish_date"), QStringLiteral("publishDate")}};

    const QDomElement updates = root.firstChildElement(QStringLiteral("updates"));
    for (QDomElement update = updates.firstChildElement(QStringLiteral("update")); !update.isNull();
         update = update.nextSiblingElement(QStringLiteral("update"))) {
        QVariantMap map = fields(update, updateNames);
        QStringList related;
        const QDomElement list = update.firstChildElement(QStringLiteral("related_updates"));
        for (QDomElement id = list.firstChildElement(QStringLiteral("id")); !id.isNull();
             id = id.nextSiblingElement(QStringLiteral("id")))
            related.append(id.text().trimmed());
        map.insert(QStringLiteral("relatedUpdates"), related);
        answer.updates_.append(map);
    }
    const QDomElement news = root.firstChildElement(QStringLiteral("product_news"));
    for (QDomElement message = news.firstChildElement(QStringLiteral("message")); !message.isNull();
         message = message.nextSiblingElement(QStringLiteral("message")))
        answer.news_.append(fields(message, newsNames));
    return answer;
}
