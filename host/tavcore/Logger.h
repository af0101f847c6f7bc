#pragma once

#include <QtGlobal>

#include <atomic>

namespace TavCoreShared {
namespace TavLogger {

// The host's log level switch: a line of level n is written when n >= logLevel().
class Q_DECL_EXPORT Logger
{
public:
    static Logger* instance();

    int logLevel() const;
    void setLogLevel(int level);

private:
    Logger() = default;
    std::atomic<int> level_{2};
};

} // namespace TavLogger
} // namespace TavCoreShared
