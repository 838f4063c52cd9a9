// Per-session CPU and memory figures: added up on each sampling tick and
// written with the session's summary.
#pragma once

#include "log/SessionLog.h"
#include "monitor/PerfCounters.h"

void AccumulateSample(SessionLog& log, const PerfSample& sample);

// Minimum, maximum and average of each CPU counter; nothing without samples
// or with sampling switched off.
void LogCPUUsage(const SessionLog& log);
// The same for the memory counters, bytes shown in MB.
void LogMemUsage(const SessionLog& log);
// The space on the profile's volume available to the user; left out for
// events from a trace file, which were not measured on this machine.
void LogFreeDiskSpace(const SessionLog& log);
