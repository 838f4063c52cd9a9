// Test helpers that run the build's programs as an administrator would: as
// separate processes, observed by their exit codes.
#pragma once

#include <windows.h>

#include <string>

namespace plmx::testing {

// The exit code given to a program that did not end in time.
inline constexpr DWORD kTimedOut = 0xDEAD;

struct ProgramRun {
    DWORD exitCode = kTimedOut;
    DWORD processId = 0;
    DWORD mainThreadId = 0;
};

// Runs `program` with `arguments` (already quoted as needed) and waits up to
// a minute for its end; a program still running then is ended.
ProgramRun RunProgram(const std::wstring& program, const std::wstring& arguments);

// A build-tree path as CMake names it, in the form Windows programs take
// (under Wine, "/work/x" is "Z:\work\x").
std::wstring BuildTreePath(const char* path);

}  // namespace plmx::testing
