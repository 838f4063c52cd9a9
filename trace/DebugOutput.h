// A minimal diagnostic channel to the debugger output (a debugger or a
// debug-output viewer), for the trace-control failures that are reported
// outside the service's own log.
#pragma once

namespace logonmon {

// Formats with the C runtime's printf conventions and writes one line.
void DebugOutput(const char* format, ...);

// Where lines go: the debugger output unless replaced. The line carries no
// line break.
using DebugOutputSink = void (*)(const wchar_t* line);
// Replaces the sink (nullptr restores the debugger output) and returns the
// previous one.
DebugOutputSink SetDebugOutputSink(DebugOutputSink sink);

}  // namespace logonmon
