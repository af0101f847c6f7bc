#include "ProgressReport.h"

std::atomic<bool> ProgressReport::lineOpen_{false};

ProgressReport::ProgressReport(Mode mode, const QString& serviceUrl, std::FILE* out, QObject* parent)
    : QObject(parent)
    , mode_(mode)
    , url_(serviceUrl)
    , out_(out)
{
    ticker_.setInterval(1000);
    connect(&ticker_, &QTimer::timeout, this, &ProgressReport::tick);
}

QString ProgressReport::position() const
{
    return QStringLiteral("product %1 of %2 (media %3)").arg(index_).arg(total_).arg(mediaId_);
}

void ProgressReport::show(const QString& text)
{
    if (mode_ == Mode::Off)
        return;
    if (mode_ == Mode::InPlace) {
        // Back to the start of the line, the new text, the rest of the old one erased.
        std::fprintf(out_, "\r%s\033[K", qUtf8Printable(text));
        lineOpen_ = true;
    } else {
        std::fprintf(out_, "%s\n", qUtf8Printable(text));
    }
    std::fflush(out_);
}

void ProgressReport::productStarted(int index, int total, const QString& mediaId)
{
    index_ = index;
    total_ = total;
    mediaId_ = mediaId;
    noticed_ = false;
    waiting_.start();
    if (mode_ == Mode::Off)
        return;
    show(QStringLiteral("tav-host: checking %1").arg(position()));
    ticker_.start();
}

// Worked out only when shown: the local time costs a look at the time-zone file.
QDateTime ProgressReport::giveUpAt() const
{
    return QDateTime::currentDateTime().addMSecs(requestTimeoutMs - waiting_.elapsed());
}

void ProgressReport::productEnded()
{
    ticker_.stop();
}

void ProgressReport::tick()
{
    // Whole seconds, rounded: the ticks come a little early or late.
    const qint64 seconds = (waiting_.elapsed() + 500) / 1000;
    if (seconds * 1000 < waitNoticeMs) {
        if (mode_ == Mode::InPlace)
            show(QStringLiteral("tav-host: checking %1, %2 s").arg(position()).arg(seconds));
        return;
    }
    const QString text = QStringLiteral("tav-host: %1: waiting for the service at %2 for %3 s, giving up at %4")
                             .arg(position(), url_)
                             .arg(seconds)
                             .arg(giveUpAt().toString(QStringLiteral("HH:mm:ss")));
    // A log gets the notice once per product; a terminal sees the seconds go by.
    if (mode_ == Mode::InPlace || !noticed_)
        show(text);
    noticed_ = true;
}

void ProgressReport::finish()
{
    ticker_.stop();
    clearLine(out_);
}

void ProgressReport::clearLine(std::FILE* out)
{
    if (lineOpen_.exchange(false)) {
        std::fprintf(out, "\r\033[K");
        std::fflush(out);
    }
}
