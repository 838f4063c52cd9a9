// A service installed in the test prefix for the lifetime of the object, as
// an administrator installs one with "sc create": own process, started on
// demand. Any service of the same name left behind is removed first.
#pragma once

#include <windows.h>

#include <string>

#include "trace/UniqueHandle.h"

namespace plmx::testing {

inline void CloseService(SC_HANDLE service) {
    CloseServiceHandle(service);
}
using UniqueServiceHandle = UniqueAny<SC_HANDLE, &CloseService>;

class InstalledService {
  public:
    InstalledService(const std::wstring& name, const std::wstring& commandLine);
    // Stops the service if it runs and deletes it.
    ~InstalledService();
    InstalledService(const InstalledService&) = delete;
    InstalledService& operator=(const InstalledService&) = delete;

    // Win32 error code of StartServiceW, retried while the manager is busy.
    DWORD Start();
    // Win32 error code of ControlService.
    DWORD Control(DWORD control);
    DWORD State();
    // Polls until the service is in `state` or a while has passed; returns
    // the state it was last seen in.
    DWORD WaitFor(DWORD state);

  private:
    UniqueServiceHandle manager_;
    UniqueServiceHandle service_;
};

}  // namespace plmx::testing
