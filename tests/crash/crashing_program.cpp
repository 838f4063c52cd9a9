// Installs the crash handler as the service does and then faults.
// Usage: crashing_program <folder of the log and of the data folder> dumps|nodumps
// The dump's clock is pinned to 2 March 2024 14:03:07.089, and in place of
// the dump (which Wine writes at a few megabytes a minute) the file gets a
// line naming what was asked for: "type 0x<type> thread <id> pointers <n>".
#include <windows.h>

#include <cstdio>
#include <string>

#include "app/Settings.h"
#include "crash/CrashSystem.h"
#include "crash/CrashHandler.h"
#include "log/LogWriter.h"

namespace {

class TestCrashSystem : public CrashSystem {
  public:
    SYSTEMTIME LocalTime() override {
        SYSTEMTIME time{};
        time.wYear = 2024;
        time.wMonth = 3;
        time.wDay = 2;
        time.wHour = 14;
        time.wMinute = 3;
        time.wSecond = 7;
        time.wMilliseconds = 89;
        return time;
    }

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

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 3) {
        return 2;
    }
    Settings& settings = Settings::Instance();
    // In the long-path form the settings give configured folders.
    settings.LogPath = AddTrailingSeparator(AddLongPathPrefix(argv[1]));
    settings.DataDir = settings.LogPath + L"dumps\\";
    settings.Flags = std::wstring(argv[2]) == L"nodumps" ? FLAG_DISABLE_MEMORY_DUMPS : 0;
    if (!OpenMainLog()) {
        return 3;
    }
    static TestCrashSystem system;
    SetCrashSystem(&system);
    InstallCrashHandler();

    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
    return 0;
}
