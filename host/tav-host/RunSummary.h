#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>

class PluginHost;
class QNetworkReply;

// What happened to one product of a run.
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

// Learns which products a run asked, how long each took, where its answer came from and why,
// and how many updates and news it gave. Requests, their ends and the reply cache's look-ups
// come from the host core's network access manager; the rest from the plug-in's log lines of
// levels 1 and 2, and from a few of level 0 that the summary asks for only while the plug-in
// reads its databases and after a cancel. Fed from any thread.
class RunSummary : public QObject
{
    Q_OBJECT
public:
    RunSummary();
    Q_DISABLE_COPY(RunSummary)

    // Learns from host's runs and cancels and from the shared network access manager.
    void follow(PluginHost* host);
    // Lets the summary set the host logger's level: shownLevel between runs, 0 while a run has
    // not yet asked for a product or has been cancelled, else shownLevel, but at most 1 when it
    // counts updates and news. A negative level hands the logger back.
    void steerLogLevel(int shownLevel);
    // Whether the report counts each product's updates and news (on unless told otherwise);
    // the plug-in's notes that tell them cost it a line for every record.
    void countRecords(bool count);

    // Forgets the previous run; call before the plug-in starts the next one.
    void beginRun();
    // Returns the product's index, from 1.
    int requestStarted(const QString& mediaId, const QString& updateId);
    // The reply of that product finished; answered: with no transport error.
    void requestEnded(int index, bool answered);
    void cacheLookedUp(bool found);
    // The host is about to ask the plug-in to stop.
    void cancelSending();
    void feed(const QString& line);
    // getData has returned: nothing after this belongs to the run.
    void endRun();
    void finish();

    QList<ProductOutcome> outcomes() const;
    // Products the plug-in found in its databases, known once it starts asking.
    int productTotal() const;
    // A cancel the plug-in received while no run of it was there to take it.
    bool cancelLost() const;
    QStringList report() const;

    // The media and update ids a product request posts; false for any other body.
    static bool productIds(const QByteArray& body, QString* mediaId, QString* updateId);

signals:
    // index counts from 1; emitted in the thread that posted the request, before it leaves.
    void productStarted(int index, int total, const QString& mediaId);
    // The request of the product last started has ended, with or without an answer.
    void productEnded();

private:
    void watch(QNetworkReply* reply, const QByteArray& body);
    void closeRow();
    void applyLogLevel();

    mutable QMutex mutex_;
    QElapsedTimer clock_;
    QList<ProductOutcome> rows_;
    int total_ = 0;
    bool open_ = false;
    bool running_ = false;
    bool asking_ = false;
    bool cancelSent_ = false;
    bool cancelTaken_ = false;
    int shownLevel_ = -1;
    bool countRecords_ = true;
};
