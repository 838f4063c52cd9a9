#include "diag/PolicyReport.h"

#include <string>
#include <vector>

#include "log/LogWriter.h"
#include "logonmon/SessionContext.h"
#include "trace/RegistryKey.h"

namespace {

constexpr wchar_t kProbeFunction[] = L"CheckGPOSetting";
constexpr wchar_t kSettingsFunction[] = L"CheckGroupPolicySettings";
constexpr wchar_t kScriptsFunction[] = L"LogGPLogonScriptSynchronous";

constexpr wchar_t kWinlogonPolicies[] =
    L"SOFTWARE\\Policies\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
constexpr wchar_t kExplorerRun[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\Explorer\\Run";
constexpr wchar_t kSystemPolicies[] = L"SOFTWARE\\Policies\\Microsoft\\Windows\\System";
constexpr wchar_t kSystemScriptPolicies[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\System";

void LogReadFailure(const std::wstring& keyPath, const wchar_t* valueName, LSTATUS status) {
    LogMessage(nullptr, LOG_LEVEL_ERROR, kProbeFunction, "Failed Reading: %ws\\%ws, 0x%X",
               keyPath.c_str(), valueName, status);
}

// The user's probes read under the SID string; with none known they look
// under the hive's root and find nothing.
const wchar_t* SidPrefix(const logonmon::SESSION_CONTEXT& session) {
    return session.userSidText.empty() ? nullptr : session.userSidText.c_str();
}

enum class Hive { Machine, User };

struct Probe {
    Hive hive;
    const wchar_t* keyPath;
    const wchar_t* valueName;
    DWORD type;
    const char* enabled;  // given the number when `withNumber`
    const char* notConfigured;
    bool withNumber = false;
};

const Probe kSettingsProbes[] = {
    {Hive::Machine, kWinlogonPolicies, L"SyncForegroundPolicy", REG_DWORD,
     "Always wait for the network at computer start and logon: Enabled",
     "Always wait for the network at computer start and logon: Not Configured"},
    {Hive::Machine, kExplorerRun, L"1", REG_SZ,
     "Machine: Run these programs at user logon: Enabled",
     "Machine: Run these programs at user logon: Not Configured"},
    {Hive::User, kExplorerRun, L"1", REG_SZ, "User: Run these programs at user logon: Enabled",
     "User: Run these programs at user logon: Not Configured"},
    {Hive::Machine, kSystemPolicies, L"SlowLinkProfileDefault", REG_DWORD,
     "Wait for remote user profile: Enabled", "Wait for remote user profile: Not Configured"},
    {Hive::Machine, kSystemPolicies, L"WaitForNetwork", REG_DWORD,
     "Set maximum wait time for network if a user has a roaming profile or remote home "
     "directory: Enabled, %d seconds",
     "Set maximum wait time for network if a user has a roaming profile or remote home "
     "directory: Not Configured",
     true},
    {Hive::User, kSystemPolicies, L"CscSuspendDirs", REG_SZ,
     "Specify network directories to sync at logon, logoff time only: Enabled",
     "Specify network directories to sync at logon, logoff time only: Not Configured"},
};

// The machine's wordings lack the "at" of the not-configured ones; kept so.
const Probe kScriptProbes[] = {
    {Hive::Machine, kSystemScriptPolicies, L"RunLogonScriptSync", REG_DWORD,
     "Computer: Run these programs user logon: Enabled",
     "Computer: Run these programs at user logon: Not Configured"},
    {Hive::User, kSystemScriptPolicies, L"RunLogonScriptSync", REG_DWORD,
     "User: Run these programs user logon: Enabled",
     "User: Run these programs at user logon: Not Configured"},
};

// Probes and writes its line; returns whether the policy is enabled.
bool ReportProbe(const Probe& probe, const logonmon::SESSION_CONTEXT& session, uint32_t level,
                 const wchar_t* function) {
    DWORD number = 0;
    const bool enabled = probe.hive == Hive::Machine
                             ? CheckGPOSetting(HKEY_LOCAL_MACHINE, nullptr, probe.keyPath,
                                               probe.valueName, probe.type, &number)
                             : CheckGPOSetting(HKEY_USERS, SidPrefix(session), probe.keyPath,
                                               probe.valueName, probe.type, &number);
    if (!enabled) {
        LogMessage(nullptr, level, function, probe.notConfigured);
    } else if (probe.withNumber) {
        LogMessage(nullptr, level, function, probe.enabled, number);
    } else {
        LogMessage(nullptr, level, function, probe.enabled);
    }
    return enabled;
}

bool ReadNumber(const logonmon::RegistryKey& key, const std::wstring& keyPath,
                const wchar_t* valueName, DWORD* number) {
    DWORD type = 0;
    DWORD value = 0;
    DWORD size = sizeof(value);
    LSTATUS status = RegQueryValueExW(key.Get(), valueName, nullptr, &type,
                                      reinterpret_cast<BYTE*>(&value), &size);
    if (status == ERROR_SUCCESS && type != REG_DWORD) {
        status = ERROR_INVALID_DATA;
    }
    if (status == ERROR_FILE_NOT_FOUND) {
        return false;
    }
    if (status != ERROR_SUCCESS) {
        LogReadFailure(keyPath, valueName, status);
        return false;
    }
    if (value == 0) {
        return false;
    }
    if (number != nullptr) {
        *number = value;
    }
    return true;
}

bool ReadString(const logonmon::RegistryKey& key, const std::wstring& keyPath,
                const wchar_t* valueName) {
    DWORD size = 0;
    LSTATUS status = RegQueryValueExW(key.Get(), valueName, nullptr, nullptr, nullptr, &size);
    std::vector<wchar_t> text(size / sizeof(wchar_t) + 1);
    if (status == ERROR_SUCCESS) {
        status = RegQueryValueExW(key.Get(), valueName, nullptr, nullptr,
                                  reinterpret_cast<BYTE*>(text.data()), &size);
    }
    if (status == ERROR_FILE_NOT_FOUND) {
        return false;
    }
    if (status != ERROR_SUCCESS) {
        LogReadFailure(keyPath, valueName, status);
        return false;
    }
    return size >= sizeof(wchar_t) && text[0] != L'\0';
}

}  // namespace

bool CheckGPOSetting(HKEY hive, const wchar_t* sidPrefix, const wchar_t* keyPath,
                     const wchar_t* valueName, DWORD type, DWORD* number) {
    const std::wstring path =
        sidPrefix != nullptr ? std::wstring(sidPrefix) + L"\\" + keyPath : std::wstring(keyPath);
    logonmon::RegistryKey key;
    if (key.Open(hive, path.c_str(), KEY_READ) != ERROR_SUCCESS) {
        return false;
    }
    switch (type) {
        case REG_DWORD:
            return ReadNumber(key, path, valueName, number);
        case REG_SZ:
            return ReadString(key, path, valueName);
        default:
            LogMessage(nullptr, LOG_LEVEL_ERROR, kProbeFunction, "Unknown Registry Type: %d", type);
            return false;
    }
}

void CheckGroupPolicySettings(const logonmon::SESSION_CONTEXT& session) {
    for (const Probe& probe : kSettingsProbes) {
        ReportProbe(probe, session, LOG_LEVEL_INFO, kSettingsFunction);
    }
}

void LogGPLogonScriptSynchronous(const logonmon::SESSION_CONTEXT& session) {
    const bool machine = ReportProbe(kScriptProbes[0], session, LOG_LEVEL_TRACE, kScriptsFunction);
    const bool user = ReportProbe(kScriptProbes[1], session, LOG_LEVEL_TRACE, kScriptsFunction);
    LogMessage(nullptr, LOG_LEVEL_INFO, kScriptsFunction,
               machine || user ? "Group Policy Logon Scripts Are Synchronous"
                               : "Group Policy Logon Scripts Are Asynchronous");
}
