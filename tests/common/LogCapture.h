#pragma once

#include <QStringList>
#include <QVariant>

// Collects the plug-in's log lines (critical severity, category "default", no source context)
// while it lives, at the given logger level; everything else goes on to the previous handler.
class LogCapture
{
public:
    explicit LogCapture(int logLevel = 0);
    ~LogCapture();
    Q_DISABLE_COPY(LogCapture)

    QStringList lines() const;
    bool contains(const QString& line) const { return lines().contains(line); }
    void clear();
    // A line as the log writes it: the level, the literal text, then the item (a QString in quotes).
    static QString line(int level, const QString& text, const QVariant& item = {});

private:
    int previousLevel_;
};
