#include "KepSimProcess.h"

#include <QDeadlineTimer>

bool KepSimProcess::start(const QString& program, const QString& fixtures, const QStringList& extra)
{
    static const QByteArray marker("kep-sim listening on ");
    // kep-sim logs a line per request: shown only when asked for, and never left to fill a pipe.
    if (qEnvironmentVariableIsSet("KEP_TEST_SIM_LOG"))
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    else
        process_.setStandardErrorFile(QProcess::nullDevice());
    process_.start(program, QStringList{QStringLiteral("--fixtures"), fixtures, QStringLiteral("--port"), "0"} + extra);
    QByteArray seen;
    for (QDeadlineTimer deadline(10000); process_.waitForReadyRead(int(deadline.remainingTime()));) {
        while (process_.canReadLine()) {
            const QByteArray line = process_.readLine().trimmed();
            seen += line + '\n';
            if (line.startsWith(marker)) {
                url_ = QString::fromUtf8(line.mid(marker.size()));
                return true;
            }
        }
    }
    error_ = QStringLiteral("kep-sim did not start: %1 %2").arg(process_.errorString(), QString::fromUtf8(seen));
    stop();
    return false;
}
