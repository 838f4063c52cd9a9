// plmx-replay: replays saved logon traces through the logon processor and
// writes the session logs the service would have written.
#pragma once

#include <ostream>
#include <string>
#include <vector>

// `args` without the program name. Prints each session log's path and
// summary to `out`, problems to `err`; returns the process exit code: 0 when
// every trace was read completely and held a logon, 1 otherwise, 2 for a
// command line it cannot use.
int RunReplayCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
