#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

// The service simulator as a child process on a free loopback port.
class KepSimProcess
{
public:
    KepSimProcess() = default;
    ~KepSimProcess();
    Q_DISABLE_COPY(KepSimProcess)

    // Starts kep-sim with the fixtures and extra arguments; false (with the reason in
    // errorText()) when it does not report its address within a few seconds.
    bool start(const QString& program, const QString& fixtures, const QStringList& extra = {});
    void stop();

    QString url() const { return url_; }
    QString errorText() const { return error_; }

private:
    QProcess process_;
    QString url_;
    QString error_;
};
