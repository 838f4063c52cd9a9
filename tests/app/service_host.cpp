// A service built on the service wrapper whose body waits for the stop event,
// logging into a folder of the test's choosing.
// Usage: service_host <service name> <log folder> <ms before the body waits> <body result>
#include <windows.h>

#include <cwchar>

#include "app/Settings.h"
#include "app/SimpleService.h"
#include "log/LogWriter.h"

int wmain(int argc, wchar_t** argv) {
    if (argc != 5) {
        return 2;
    }
    Settings& settings = Settings::Instance();
    settings.LogPath = AddTrailingSeparator(argv[2]);
    if (!OpenMainLog()) {
        return 3;
    }
    const DWORD delayMs = wcstoul(argv[3], nullptr, 10);
    const int result = static_cast<int>(wcstol(argv[4], nullptr, 10));
    return SimpleService::Run(argv[1], [delayMs, result](void* stopEvent) {
        Sleep(delayMs);
        WaitForSingleObject(stopEvent, INFINITE);
        return result;
    });
}
