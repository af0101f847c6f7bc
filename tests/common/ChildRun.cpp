#include "ChildRun.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>

#include <unistd.h>

namespace {

QStringList lines(const QByteArray& bytes)
{
    return QString::fromLocal8Bit(bytes).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

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
    const bool finished = child.waitForFinished(60000);
    crashed = !finished || child.exitStatus() != QProcess::NormalExit;
    exitCode = child.exitCode();
    out = lines(child.readAllStandardOutput());
    err = lines(child.readAllStandardError());
}

QString ChildRun::unprivilegedUnavailable()
{
    if (::geteuid() == 0 && QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
        return QStringLiteral("running as root without setpriv: no way to drop privileges");
    const ChildRun probe({}, QProcessEnvironment::systemEnvironment(), true);
    if (probe.crashed || probe.exitCode != 0)
        return QStringLiteral("this program cannot run as nobody (is the build tree readable by others?)");
    return QString();
}

bool ChildRun::openToOthers(const QString& dir)
{
    return QFile::setPermissions(dir, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                                          | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
}

bool ChildRun::giveAway(const QString& path)
{
    return ::geteuid() != 0 || ::chown(QFile::encodeName(path).constData(), nobody, nobody) == 0;
}
