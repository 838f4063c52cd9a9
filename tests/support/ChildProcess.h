// CMake names the build's programs with paths Wine's drive Z: reaches.
#pragma once

#include <windows.h>

#include <string>

#include "trace/UniqueHandle.h"

namespace plmx::testing {

struct ProgramRun {
    DWORD exitCode = 0xDEAD;  // also when it did not start or end in time
    DWORD processId = 0;
    DWORD mainThreadId = 0;
};

// Runs `program` with `arguments` (already quoted as needed) and waits up to
// a minute for its end; a program still running then is ended.
inline ProgramRun RunProgram(const std::wstring& program, const std::wstring& arguments) {
    std::wstring commandLine = L"\"" + program + L"\" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started{};
    ProgramRun run;
    if (!CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                        nullptr, &startup, &started)) {
        return run;
    }
    const UniqueHandle process(started.hProcess);
    const UniqueHandle thread(started.hThread);
    run.processId = started.dwProcessId;
    run.mainThreadId = started.dwThreadId;
    if (WaitForSingleObject(process.Get(), 60000) != WAIT_OBJECT_0) {
        TerminateProcess(process.Get(), run.exitCode);
        WaitForSingleObject(process.Get(), INFINITE);
    }
    GetExitCodeProcess(process.Get(), &run.exitCode);
    return run;
}

}  // namespace plmx::testing
