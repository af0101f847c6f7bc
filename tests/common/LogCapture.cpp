#include "LogCapture.h"

#include "tavcore/Logger.h"

#include <QDebug>
#include <QMutex>

using TavCoreShared::TavLogger::Logger;

namespace {

QMutex mutex_;
QStringList captured_;
QtMessageHandler previous_ = nullptr;

void capture(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type != QtCriticalMsg || qstrcmp(context.category, "default") != 0 || context.file || context.function)
        return previous_ ? previous_(type, context, message) : void();
    QMutexLocker lock(&mutex_);
    captured_.append(message);
}

} // namespace

LogCapture::LogCapture(int logLevel)
    : previousLevel_(Logger::instance()->logLevel())
{
    Logger::instance()->setLogLevel(logLevel);
    clear();
    previous_ = qInstallMessageHandler(capture);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(previous_);
    Logger::instance()->setLogLevel(previousLevel_);
}

QStringList LogCapture::lines() const
{
    QMutexLocker lock(&mutex_);
    return captured_;
}

void LogCapture::clear()
{
    QMutexLocker lock(&mutex_);
    captured_.clear();
}

QString LogCapture::line(int level, const QString& text, const QVariant& item)
{
    QString out = QString::number(level) + QLatin1Char(' ') + text;
    if (item.type() == QVariant::Int)
        return out + QLatin1Char(' ') + item.toString();
    if (item.isValid())
        QDebug(&out.append(QLatin1Char(' '))).nospace() << item.toString();
    return out;
}
