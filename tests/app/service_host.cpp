// A service built on the service wrapper whose body waits a second before it
// waits for the stop event, then returns 7; it logs into a folder of the
// test's choosing.
// Usage: service_host <service name> <log folder>
#include <windows.h>

#include "app/Settings.h"
#include "app/SimpleService.h"
#include "log/LogWriter.h"

int wmain(int, wchar_t** argv) {
    Settings::Instance().LogPath = AddTrailingSeparator(argv[2]);
    OpenMainLog();
    return SimpleService::Run(argv[1], [](void* stopEvent) {
        Sleep(1000);
        WaitForSingleObject(stopEvent, INFINITE);
        return 7;
    });
}
