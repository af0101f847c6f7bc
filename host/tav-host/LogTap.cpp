#include "LogTap.h"

#include "ProgressReport.h"
#include "RunSummary.h"

#include "tavcore/Logger.h"

#include <QString>

#include <cstdio>

namespace {

RunSummary* summary_ = nullptr;
int printLevel_ = 2;
int previousLevel_ = 2;
QtMessageHandler previousHandler_ = nullptr;

void tap(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    summary_->feed(message);
    bool isNumber = false;
    const int level = message.section(QLatin1Char(' '), 0, 0).toInt(&isNumber);
    const bool pluginLine = type == QtCriticalMsg && isNumber;
    if (pluginLine && level < printLevel_)
        return;
    ProgressReport::clearLine(stderr);
    if (pluginLine)
        std::fprintf(stderr, "%s\n", qUtf8Printable(message));
    else
        previousHandler_(type, context, message);
}

} // namespace

LogTap::LogTap(RunSummary* summary, int printLevel)
{
    auto* logger = TavCoreShared::TavLogger::Logger::instance();
    summary_ = summary;
    printLevel_ = printLevel;
    previousLevel_ = logger->logLevel();
    summary->steerLogLevel(qMax(printLevel, 0));
    previousHandler_ = qInstallMessageHandler(tap);
}

LogTap::~LogTap()
{
    qInstallMessageHandler(previousHandler_);
    summary_->steerLogLevel(-1);
    TavCoreShared::TavLogger::Logger::instance()->setLogLevel(previousLevel_);
}
