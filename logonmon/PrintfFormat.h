// printf formatting with the conventions of the Microsoft C runtime on every
// platform: "%ws" and "%S" take wide strings, "%I64d"/"%I64u" 64-bit integers,
// "%ld" a 32-bit integer. Wide text comes out as UTF-8 outside Windows.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

namespace logonmon {

// Formats into `buffer`, which is always terminated when `size` is not 0.
// Returns the length of the text, or -1, like _vsnprintf, when it did not fit
// or an argument could not be converted; the buffer then holds the text up to
// its last valid byte.
int FormatPrintfToBuffer(char* buffer, size_t size, const char* format, va_list args);

// What FormatPrintfToBuffer writes for "%ws" and `text`, without reading a
// format: for the wide texts of every log line.
int FormatWideText(char* buffer, size_t size, const wchar_t* text);

// Formats the whole text, however long.
std::string FormatPrintf(const char* format, va_list args);

}  // namespace logonmon
