#pragma once

#include "tavcore/Logger.h"

#include <QDebug>
#include <QMessageLogger>

namespace KepPlugin {

// True when the host logger lets a line of this level through.
inline bool logEnabled(int level)
{
    return level >= TavCoreShared::TavLogger::Logger::instance()->logLevel();
}

} // namespace KepPlugin

// One log line: the level, then the streamed items separated by blanks (QStrings quoted,
// numbers bare), at critical severity in the category "default" with no source context.
// Usage: KEP_LOG(0) << "Class::method: value = " << value;
// A one-pass loop rather than if/else, so that the macro nests safely inside an unbraced if.
#define KEP_LOG(level)                                                                                       \
    for (bool kepLogOnce_ = KepPlugin::logEnabled(level); kepLogOnce_; kepLogOnce_ = false)                  \
        QMessageLogger(nullptr, 0, nullptr, "default").critical() << (level)
