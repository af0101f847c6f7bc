#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

// Runs foundation_helper in a child process, optionally as a user without privileges
// (nobody when the suite runs as root, whom file modes do not stop).
namespace HelperProcess {

struct Result
{
    bool finished = false;
    QProcess::ExitStatus status = QProcess::CrashExit;
    int exitCode = -1;
    QString output;
};

Result run(const QStringList& args, const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment(),
           bool unprivileged = false);

// Empty when an unprivileged child can be started here, else the reason it cannot.
QString unprivilegedUnavailable();

// Skips the calling test when no unprivileged child can be started.
#define REQUIRE_UNPRIVILEGED_HELPER()                                                                        \
    do {                                                                                                     \
        const QString whyNot = HelperProcess::unprivilegedUnavailable();                                     \
        if (!whyNot.isEmpty())                                                                               \
            QSKIP(qPrintable(whyNot));                                                                       \
    } while (false)

// A temporary directory that the unprivileged child can enter (mode 0755).
QString openToOthers(const QString& dir);

} // namespace HelperProcess
