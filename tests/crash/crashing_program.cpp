// Usage: crashing_program <folder of the log and of "dumps"> dumps|nodumps
// Instead of a dump (Wine writes a few megabytes a minute) the file names
// what was asked for: "type 0x<type> thread <id> pointers <n>".
#include <windows.h>

#include <cstdio>

#include "app/Settings.h"
#include "crash/CrashHandler.h"
#include "crash/CrashSystem.h"
#include "log/LogWriter.h"

namespace {

class TestCrashSystem : public CrashSystem {
  public:
    SYSTEMTIME LocalTime() override { return {2024, 3, 6, 2, 14, 3, 7, 89}; }

    bool WriteDump(HANDLE, DWORD, HANDLE file, MINIDUMP_TYPE type,
                   MINIDUMP_EXCEPTION_INFORMATION* exception) override {
        char text[96];
        const int length =
            snprintf(text, sizeof(text), "type 0x%X thread %lu pointers %d",
                     static_cast<unsigned>(type), exception->ThreadId, exception->ClientPointers);
        DWORD written = 0;
        return WriteFile(file, text, static_cast<DWORD>(length), &written, nullptr) != FALSE;
    }
};

// Ends with the fault's code as the system would, without Wine's debugger.
LPTOP_LEVEL_EXCEPTION_FILTER handler = nullptr;

LONG WINAPI EndWithoutDebugger(EXCEPTION_POINTERS* pointers) {
    if (handler(pointers) == EXCEPTION_CONTINUE_SEARCH) {
        TerminateProcess(GetCurrentProcess(), pointers->ExceptionRecord->ExceptionCode);
    }
    return EXCEPTION_EXECUTE_HANDLER;
}

}  // namespace

int wmain(int, wchar_t** argv) {
    static TestCrashSystem system;
    Settings& settings = Settings::Instance();
    settings.LogPath = AddTrailingSeparator(AddLongPathPrefix(argv[1]));
    settings.DataDir = settings.LogPath + L"dumps\\";
    settings.Flags = std::wstring(argv[2]) == L"nodumps" ? FLAG_DISABLE_MEMORY_DUMPS : 0;
    OpenMainLog();
    SetCrashSystem(&system);
    InstallCrashHandler();
    handler = SetUnhandledExceptionFilter(&EndWithoutDebugger);
    *static_cast<volatile int*>(nullptr) = 1;
    return 0;
}
