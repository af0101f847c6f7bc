#pragma once

#include <QStringList>

// The command that runs a host child under a time limit and an address-space limit: far above
// what a run needs, far below what the 32-bit host has, so a runaway fails its row instead of
// eating the machine. The sanitizers reserve terabytes of address space up front, so under them
// only the time is limited.
inline QStringList hostLimits(int seconds)
{
    const QStringList time{"timeout", QString::number(seconds)};
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return time;
#else
    return time + QStringList{"prlimit", "--as=536870912", "--"};
#endif
}
