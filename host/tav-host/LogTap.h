#pragma once

class RunSummary;

// Hears every log line of the plug-in, whatever level the user asked for: the summary learns
// from all of them, standard error shows those at or above the asked level (and anything that
// is not a plug-in line). One tap at a time, installed while it lives.
class LogTap
{
public:
    LogTap(RunSummary* summary, int printLevel);
    ~LogTap();
    LogTap(const LogTap&) = delete;
    LogTap& operator=(const LogTap&) = delete;
};
