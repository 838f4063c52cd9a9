#include "logonmon/PrintfFormat.h"

#include <cstdio>
#include <cstring>

namespace logonmon {

// _vsnprintf and _vscprintf are the C runtime's own (msvcrt.dll), which knows
// "%ws" and "%I64u"; MinGW's replacement for vsnprintf follows C99 instead.

int FormatPrintfToBuffer(char* buffer, size_t size, const char* format, va_list args) {
    if (size == 0) {
        return -1;
    }
    va_list again;
    va_copy(again, args);
    const int length = _vsnprintf(buffer, size - 1, format, args);
    if (length < 0) {
        // -1 stands both for text that did not fit and for an argument that
        // could not be converted, after which the buffer holds whatever it
        // held before: clear it and write again, so that the text ends with
        // the last byte written.
        std::memset(buffer, 0, size);
        _vsnprintf(buffer, size - 1, format, again);
    }
    va_end(again);
    buffer[length < 0 ? size - 1 : static_cast<size_t>(length)] = '\0';
    return length;
}

namespace {

int FormatInto(char* buffer, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = FormatPrintfToBuffer(buffer, size, format, args);
    va_end(args);
    return length;
}

}  // namespace

int FormatWideText(char* buffer, size_t size, const wchar_t* text) {
    return FormatInto(buffer, size, "%ws", text);
}

std::string FormatPrintf(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    const int length = _vscprintf(format, measure);
    va_end(measure);
    if (length <= 0) {
        return {};
    }
    std::string text(static_cast<size_t>(length) + 1, '\0');
    FormatPrintfToBuffer(text.data(), text.size(), format, args);
    text.resize(static_cast<size_t>(length));
    return text;
}

}  // namespace logonmon
