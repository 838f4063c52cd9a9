#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
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
constexpr wchar_t kUser[] = L"S-1-5-21-1-2-3-1001";

struct Value {
    bool user;
    const wchar_t* key;
    const wchar_t* name;
    const wchar_t* text;  // nullptr: `number` as a DWORD
    DWORD number = 0;
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

// Each row sets its values and expects `line` among both reports' lines, and
// an error line only when `line` is one.
TEST(PolicyReportTest, EachPolicyLineFollowsItsRegistryValue) {
    const std::string wait =
        "INFO Set maximum wait time for network if a user has a roaming "
        "profile or remote home directory: ";
    const std::string sync = "INFO Group Policy Logon Scripts Are ";
    const struct {
        std::vector<Value> values;
        std::string line;
    } cases[] = {
        {{}, "INFO Always wait for the network at computer start and logon: Not Configured"},
        {{{false, kWinlogon, L"SyncForegroundPolicy", nullptr, 1}},
         "INFO Always wait for the network at computer start and logon: Enabled"},
        {{{false, kWinlogon, L"SyncForegroundPolicy", L"1"}},
         "ERROR Failed Reading: SOFTWARE\\Policies\\Microsoft\\Windows "
         "NT\\CurrentVersion\\Winlogon\\SyncForegroundPolicy, 0xD"},
        {{{false, kRun, L"1", L"notepad.exe"}},
         "INFO Machine: Run these programs at user logon: Enabled"},
        {{{false, kScripts, L"RunLogonScriptSync", nullptr, 1}},
         "TRACE Computer: Run these programs user logon: Enabled"},
        {{{false, kRun, L"1", L""}},
         "INFO Machine: Run these programs at user logon: Not Configured"},
        {{{true, kRun, L"1", L"logon.cmd"}},
         "INFO User: Run these programs at user logon: Enabled"},
        {{{true, kScripts, L"RunLogonScriptSync", nullptr, 1}},
         "TRACE User: Run these programs user logon: Enabled"},
        {{{false, kSystem, L"SlowLinkProfileDefault", nullptr, 1}},
         "INFO Wait for remote user profile: Enabled"},
        {{{false, kSystem, L"WaitForNetwork", nullptr, 30}}, wait + "Enabled, 30 seconds"},
        {{{false, kSystem, L"WaitForNetwork", nullptr, 0}}, wait + "Not Configured"},
        {{{true, kSystem, L"CscSuspendDirs", L"\\\\server\\share"}},
         "INFO Specify network directories to sync at logon, logoff time only: Enabled"},
        {{}, sync + "Asynchronous"},
        {{{false, kScripts, L"RunLogonScriptSync", nullptr, 1},
          {true, kScripts, L"RunLogonScriptSync", nullptr, 0}},
         sync + "Synchronous"},
        {{{true, kScripts, L"RunLogonScriptSync", nullptr, 1}}, sync + "Synchronous"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.line);
        Clear();
        for (const Value& value : test.values) {
            Set(value);
        }
        TempFolder folder;
        ScopedMainLog log(folder.Path());
        logonmon::SESSION_CONTEXT session;
        session.userSidText = kUser;
        CheckGroupPolicySettings(session);
        LogGPLogonScriptSynchronous(session);
        std::vector<std::string> lines = LinesFrom(log.Path(), "CheckG");
        const std::vector<std::string> sync = LinesFrom(log.Path(), "LogGP");
        lines.insert(lines.end(), sync.begin(), sync.end());
        EXPECT_THAT(lines, ::testing::Contains(test.line));
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [](const std::string& line) { return line.starts_with("ERROR"); }),
                  test.line.starts_with("ERROR") ? 1 : 0);
    }
    Clear();
}

}  // namespace
