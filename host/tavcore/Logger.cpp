#include "Logger.h"

namespace TavCoreShared {
namespace TavLogger {

Logger* Logger::instance()
{
    static Logger logger;
    return &logger;
}

int Logger::logLevel() const
{
    return level_.load(std::memory_order_relaxed);
}

void Logger::setLogLevel(int level)
{
    level_.store(level, std::memory_order_relaxed);
}

} // namespace TavLogger
} // namespace TavCoreShared
