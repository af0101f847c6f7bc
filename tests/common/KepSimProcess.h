#pragma once

#include <QProcess>

// The service simulator as a child process on a free loopback port.
class KepSimProcess
{
public:
    KepSimProcess() = default;
    ~KepSimProcess() { stop(); }
    Q_DISABLE_COPY(KepSimProcess)

    // Starts kep-sim with the fixtures and extra arguments; false (with the reason in
    // errorText()) when it does not report its address within a few seconds.
    bool start(const QString& program, const QString& fixtures, const QStringList& extra = {});
    void stop()
    {
        process_.kill();
        process_.waitForFinished(3000);
    }
    QString url() const { return url_; }
    QString errorText() const { return error_; }

private:
    QProcess process_;
    QString url_;
    QString error_;
};
