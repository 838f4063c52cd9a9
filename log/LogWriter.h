// The one log writer: main log, session logs and standard output.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

struct SessionLog;

// Level bits.
inline constexpr uint32_t LOG_LEVEL_ERROR = 0x01;
inline constexpr uint32_t LOG_LEVEL_INFO = 0x02;
inline constexpr uint32_t LOG_LEVEL_DEBUG = 0x04;
inline constexpr uint32_t LOG_LEVEL_TRACE = 0x08;
inline constexpr uint32_t LOG_LEVEL_FATAL = 0x10;

// target: an explicit stream slot, or nullptr to let the writer choose.
void LogMessage(FILE** target, uint32_t level, const wchar_t* function, const char* format, ...);
void LogMessageV(FILE** target, uint32_t level, const wchar_t* function, const char* format,
                 va_list args);

bool OpenMainLog();
// Flushes and closes the main log; later lines go to standard output.
void CloseMainLog();
// Full path of the main log, empty before it was first opened.
std::wstring MainLogPath();
bool OpenLog(const std::wstring& path, SessionLog& sessionLog);
void RollMainLog();
void CloseSessionLog(SessionLog& sessionLog);

uint32_t RecurseCreateFolder(const std::wstring& path);
std::wstring AddLongPathPrefix(const std::wstring& path);
std::wstring AddTrailingSeparator(const std::wstring& path);
