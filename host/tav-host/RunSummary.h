#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QMutex>
#include <QString>

// Learns from the plug-in's own log lines which products were asked, how long each took,
// where its answer came from and how many updates and news it gave.
class RunSummary
{
public:
    RunSummary();

    void feed(const QString& line);
    void finish();
    QStringList report() const;

private:
    struct Row
    {
        QString mediaId;
        QString updateId;
        qint64 startMs = 0;
        qint64 elapsedMs = 0;
        QString source = QStringLiteral("none");
        int updates = 0;
        int news = 0;
    };
    void closeRow();

    mutable QMutex mutex_;
    QElapsedTimer clock_;
    QList<Row> rows_;
    bool open_ = false;
};
