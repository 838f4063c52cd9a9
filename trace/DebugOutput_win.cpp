#include "trace/DebugOutput.h"

#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "trace/TextForms.h"

namespace logonmon {
namespace {

void WriteToDebugger(const wchar_t* line) {
    const std::wstring text = std::wstring(line) + L"\n";
    OutputDebugStringW(text.c_str());
}

DebugOutputSink currentSink = WriteToDebugger;

}  // namespace

void DebugOutput(const char* format, ...) {
    char buffer[1024];
    va_list args;
    va_start(args, format);
    const int written = _vsnprintf(buffer, sizeof(buffer) - 1, format, args);
    va_end(args);
    // _vsnprintf leaves the text unterminated when it is cut.
    buffer[written < 0 ? sizeof(buffer) - 1 : static_cast<size_t>(written)] = '\0';
    currentSink(WideFromAnsi(buffer).c_str());
}

DebugOutputSink SetDebugOutputSink(DebugOutputSink sink) {
    DebugOutputSink previous = currentSink;
    currentSink = sink != nullptr ? sink : WriteToDebugger;
    return previous;
}

}  // namespace logonmon
