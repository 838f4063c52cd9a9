#include "tests/support/ChildProcess.h"

#include <cstring>

#include "trace/UniqueHandle.h"

namespace plmx::testing {

ProgramRun RunProgram(const std::wstring& program, const std::wstring& arguments) {
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
        TerminateProcess(process.Get(), kTimedOut);
        WaitForSingleObject(process.Get(), INFINITE);
    }
    GetExitCodeProcess(process.Get(), &run.exitCode);
    return run;
}

std::wstring BuildTreePath(const char* path) {
    std::wstring windowsPath(path, path + strlen(path));
    for (wchar_t& c : windowsPath) {
        if (c == L'/') {
            c = L'\\';
        }
    }
    return windowsPath.starts_with(L"\\") ? L"Z:" + windowsPath : windowsPath;
}

}  // namespace plmx::testing
