// A session stored as a boot-time session ("AutoLogger") in the registry, so
// that the system starts it at every boot until the entry is removed.
#pragma once

#include <windows.h>

#include <string>

#include "trace/Controller.h"

namespace logonmon {

// Under HKEY_LOCAL_MACHINE; one subkey per session name.
inline constexpr wchar_t kAutoLoggerKey[] = L"SYSTEM\\CurrentControlSet\\Control\\WMI\\Autologger";

class AutoLogger {
  public:
    // Writes the entry for `session`. ERROR_ALREADY_EXISTS, with nothing
    // written, when an entry of that name exists; any other failure leaves no
    // entry behind.
    static LSTATUS Save(const Controller& session);
    // Removes the entry `sessionName` with all its subkeys.
    static LSTATUS Delete(const std::wstring& sessionName);
};

}  // namespace logonmon
