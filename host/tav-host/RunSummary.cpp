#include "RunSummary.h"

#include <QMutexLocker>
#include <QRegularExpression>

RunSummary::RunSummary()
{
    clock_.start();
}

void RunSummary::closeRow()
{
    if (open_)
        rows_.last().elapsedMs = clock_.elapsed() - rows_.last().startMs;
    open_ = false;
}

void RunSummary::feed(const QString& line)
{
    static const QRegularExpression asked(
        QStringLiteral("NetworkManager::call_GetTAVProductInfo: mediaId=\\[(.*)\\];updateId=\\[(.*)\\];showTestUpdate="));
    static const QList<QPair<QString, QString>> sources = {
        {QStringLiteral("NetworkManager::sendRequestToKep: reply ok"), QStringLiteral("service")},
        {QStringLiteral("NetworkManager::sendRequestToKep: cached data loaded"), QStringLiteral("cache")},
        {QStringLiteral("NetworkManager::sendRequestToKep: no cache data"), QStringLiteral("none")},
        {QStringLiteral("NetworkManager::sendRequestToKep: operation cancelled"), QStringLiteral("cancelled")},
    };
    QMutexLocker lock(&mutex_);
    const QRegularExpressionMatch match = asked.match(line);
    if (match.hasMatch()) {
        closeRow();
        Row row;
        row.mediaId = match.captured(1);
        row.updateId = match.captured(2);
        row.startMs = clock_.elapsed();
        rows_.append(row);
        open_ = true;
        return;
    }
    if (!open_)
        return;
    Row& row = rows_.last();
    for (const auto& source : sources) {
        if (line.endsWith(source.first))
            row.source = source.second;
    }
    if (line.contains(QLatin1String("KepProductData::parseRawXmlDataNodeUpdate: parsing update with id = ")))
        ++row.updates;
    else if (line.contains(QLatin1String("KepProductData::parseRawXmlDataNodeNews: news message with id = ")))
        ++row.news;
    else if (line.contains(QLatin1String("KepDataProviderPlugin::getData()")))
        closeRow();
}

void RunSummary::finish()
{
    QMutexLocker lock(&mutex_);
    closeRow();
}

QStringList RunSummary::report() const
{
    QMutexLocker lock(&mutex_);
    QStringList lines;
    qint64 totalMs = 0;
    int updates = 0;
    int news = 0;
    QMap<QString, int> bySource;
    for (const Row& row : rows_) {
        lines.append(QStringLiteral("summary: media [%1] update [%2] %3 ms, %4, %5 updates, %6 news")
                         .arg(row.mediaId, row.updateId)
                         .arg(row.elapsedMs)
                         .arg(row.source)
                         .arg(row.updates)
                         .arg(row.news));
        totalMs += row.elapsedMs;
        updates += row.updates;
        news += row.news;
        ++bySource[row.source];
    }
    QStringList sources;
    for (const QString& source : {QStringLiteral("service"), QStringLiteral("cache"), QStringLiteral("none"),
                                  QStringLiteral("cancelled")})
        sources.append(QStringLiteral("%1 %2").arg(source).arg(bySource.value(source)));
    lines.append(QStringLiteral("summary: %1 products asked in %2 ms (%3), %4 updates, %5 news")
                     .arg(rows_.size())
                     .arg(totalMs)
                     .arg(sources.join(QStringLiteral(", ")))
                     .arg(updates)
                     .arg(news));
    return lines;
}
