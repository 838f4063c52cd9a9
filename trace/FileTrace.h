// The console commands that record the logon providers into a trace file,
// now and, when persistent, at every boot.
#pragma once

#include <windows.h>

#include <string>

// Starts the file session "logonmon_diag_trace_file" writing to `path`;
// `persistent` also stores it as a boot-time session first. Win32 error code.
ULONG StartFileTrace(const std::wstring& path, bool persistent);
// Stops the file session; `persistent` also removes its boot-time entry.
// Returns the result of stopping the session.
ULONG StopFileTrace(bool persistent);
