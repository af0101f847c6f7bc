#include "RunSummary.h"

#include <QMutexLocker>
#include <QRegularExpression>

namespace {
const QString networkPrefix = QStringLiteral("NetworkManager::sendRequestToKep: ");

// The log quotes a QString item and escapes its quotes and backslashes; undo that.
QString unquoted(QString text)
{
    if (text.endsWith(QLatin1Char('"')))
        text.chop(1);
    return text.replace(QLatin1String("\\\""), QLatin1String("\"")).replace(QLatin1String("\\\\"), QLatin1String("\\"));
}
} // namespace

RunSummary::RunSummary()
{
    clock_.start();
}

void RunSummary::beginRun()
{
    QMutexLocker lock(&mutex_);
    rows_.clear();
    total_ = 0;
    open_ = false;
    runEnded_ = false;
    cancelSent_ = false;
    cancelTaken_ = false;
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
    static const QRegularExpression replyError(networkPrefix + QStringLiteral("reply error \\[(\\d+)\\]: (.*)$"));
    static const QList<QPair<QString, QString>> sources = {
        {networkPrefix + QStringLiteral("reply ok"), QStringLiteral("service")},
        {networkPrefix + QStringLiteral("cached data loaded"), QStringLiteral("cache")},
        {networkPrefix + QStringLiteral("no cache data"), QStringLiteral("none")},
        {networkPrefix + QStringLiteral("operation cancelled"), QStringLiteral("cancelled")},
    };
    QMutexLocker lock(&mutex_);
    if (runEnded_)
        return;
    // Most lines are the parser's trace: a plain search rules them out before any expression runs.
    const QRegularExpressionMatch match =
        line.contains(QLatin1String("call_GetTAVProductInfo")) ? asked.match(line) : QRegularExpressionMatch();
    if (match.hasMatch()) {
        closeRow();
        ProductOutcome row;
        row.mediaId = match.captured(1);
        row.updateId = match.captured(2);
        row.startMs = clock_.elapsed();
        rows_.append(row);
        open_ = true;
        const int index = rows_.size();
        const int total = qMax(total_, index);
        lock.unlock();
        emit productStarted(index, total, row.mediaId);
        return;
    }
    if (line.endsWith(QLatin1String("LocalDataBaseManager::readProductsDb: AUTOUNINSTALL flag is OFF, continuing")))
        ++total_;
    else if (line.endsWith(QLatin1String("KepDataProviderPlugin::cancelCurrentAction()")))
        cancelSent_ = true;
    else if (line.endsWith(QLatin1String("DataManager::cancelAction(): requested cancel")))
        cancelTaken_ = true;
    if (line.contains(QLatin1String("KepDataProviderPlugin::getData()"))) {
        closeRow();
        runEnded_ = true;
        return;
    }
    if (!open_)
        return;
    ProductOutcome& row = rows_.last();
    for (const auto& source : sources) {
        if (line.endsWith(source.first)) {
            row.source = source.second;
            lock.unlock();
            emit productEnded();
            return;
        }
    }
    const QRegularExpressionMatch error =
        line.contains(QLatin1String("reply error [")) ? replyError.match(line) : QRegularExpressionMatch();
    if (error.hasMatch()) {
        row.errorCode = error.captured(1).toInt();
        row.errorText = unquoted(error.captured(2));
    } else if (line.endsWith(networkPrefix + QStringLiteral("request is aborted by timeout"))) {
        row.timedOut = true;
    } else if (line.contains(QLatin1String("KepProductData::parseRawXmlDataNodeUpdate: parsing update with id = "))) {
        ++row.updates;
    } else if (line.contains(QLatin1String("KepProductData::parseRawXmlDataNodeNews: news message with id = "))) {
        ++row.news;
    }
}

void RunSummary::finish()
{
    QMutexLocker lock(&mutex_);
    closeRow();
}

QList<ProductOutcome> RunSummary::outcomes() const
{
    QMutexLocker lock(&mutex_);
    return rows_;
}

int RunSummary::productTotal() const
{
    QMutexLocker lock(&mutex_);
    return qMax(total_, rows_.size());
}

bool RunSummary::cancelLost() const
{
    QMutexLocker lock(&mutex_);
    return cancelSent_ && !cancelTaken_;
}

QStringList RunSummary::report() const
{
    QMutexLocker lock(&mutex_);
    QStringList lines;
    qint64 totalMs = 0;
    int updates = 0;
    int news = 0;
    QMap<QString, int> bySource;
    for (const ProductOutcome& row : rows_) {
        lines.append(QStringLiteral("summary: media [%1] update [%2] %3 ms, %4, %5 %6, %7 news")
                         .arg(row.mediaId, row.updateId)
                         .arg(row.elapsedMs)
                         .arg(row.source)
                         .arg(row.updates)
                         .arg(row.updates == 1 ? QStringLiteral("update") : QStringLiteral("updates"))
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
    lines.append(QStringLiteral("summary: %1 %2 asked in %3 ms (%4), %5 %6, %7 news")
                     .arg(rows_.size())
                     .arg(rows_.size() == 1 ? QStringLiteral("product") : QStringLiteral("products"))
                     .arg(totalMs)
                     .arg(sources.join(QStringLiteral(", ")))
                     .arg(updates)
                     .arg(updates == 1 ? QStringLiteral("update") : QStringLiteral("updates"))
                     .arg(news));
    return lines;
}
