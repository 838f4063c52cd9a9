// printf formatting with the conventions of the Microsoft C runtime on every
// platform: "%ws" and "%S" take wide strings, "%I64d"/"%I64u" 64-bit integers,
// "%ld" a 32-bit integer. Wide text comes out as UTF-8 outside Windows.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

namespace logonmon {

// Formats into `buffer`, which is always terminated when `size` is not 0.
// Returns the length of the text, or -1 when it did not fit (the buffer then
// holds as much of it as fits), like _vsnprintf.
int FormatPrintfToBuffer(char* buffer, size_t size, const char* format, va_list args);

// Formats the whole text, however long.
std::string FormatPrintf(const char* format, va_list args);

}  // namespace logonmon
