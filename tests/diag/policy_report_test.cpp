#include <gtest/gtest.h>

#include <windows.h>
#include <sddl.h>

#include <string>
#include <vector>

#include "diag/PolicyReport.h"
#include "logonmon/SessionContext.h"
#include "tests/support/LogFiles.h"

using namespace plmx::testing;
using Lines = std::vector<std::string>;

namespace {

constexpr wchar_t kWinlogon[] =
    L"SOFTWARE\\Policies\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
constexpr wchar_t kSystem[] = L"SOFTWARE\\Policies\\Microsoft\\Windows\\System";
constexpr wchar_t kScripts[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\System";
constexpr wchar_t kRun[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\Explorer\\Run";
const wchar_t* const kKeys[] = {kWinlogon, kSystem, kScripts, kRun};

// The test user's own SID: its hive is loaded, as HKEY_CURRENT_USER.
std::wstring CurrentUserSid() {
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
    BYTE buffer[256];
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, buffer, sizeof(buffer), &size);
    CloseHandle(token);
    wchar_t* text = nullptr;
    ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text);
    const std::wstring sid = text;
    LocalFree(text);
    return sid;
}

struct Value {
    HKEY hive;
    const wchar_t* key;
    const wchar_t* name;
    DWORD type;
    const wchar_t* text;  // for REG_SZ
    DWORD number;
};

struct Case {
    const char* name;
    std::vector<Value> values;
    const wchar_t* sid;  // nullptr: the test user's
    void (*report)(const logonmon::SESSION_CONTEXT&);
    Lines expected;
};

// Removes the probed policy keys before and after a case.
struct ClearedPolicies {
    ClearedPolicies() { Clear(); }
    ~ClearedPolicies() { Clear(); }
    static void Clear() {
        for (const wchar_t* key : kKeys) {
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
            RegDeleteTreeW(HKEY_CURRENT_USER, key);
        }
    }
};

const HKEY kMachine = HKEY_LOCAL_MACHINE;
const HKEY kUser = HKEY_CURRENT_USER;

TEST(PolicyReportTest, WritesEachPolicyAsTheRegistryHoldsIt) {
    const Case cases[] = {
        Case{"nothing set, user without a loaded hive",
             {},
             L"S-1-5-21-1-2-3-4242",
             CheckGroupPolicySettings,
             {"INFO Always wait for the network at computer start and logon: Not Configured",
              "INFO Machine: Run these programs at user logon: Not Configured",
              "INFO User: Run these programs at user logon: Not Configured",
              "INFO Wait for remote user profile: Not Configured",
              "INFO Set maximum wait time for network if a user has a roaming profile or remote "
              "home directory: Not Configured",
              "INFO Specify network directories to sync at logon, logoff time only: Not "
              "Configured"}},
        Case{"numbers, a number stored as a string, user strings",
             {{kMachine, kWinlogon, L"SyncForegroundPolicy", REG_SZ, L"1", 0},
              {kMachine, kSystem, L"WaitForNetwork", REG_DWORD, nullptr, 30},
              {kMachine, kRun, L"1", REG_SZ, L"", 0},
              {kUser, kRun, L"1", REG_SZ, L"logon.cmd", 0},
              {kUser, kSystem, L"CscSuspendDirs", REG_SZ, L"\\\\server\\share", 0}},
             nullptr,
             CheckGroupPolicySettings,
             {"ERROR Failed Reading: SOFTWARE\\Policies\\Microsoft\\Windows "
              "NT\\CurrentVersion\\Winlogon\\SyncForegroundPolicy, 0xD",
              "INFO Always wait for the network at computer start and logon: Not Configured",
              "INFO Machine: Run these programs at user logon: Not Configured",
              "INFO User: Run these programs at user logon: Enabled",
              "INFO Wait for remote user profile: Not Configured",
              "INFO Set maximum wait time for network if a user has a roaming profile or remote "
              "home directory: Enabled, 30 seconds",
              "INFO Specify network directories to sync at logon, logoff time only: Enabled"}},
        Case{"wait for network 0",
             {{kMachine, kSystem, L"WaitForNetwork", REG_DWORD, nullptr, 0}},
             L"",
             CheckGroupPolicySettings,
             {"INFO Always wait for the network at computer start and logon: Not Configured",
              "INFO Machine: Run these programs at user logon: Not Configured",
              "INFO User: Run these programs at user logon: Not Configured",
              "INFO Wait for remote user profile: Not Configured",
              "INFO Set maximum wait time for network if a user has a roaming profile or remote "
              "home directory: Not Configured",
              "INFO Specify network directories to sync at logon, logoff time only: Not "
              "Configured"}},
        Case{"machine scripts synchronous, user 0",
             {{kMachine, kScripts, L"RunLogonScriptSync", REG_DWORD, nullptr, 1},
              {kUser, kScripts, L"RunLogonScriptSync", REG_DWORD, nullptr, 0}},
             nullptr,
             LogGPLogonScriptSynchronous,
             {"TRACE Computer: Run these programs user logon: Enabled",
              "TRACE User: Run these programs at user logon: Not Configured",
              "INFO Group Policy Logon Scripts Are Synchronous"}},
        Case{"user scripts synchronous",
             {{kUser, kScripts, L"RunLogonScriptSync", REG_DWORD, nullptr, 1}},
             nullptr,
             LogGPLogonScriptSynchronous,
             {"TRACE Computer: Run these programs at user logon: Not Configured",
              "TRACE User: Run these programs user logon: Enabled",
              "INFO Group Policy Logon Scripts Are Synchronous"}},
        Case{"no script policy",
             {},
             nullptr,
             LogGPLogonScriptSynchronous,
             {"TRACE Computer: Run these programs at user logon: Not Configured",
              "TRACE User: Run these programs at user logon: Not Configured",
              "INFO Group Policy Logon Scripts Are Asynchronous"}}};
    for (const Case& test : cases) {
        const ClearedPolicies cleared;
        TempFolder folder;
        ScopedMainLog log(folder.Path());
        for (const Value& v : test.values) {
            const std::wstring text = v.text != nullptr ? v.text : L"";
            ASSERT_EQ(v.type == REG_SZ
                          ? RegSetKeyValueW(v.hive, v.key, v.name, REG_SZ, text.c_str(),
                                            DWORD((text.size() + 1) * sizeof(wchar_t)))
                          : RegSetKeyValueW(v.hive, v.key, v.name, REG_DWORD, &v.number, 4),
                      ERROR_SUCCESS);
        }
        logonmon::SESSION_CONTEXT session;
        session.userSidText = test.sid != nullptr ? test.sid : CurrentUserSid();
        test.report(session);

        const Lines lines = LinesFrom(log.Path(), test.report == CheckGroupPolicySettings
                                                      ? "CheckG"
                                                      : "LogGPLogonScriptSynchronous");
        EXPECT_EQ(lines, test.expected) << test.name;
    }
}

TEST(CheckGPOSettingTest, ReportsAnUnknownTypeAndKeepsTheNumberOfAnEnabledValue) {
    TempFolder folder;
    ScopedMainLog log(folder.Path());
    const DWORD seven = 7;
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSystem, L"WaitForNetwork", REG_DWORD, &seven, 4),
              ERROR_SUCCESS);
    DWORD number = 0;
    EXPECT_TRUE(CheckGPOSetting(HKEY_LOCAL_MACHINE, nullptr, kSystem, L"WaitForNetwork", REG_DWORD,
                                &number));
    EXPECT_EQ(number, 7u);
    EXPECT_FALSE(CheckGPOSetting(HKEY_LOCAL_MACHINE, nullptr, kSystem, L"WaitForNetwork",
                                 REG_BINARY, &number));
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSystem);
    EXPECT_EQ(LinesFrom(log.Path(), "CheckGPOSetting"), Lines{"ERROR Unknown Registry Type: 3"});
}

}  // namespace
