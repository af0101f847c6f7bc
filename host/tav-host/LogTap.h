#pragma once

class RunSummary;

// Hears every log line the host logger lets through: the summary learns from all of them and
// sets the logger's level (below the asked one only where it needs to), standard error shows
// the plug-in's lines at or above the asked level and anything that is not a plug-in line. One
// tap at a time, installed while it lives.
class LogTap
{
public:
    LogTap(RunSummary* summary, int printLevel);
    ~LogTap();
    LogTap(const LogTap&) = delete;
    LogTap& operator=(const LogTap&) = delete;
};
