#pragma once

#include <QDateTime>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <atomic>
#include <cstdio>

// Tells on a terminal (or a log) which product of how many the run is asking and for how long,
// so that a slow service does not look like a hung program.
class ProgressReport : public QObject
{
    Q_OBJECT
public:
    // InPlace rewrites one line (for a terminal), Lines writes a line per event.
    enum class Mode { Off, InPlace, Lines };

    ProgressReport(Mode mode, const QString& serviceUrl, std::FILE* out, QObject* parent = nullptr);
    Q_DISABLE_COPY(ProgressReport)

    // A request waiting this long is announced as waiting.
    static constexpr int waitNoticeMs = 3000;
    static constexpr int requestTimeoutMs = 60000;

    void productStarted(int index, int total, const QString& mediaId);
    void productEnded();
    // Clears the rewritten line so that what follows starts on a clean one.
    void finish();
    // Clears the rewritten line, if one is shown, before another line is written over it; the
    // next tick draws it again. Any thread.
    static void clearLine(std::FILE* out);

private:
    void tick();
    void show(const QString& text);
    QString position() const;
    QDateTime giveUpAt() const;

    Mode mode_;
    QString url_;
    std::FILE* out_;
    QTimer ticker_;
    QElapsedTimer waiting_;
    int index_ = 0;
    int total_ = 0;
    QString mediaId_;
    bool noticed_ = false;
    static std::atomic<bool> lineOpen_;
};
