// The process entry: without arguments the service "PLMX"; with them a
// console tool that processes a trace file or sets up or removes the
// boot-time trace.
#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <exception>

#include "app/LogonMonitorRunner.h"
#include "app/Settings.h"
#include "app/SimpleService.h"
#include "log/LogWriter.h"
#include "trace/FileTrace.h"
#include "trace/UniqueHandle.h"

namespace {

constexpr wchar_t kFunction[] = L"wWinMain";

void FreeArgv(LPWSTR* argv) {
    LocalFree(argv);
}

// Switches match case-insensitively and as whole arguments.
bool IsSwitch(const wchar_t* argument, const wchar_t* name) {
    return _wcsicmp(argument, name) == 0;
}

// Output of the console modes reaches the console they were started from.
void AttachParentConsole() {
    if (!AttachConsole(ATTACH_PARENT_PROCESS)) {
        return;
    }
    FILE* stream = nullptr;
    _wfreopen_s(&stream, L"CON", L"w", stdout);
    _wfreopen_s(&stream, L"CON", L"w", stderr);
    _wfreopen_s(&stream, L"CON", L"r", stdin);
    fputs("\n", stdout);
}

int RunConsoleMode(int argc, wchar_t** argv) {
    AttachParentConsole();
    if (argc == 3 && IsSwitch(argv[1], L"/file")) {
        Settings::Instance().RuntimeFlags = FLAG_TRACE_FILE_MODE;
        return LogonMonitorRunner().Run(nullptr, argv[2]);
    }
    if (argc >= 3 && IsSwitch(argv[1], L"/traceOn")) {
        const bool persistent = argc > 3 && IsSwitch(argv[2], L"/persistent");
        Settings::Instance().Load();
        // The trace file is always the last argument.
        StartFileTrace(argv[argc - 1], persistent);
        return 0;
    }
    if (IsSwitch(argv[1], L"/traceOff")) {
        // Unlike "/traceOn", no settings are loaded.
        StopFileTrace(argc > 2 && IsSwitch(argv[2], L"/persistent"));
        return 0;
    }
    return 0;
}

}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
    int argc = 0;
    const UniqueAny<LPWSTR*, &FreeArgv> argv(CommandLineToArgvW(GetCommandLineW(), &argc));
    if (argc <= 1) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "Starting service mode");
        return SimpleService::Run(L"PLMX", [](void* stopEvent) {
            return LogonMonitorRunner().Run(static_cast<HANDLE>(stopEvent), nullptr);
        });
    }
    try {
        return RunConsoleMode(argc, argv.Get());
    } catch (const std::exception& e) {
        LogMessage(nullptr, LOG_LEVEL_FATAL, kFunction, "Fatal error: %s", e.what());
        return 0;
    }
}
