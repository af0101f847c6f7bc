#include "ChildRun.h"

#include <QProcess>
#include <QStandardPaths>

ChildRun::ChildRun(const QStringList& args, const QProcessEnvironment& env, bool unprivileged, const QString& workDir)
{
    QString program = QCoreApplication::applicationFilePath();
    QStringList arguments = QStringList{QStringLiteral("--child")} + args;
    if (unprivileged && ::geteuid() == 0) {
        const QString id = QString::number(nobody);
        arguments = QStringList{"--reuid=" + id, "--regid=" + id, QStringLiteral("--clear-groups"), program} + arguments;
        program = QStringLiteral("setpriv");
    }
    QProcess child;
    child.setProcessEnvironment(env);
    child.setWorkingDirectory(workDir);
    child.start(program, arguments);
    crashed = !child.waitForFinished(60000) || child.exitStatus() != QProcess::NormalExit;
    exitCode = child.exitCode();
    out = QString::fromLocal8Bit(child.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    err = QString::fromLocal8Bit(child.readAllStandardError()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QString ChildRun::unprivilegedUnavailable()
{
    if (::geteuid() == 0 && QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
        return QStringLiteral("running as root without setpriv: no way to drop privileges");
    const ChildRun probe({}, QProcessEnvironment::systemEnvironment(), true);
    return probe.crashed || probe.exitCode != 0
        ? QStringLiteral("this program cannot run as nobody (is the build tree readable by others?)") : QString();
}
