#include "BoundedReplyReader.h"

#include <QNetworkReply>

namespace KepPlugin {

namespace {
// How far a transport that honours it may read ahead of us.
constexpr qint64 readAheadBytes = 64 * 1024;
} // namespace

BoundedReplyReader::BoundedReplyReader(QNetworkReply* reply, qint64 limit)
    : reply_(reply)
    , limit_(limit)
{
    if (!reply_)
        return;
    reply_->setReadBufferSize(readAheadBytes);
    connect(reply_, &QNetworkReply::metaDataChanged, this, &BoundedReplyReader::checkAnnouncedLength);
    connect(reply_, &QIODevice::readyRead, this, &BoundedReplyReader::readAvailable);
    checkAnnouncedLength();
    readAvailable();
}

QByteArray BoundedReplyReader::takeAll()
{
    readAvailable();
    return overLimit_ ? QByteArray() : std::move(body_);
}

QString BoundedReplyReader::overLimitText() const
{
    return QStringLiteral("Answer larger than %1 bytes, aborted").arg(limit_);
}

void BoundedReplyReader::readAvailable()
{
    // One byte past the bound is enough to know; the rest stays unread until the abort drops it.
    // Asked for no more than is there: QIODevice allocates what a read asks for, and a 4 MiB
    // block freed at every read keeps that much of the heap resident.
    while (reply_ && !overLimit_ && reply_->bytesAvailable() > 0) {
        body_ += reply_->read(qMin(reply_->bytesAvailable(), limit_ + 1 - body_.size()));
        if (body_.size() > limit_)
            refuse();
    }
}

void BoundedReplyReader::checkAnnouncedLength()
{
    // A compressed body's announced length is not its decoded one.
    const QVariant announced = reply_->header(QNetworkRequest::ContentLengthHeader);
    if (!overLimit_ && announced.isValid() && reply_->rawHeader("Content-Encoding").isEmpty()
        && announced.toLongLong() > limit_)
        refuse();
}

void BoundedReplyReader::refuse()
{
    overLimit_ = true;
    body_ = QByteArray();
    reply_->abort();
}

} // namespace KepPlugin
