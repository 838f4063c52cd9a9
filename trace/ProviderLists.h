// The fixed provider lists that sessions are built from, shared by the whole
// process.
#pragma once

#include <vector>

#include "trace/Controller.h"

namespace logonmon {

// Winlogon, Group Policy, the shell, the user profile service, the terminal
// services session manager and the remote-desktop providers the logon
// processor handles.
const std::vector<TraceProvider>& TimingProviders();
// Kernel process start and stop.
const std::vector<TraceProvider>& ProcessProviders();
// Further operating-system providers that only make a diagnostic trace more
// complete.
const std::vector<TraceProvider>& DiagnosticProviders();

}  // namespace logonmon
