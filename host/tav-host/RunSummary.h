#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>

// What happened to one product of a run, as the plug-in's log lines told it.
struct ProductOutcome
{
    QString mediaId;
    QString updateId;
    qint64 startMs = 0;
    qint64 elapsedMs = 0;
    // "service", "cache", "none" or "cancelled".
    QString source = QStringLiteral("none");
    bool timedOut = false;
    int errorCode = -1; // the transport's error number, -1 when it reported none
    QString errorText;
    int updates = 0;
    int news = 0;
};

// Learns from the plug-in's own log lines (all levels, whatever the user asked to see) which
// products were asked, how long each took, where its answer came from and why, and how many
// updates and news it gave. Fed from any thread.
class RunSummary : public QObject
{
    Q_OBJECT
public:
    RunSummary();
    Q_DISABLE_COPY(RunSummary)

    // Forgets the previous run; call before the plug-in starts the next one.
    void beginRun();
    void feed(const QString& line);
    void finish();

    QList<ProductOutcome> outcomes() const;
    // Products the plug-in found in its databases, known once it starts asking.
    int productTotal() const;
    // A cancel the plug-in received while no run of it was there to take it.
    bool cancelLost() const;
    QStringList report() const;

signals:
    // index counts from 1; emitted in the thread that logged the request.
    void productStarted(int index, int total, const QString& mediaId);
    // The request of the product last started has ended, with or without an answer.
    void productEnded();

private:
    void closeRow();

    mutable QMutex mutex_;
    QElapsedTimer clock_;
    QList<ProductOutcome> rows_;
    int total_ = 0;
    bool open_ = false;
    bool runEnded_ = false;
    bool cancelSent_ = false;
    bool cancelTaken_ = false;
};
