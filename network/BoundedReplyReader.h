#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

class QNetworkReply;

namespace KepPlugin {

// Reads a reply's body as it arrives and aborts the reply once the body, after the transport's
// decoding, grows past a fixed bound: whatever the transfer (announced, chunked, endless or
// compressed), one answer never holds more than the bound plus one read chunk.
class BoundedReplyReader : public QObject
{
    Q_OBJECT
public:
    // Real answers are a few KB; 1,000 updates plus 1,000 news come to about 1 MB. Four times
    // that leaves room for any real product while a 32-bit host keeps its address space.
    static constexpr qint64 maxAnswerBytes = 4 * 1024 * 1024;

    explicit BoundedReplyReader(QNetworkReply* reply, qint64 limit = maxAnswerBytes);

    // The whole body, once the reply has finished; empty after an abort for size.
    QByteArray takeAll();
    bool overLimit() const { return overLimit_; }
    QString overLimitText() const;

private:
    Q_DISABLE_COPY(BoundedReplyReader)
    void readAvailable();
    void checkAnnouncedLength();
    void refuse();

    QNetworkReply* reply_;
    qint64 limit_;
    QByteArray body_;
    bool overLimit_ = false;
};

} // namespace KepPlugin
