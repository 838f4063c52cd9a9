#include "tests/app/InstalledService.h"

namespace plmx::testing {

namespace {

constexpr DWORD kPollMs = 50;
constexpr DWORD kWaitMs = 30000;
// Wine's manager starts its own services for up to a minute after the prefix
// boots; a start asked for meanwhile finds the database locked or times out.
constexpr DWORD kStartWaitMs = 120000;

void Remove(SC_HANDLE manager, const std::wstring& name) {
    const UniqueServiceHandle old(OpenServiceW(manager, name.c_str(), SERVICE_ALL_ACCESS));
    if (!old) {
        return;
    }
    SERVICE_STATUS status;
    ControlService(old.Get(), SERVICE_CONTROL_STOP, &status);
    DeleteService(old.Get());
}

}  // namespace

InstalledService::InstalledService(const std::wstring& name, const std::wstring& commandLine)
    : manager_(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)) {
    Remove(manager_.Get(), name);
    service_.Reset(CreateServiceW(manager_.Get(), name.c_str(), name.c_str(), SERVICE_ALL_ACCESS,
                                  SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                  SERVICE_ERROR_NORMAL, commandLine.c_str(), nullptr, nullptr,
                                  nullptr, nullptr, nullptr));
}

InstalledService::~InstalledService() {
    if (State() != SERVICE_STOPPED) {
        Control(SERVICE_CONTROL_STOP);
        WaitFor(SERVICE_STOPPED);
    }
    DeleteService(service_.Get());
}

DWORD InstalledService::Start() {
    DWORD result = ERROR_SUCCESS;
    for (DWORD waited = 0; waited < kStartWaitMs; waited += kPollMs) {
        result = StartServiceW(service_.Get(), 0, nullptr) ? ERROR_SUCCESS : GetLastError();
        if (result != ERROR_SERVICE_DATABASE_LOCKED && result != ERROR_SERVICE_REQUEST_TIMEOUT) {
            break;
        }
        Sleep(kPollMs);
    }
    return result;
}

DWORD InstalledService::Control(DWORD control) {
    SERVICE_STATUS status;
    return ControlService(service_.Get(), control, &status) ? ERROR_SUCCESS : GetLastError();
}

DWORD InstalledService::State() {
    SERVICE_STATUS status{};
    QueryServiceStatus(service_.Get(), &status);
    return status.dwCurrentState;
}

DWORD InstalledService::WaitFor(DWORD state) {
    DWORD seen = State();
    for (DWORD waited = 0; seen != state && waited < kWaitMs; waited += kPollMs) {
        Sleep(kPollMs);
        seen = State();
    }
    return seen;
}

}  // namespace plmx::testing
