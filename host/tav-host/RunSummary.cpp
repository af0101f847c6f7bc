#include "RunSummary.h"

#include "PluginHost.h"

#include "tavcore/Logger.h"
#include "tavcore/NetworkAccessManager.h"
#include "tavcore/NetworkCache.h"

#include <QMutexLocker>
#include <QNetworkReply>
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

void RunSummary::follow(PluginHost* host)
{
    using TavCoreShared::Network::NetworkAccessManager;
    using TavCoreShared::Network::NetworkCache;
    // Direct: the log level has to change before the request leaves or the plug-in goes on.
    connect(host, &PluginHost::starting, this, &RunSummary::beginRun, Qt::DirectConnection);
    connect(host, &PluginHost::finished, this, &RunSummary::endRun, Qt::DirectConnection);
    connect(host, &PluginHost::cancelling, this, &RunSummary::cancelSending, Qt::DirectConnection);
    NetworkAccessManager* network = NetworkAccessManager::instance();
    connect(network, &NetworkAccessManager::replyCreated, this, &RunSummary::watch, Qt::DirectConnection);
    connect(network->cache(), &NetworkCache::lookedUp, this, [this](const QString&, bool found) { cacheLookedUp(found); },
            Qt::DirectConnection);
}

void RunSummary::watch(QNetworkReply* reply, const QByteArray& body)
{
    QString mediaId;
    QString updateId;
    if (!productIds(body, &mediaId, &updateId))
        return;
    const int index = requestStarted(mediaId, updateId);
    if (index > 0) {
        connect(reply, &QNetworkReply::finished, this,
                [this, reply, index] { requestEnded(index, reply->error() == QNetworkReply::NoError); }, Qt::DirectConnection);
    }
}

bool RunSummary::productIds(const QByteArray& body, QString* mediaId, QString* updateId)
{
    // The ids stand in the body as they are, unescaped, and the media id once more in the
    // header's login: the search starts past the header and takes the update id up to the last
    // closing tag, so that only a media id holding "</mediaID>" or the header's end can mislead.
    static const QByteArray headerEnd("</soap:Header>"), mediaOpen("<mediaID>"), mediaClose("</mediaID>");
    static const QByteArray updateOpen("<updateID>"), updateClose("</updateID>");
    const int media = body.indexOf(mediaOpen, qMax(body.indexOf(headerEnd), 0));
    const int mediaEnd = media < 0 ? -1 : body.indexOf(mediaClose, media + mediaOpen.size());
    const int update = mediaEnd < 0 ? -1 : body.indexOf(updateOpen, mediaEnd + mediaClose.size());
    const int updateEnd = body.lastIndexOf(updateClose);
    if (update < 0 || updateEnd < update + updateOpen.size())
        return false;
    *mediaId = QString::fromUtf8(body.mid(media + mediaOpen.size(), mediaEnd - media - mediaOpen.size()));
    *updateId = QString::fromUtf8(body.mid(update + updateOpen.size(), updateEnd - update - updateOpen.size()));
    return true;
}

void RunSummary::steerLogLevel(int shownLevel)
{
    QMutexLocker lock(&mutex_);
    shownLevel_ = shownLevel;
    applyLogLevel();
}

void RunSummary::applyLogLevel()
{
    if (shownLevel_ < 0)
        return;
    // Level 0 costs the plug-in a trace of every answer; the summary needs it only for the
    // product total while the databases are read and to hear whether a cancel was taken.
    int level = shownLevel_;
    if (running_)
        level = !asking_ || cancelSent_ ? 0 : countRecords_ ? qMin(shownLevel_, 1) : shownLevel_;
    TavCoreShared::TavLogger::Logger::instance()->setLogLevel(level);
}

void RunSummary::countRecords(bool count)
{
    QMutexLocker lock(&mutex_);
    countRecords_ = count;
    applyLogLevel();
}

void RunSummary::beginRun()
{
    QMutexLocker lock(&mutex_);
    rows_.clear();
    total_ = 0;
    open_ = false;
    running_ = true;
    asking_ = false;
    cancelSent_ = false;
    cancelTaken_ = false;
    applyLogLevel();
}

void RunSummary::closeRow()
{
    if (open_)
        rows_.last().elapsedMs = clock_.elapsed() - rows_.last().startMs;
    open_ = false;
}

int RunSummary::requestStarted(const QString& mediaId, const QString& updateId)
{
    QMutexLocker lock(&mutex_);
    if (!running_)
        return 0;
    closeRow();
    ProductOutcome row;
    row.mediaId = mediaId;
    row.updateId = updateId;
    row.startMs = clock_.elapsed();
    rows_.append(row);
    open_ = true;
    if (!asking_) {
        asking_ = true;
        applyLogLevel();
    }
    const int index = rows_.size();
    const int total = qMax(total_, index);
    lock.unlock();
    emit productStarted(index, total, mediaId);
    return index;
}

void RunSummary::requestEnded(int index, bool answered)
{
    QMutexLocker lock(&mutex_);
    if (!running_ || !open_ || index != rows_.size())
        return;
    // Until the plug-in says otherwise: it logs why it refused an answer the transport took.
    if (answered)
        rows_.last().source = QStringLiteral("service");
    lock.unlock();
    emit productEnded();
}

void RunSummary::cacheLookedUp(bool found)
{
    QMutexLocker lock(&mutex_);
    if (running_ && open_)
        rows_.last().source = found ? QStringLiteral("cache") : QStringLiteral("none");
}

void RunSummary::cancelSending()
{
    QMutexLocker lock(&mutex_);
    if (!running_)
        return;
    cancelSent_ = true;
    applyLogLevel();
}

void RunSummary::feed(const QString& line)
{
    static const QRegularExpression replyError(networkPrefix + QStringLiteral("reply error \\[(\\d+)\\]: (.*)$"));
    QMutexLocker lock(&mutex_);
    if (!running_)
        return;
    if (line.endsWith(QLatin1String("LocalDataBaseManager::readProductsDb: AUTOUNINSTALL flag is OFF, continuing")))
        ++total_;
    else if (line.endsWith(QLatin1String("DataManager::cancelAction(): requested cancel")))
        cancelTaken_ = true;
    if (!open_)
        return;
    ProductOutcome& row = rows_.last();
    const QRegularExpressionMatch error =
        line.contains(QLatin1String("reply error [")) ? replyError.match(line) : QRegularExpressionMatch();
    if (error.hasMatch()) {
        row.errorCode = error.captured(1).toInt();
        row.errorText = unquoted(error.captured(2));
        row.source = QStringLiteral("none");
        // The plug-in reports a cancel as such; an abort it reports as an error is its own
        // clock running out.
        row.timedOut = row.errorCode == QNetworkReply::OperationCanceledError;
    } else if (line.endsWith(networkPrefix + QStringLiteral("operation cancelled"))) {
        row.source = QStringLiteral("cancelled");
    } else if (line.contains(networkPrefix + QStringLiteral("cached data refused: "))) {
        row.source = QStringLiteral("none");
    } else if (line.contains(QLatin1String("KepProductData::parseRawXmlDataNodeUpdate: parsing update with id = "))) {
        ++row.updates;
    } else if (line.contains(QLatin1String("KepProductData::parseRawXmlDataNodeNews: news message with id = "))) {
        ++row.news;
    }
}

void RunSummary::endRun()
{
    QMutexLocker lock(&mutex_);
    closeRow();
    running_ = false;
    applyLogLevel();
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
