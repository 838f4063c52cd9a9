// Text forms shared by decoding, the logon processor and the log writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "trace/EtwTypes.h"

namespace logonmon {

// "%04d-%02d-%02dT%02d:%02d:%02d:%03d%s" of a FILETIME (100 ns since 1601
// UTC), in local time or in UTC with the suffix "Z"; "NULL" for 0.
std::wstring TimestampText(uint64_t fileTime, bool local);
// The same into `text`, reusing its storage.
void AssignTimestampText(std::wstring& text, uint64_t fileTime, bool local);
// `value` in decimal or lower-case hexadecimal, with at least `width` digits,
// as printf's "%0*u" and "%0*x" write it, at `out`; returns the end.
char* PutDecimal(char* out, uint64_t value, int width = 1);
char* PutHex(char* out, uint64_t value, int width = 1);

// Appends the decimal digits of `value`, as std::to_wstring writes them.
void AppendDecimal(std::wstring& text, uint64_t value);

// Upper-case GUID text, with or without braces.
std::wstring GuidText(const GUID& guid, bool braces = true);

// Calendar fields of a FILETIME in UTC.
SYSTEMTIME FileTimeToUtcSystemTime(uint64_t fileTime);
// Calendar fields of a FILETIME in the machine's current time zone.
SYSTEMTIME FileTimeToLocalSystemTime(uint64_t fileTime);
// The FILETIME of a calendar time in the machine's current time zone; false
// for fields out of range.
bool LocalSystemTimeToFileTime(const SYSTEMTIME& local, uint64_t* fileTime);
// SystemTimeToFileTime: false for fields out of range.
bool SystemTimeToFileTimeValue(const SYSTEMTIME& time, uint64_t* fileTime);

// UTF-16 text, up to its first null or `maxUnits`, as a wide string.
std::wstring WideFromUtf16(const char16_t* text, size_t maxUnits = SIZE_MAX);
// The same into `wide`, reusing its storage; `maxUnits` units of `text` must
// be readable.
void AssignWideFromUtf16(std::wstring& wide, const char16_t* text, size_t maxUnits);
#ifdef _WIN32
std::wstring WideFromUtf16(const WCHAR* text, size_t maxUnits = SIZE_MAX);
#endif
// Narrow text in the thread's ANSI code page as a wide string.
std::wstring WideFromAnsi(const char* text);
// Wide text as UTF-8 (narrow log lines).
std::string Utf8FromWide(const std::wstring& text);

}  // namespace logonmon
