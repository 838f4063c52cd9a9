// The Group Policy settings that make a logon wait, read from the registry
// and written into the session's log.
#pragma once

#include <windows.h>

namespace logonmon {
struct SESSION_CONTEXT;
}

// True when the policy value is set: a non-zero number (REG_DWORD, stored in
// `number` when given) or a non-empty string (REG_SZ). With `sidPrefix` the
// key read is "<sidPrefix>\<keyPath>". Missing keys and values read as not
// set without a log line.
bool CheckGPOSetting(HKEY hive, const wchar_t* sidPrefix, const wchar_t* keyPath,
                     const wchar_t* valueName, DWORD type, DWORD* number);

// One line per policy that bears on logon time; the user's policies are read
// under the session user's SID string.
void CheckGroupPolicySettings(const logonmon::SESSION_CONTEXT& session);

// Whether logon scripts run synchronously, by machine and by user policy.
void LogGPLogonScriptSynchronous(const logonmon::SESSION_CONTEXT& session);
