// The effective configuration as a block of log lines, written at start-up
// and again into each session log as it opens.
#pragma once

#include <string>

namespace logonmon {
struct SESSION_CONTEXT;
}

// This computer's names, found at start-up and printed with the settings.
struct ComputerNames {
    std::wstring computerName;  // NetBIOS name
    std::wstring fqdn;

    static ComputerNames& Instance();
};

// Writes at Trace through the ordinary writer, so the lines also reach the
// session log of the event the calling thread is handling. `session` is null
// at start-up.
void LogSettings(logonmon::SESSION_CONTEXT* session);
