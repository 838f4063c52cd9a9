// The layout of one log line: the prefix, the message and where a long
// message is cut. Shared by the service's log writer and the replay tool,
// whose session logs must read exactly like the service's.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "trace/EtwTypes.h"

namespace logonmon {
class EventRecordData;
}

// Every line is formatted into a buffer of this size.
inline constexpr size_t kLogLineBufferSize = 0x10000;

// "ERROR", "INFO", ... of the lowest known bit; "NONE" without one.
const char* LevelTag(uint32_t level);

// The prefix of a line written while `record` is handled: its own time in
// local time, its level, process, thread and session, its id, and its
// provider's name (or `function` when it has none). Returns the length, or
// -1 when it did not fit.
int FormatEventPrefix(char* buffer, const logonmon::EventRecordData& record,
                      const wchar_t* function);

// The prefix of any other line: `now` (local time), the level tag and the
// writer's process and thread.
int FormatPlainPrefix(char* buffer, const SYSTEMTIME& now, uint32_t level, uint32_t processId,
                      uint32_t threadId, const wchar_t* function);

// Appends the message after a prefix of `prefixLength` (as the prefix
// formatting returned it) and returns the line's length without its end. A
// prefix or message that did not fit, or held an argument that could not be
// converted, ends at its last valid byte; the line end replaces the null.
size_t AppendLogMessage(char* buffer, int prefixLength, const char* format, va_list args);
