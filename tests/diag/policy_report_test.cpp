#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "diag/PolicyReport.h"
#include "logonmon/SessionContext.h"
#include "tests/support/LogFiles.h"

using namespace plmx::testing;

namespace {

constexpr wchar_t kWinlogon[] =
    L"SOFTWARE\\Policies\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
constexpr wchar_t kSystem[] = L"SOFTWARE\\Policies\\Microsoft\\Windows\\System";
constexpr wchar_t kScripts[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\System";
constexpr wchar_t kRun[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\Explorer\\Run";
// A user whose hive the test fills; the users hive holds nothing else for it.
constexpr wchar_t kUser[] = L"S-1-5-21-1-2-3-1001";

struct Value {
    bool user;
    const wchar_t* key;
    const wchar_t* name;
    const wchar_t* text;  // a string, or nullptr for `number`
    DWORD number;
};

void Set(const Value& v) {
    const std::wstring key = v.user ? std::wstring(kUser) + L"\\" + v.key : v.key;
    const bool text = v.text != nullptr;
    ASSERT_EQ(RegSetKeyValueW(v.user ? HKEY_USERS : HKEY_LOCAL_MACHINE, key.c_str(), v.name,
                              text ? REG_SZ : REG_DWORD,
                              text ? static_cast<const void*>(v.text) : &v.number,
                              text ? DWORD((wcslen(v.text) + 1) * sizeof(wchar_t)) : 4),
              ERROR_SUCCESS);
}

void Clear() {
    RegDeleteTreeW(HKEY_USERS, kUser);
    for (const wchar_t* key : {kWinlogon, kSystem, kScripts, kRun}) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
    }
}

// Both reports, one "TAG message" line each.
TEST(PolicyReportTest, WritesEachPolicyAsTheRegistryHoldsIt) {
    const struct {
        const wchar_t* sid;
        std::vector<Value> values;
        const char* expected;
    } cases[] = {
        {L"S-1-5-21-9-9-9-9999",
         {},
         R"(INFO Always wait for the network at computer start and logon: Not Configured
INFO Machine: Run these programs at user logon: Not Configured
INFO User: Run these programs at user logon: Not Configured
INFO Wait for remote user profile: Not Configured
INFO Set maximum wait time for network if a user has a roaming profile or remote home directory: Not Configured
INFO Specify network directories to sync at logon, logoff time only: Not Configured
TRACE Computer: Run these programs at user logon: Not Configured
TRACE User: Run these programs at user logon: Not Configured
INFO Group Policy Logon Scripts Are Asynchronous
)"},
        {kUser,
         {{false, kWinlogon, L"SyncForegroundPolicy", L"1", 0},
          {false, kRun, L"1", L"notepad.exe", 0},
          {false, kSystem, L"SlowLinkProfileDefault", nullptr, 1},
          {false, kSystem, L"WaitForNetwork", nullptr, 30},
          {true, kSystem, L"CscSuspendDirs", L"\\\\server\\share", 0},
          {false, kScripts, L"RunLogonScriptSync", nullptr, 1},
          {true, kScripts, L"RunLogonScriptSync", nullptr, 0}},
         R"(ERROR Failed Reading: SOFTWARE\Policies\Microsoft\Windows NT\CurrentVersion\Winlogon\SyncForegroundPolicy, 0xD
INFO Always wait for the network at computer start and logon: Not Configured
INFO Machine: Run these programs at user logon: Enabled
INFO User: Run these programs at user logon: Not Configured
INFO Wait for remote user profile: Enabled
INFO Set maximum wait time for network if a user has a roaming profile or remote home directory: Enabled, 30 seconds
INFO Specify network directories to sync at logon, logoff time only: Enabled
TRACE Computer: Run these programs user logon: Enabled
TRACE User: Run these programs at user logon: Not Configured
INFO Group Policy Logon Scripts Are Synchronous
)"},
        {kUser,
         {{false, kWinlogon, L"SyncForegroundPolicy", nullptr, 1},
          {false, kRun, L"1", L"", 0},
          {true, kRun, L"1", L"logon.cmd", 0},
          {false, kSystem, L"WaitForNetwork", nullptr, 0},
          {true, kScripts, L"RunLogonScriptSync", nullptr, 1}},
         R"(INFO Always wait for the network at computer start and logon: Enabled
INFO Machine: Run these programs at user logon: Not Configured
INFO User: Run these programs at user logon: Enabled
INFO Wait for remote user profile: Not Configured
INFO Set maximum wait time for network if a user has a roaming profile or remote home directory: Not Configured
INFO Specify network directories to sync at logon, logoff time only: Not Configured
TRACE Computer: Run these programs at user logon: Not Configured
TRACE User: Run these programs user logon: Enabled
INFO Group Policy Logon Scripts Are Synchronous
)"},
    };
    for (const auto& test : cases) {
        Clear();
        for (const Value& value : test.values) {
            Set(value);
        }
        TempFolder folder;
        ScopedMainLog log(folder.Path());
        logonmon::SESSION_CONTEXT session;
        session.userSidText = test.sid;
        CheckGroupPolicySettings(session);
        LogGPLogonScriptSynchronous(session);
        std::string lines;
        for (const char* source : {"CheckG", "LogGP"}) {
            for (const std::string& line : LinesFrom(log.Path(), source)) {
                lines += line + "\n";
            }
        }
        EXPECT_EQ(lines, test.expected);
    }
    Clear();
}

}  // namespace
