#include "HelperProcess.h"

#include <QFile>
#include <QStandardPaths>

#include <unistd.h>

namespace HelperProcess {

namespace {

const int nobodyId = 65534;

bool isRoot()
{
    return ::geteuid() == 0;
}

} // namespace

Result run(const QStringList& args, const QProcessEnvironment& env, bool unprivileged)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    if (unprivileged && isRoot()) {
        const QString id = QString::number(nobodyId);
        process.start(QStringLiteral("setpriv"), QStringList{QStringLiteral("--reuid=") + id,
                                                             QStringLiteral("--regid=") + id,
                                                             QStringLiteral("--clear-groups"),
                                                             QStringLiteral(FOUNDATION_HELPER)}
                                                     + args);
    } else {
        process.start(QStringLiteral(FOUNDATION_HELPER), args);
    }
    Result result;
    result.finished = process.waitForFinished(30000);
    result.status = process.exitStatus();
    result.exitCode = process.exitCode();
    result.output = QString::fromLocal8Bit(process.readAllStandardOutput());
    return result;
}

QString unprivilegedUnavailable()
{
    if (!isRoot())
        return QString();
    if (QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
        return QStringLiteral("running as root and setpriv is missing: no way to drop privileges");
    const Result probe = run(QStringList{QStringLiteral("keys")}, QProcessEnvironment::systemEnvironment(), true);
    if (!probe.finished || probe.status != QProcess::NormalExit || probe.exitCode != 0)
        return QStringLiteral("the helper cannot run as nobody (is the build tree readable by others?)");
    return QString();
}

QString openToOthers(const QString& dir)
{
    QFile::setPermissions(dir, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                                   | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
    return dir;
}

} // namespace HelperProcess
