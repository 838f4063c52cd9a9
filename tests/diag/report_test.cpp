#include <gmock/gmock.h>

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "diag/NetworkReport.h"
#include "diag/PolicyReport.h"
#include "diag/ProfileReport.h"
#include "log/SessionLog.h"
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

TEST(ProfileReportTest, CountsFilesBySizeAndReportsTheProfileVolume) {
    TempFolder folder;
    ScopedMainLog log(folder.Path());
    logonmon::SESSION_CONTEXT session;
    session.sessionId = 3;
    const auto report = [&](const std::wstring& profile) {
        const size_t before = LinesFrom(log.Path(), "").size();
        session.localProfilePath = profile;
        LogProfileSize(session);
        const Lines lines = LinesFrom(log.Path(), "");
        return Lines(lines.begin() + before, lines.end());
    };
    const std::wstring root = folder.Path() + L"profile";
    for (const wchar_t* sub : {L"", L"\\AppData", L"\\AppData\\Roaming", L"\\Desktop"}) {
        ASSERT_TRUE(CreateDirectoryW((root + sub).c_str(), nullptr));
    }
    for (const auto& [path, size] : {std::pair{L"\\ntuser.dat", 1048575ull},
                                     {L"\\AppData\\Roaming\\one.bin", 1048576ull},
                                     {L"\\Desktop\\big.vhd", 1073741824ull},
                                     {L"\\Desktop\\ten.bin", 10 * 1048576ull}}) {
        std::ofstream{std::filesystem::path(root + path)};
        std::filesystem::resize_file(root + path, size);
    }
    // A folder that cannot be searched loses only its own figures; the report
    // goes on. (Wine lets its root user search any folder, so a missing
    // folder stands for an unreadable one.)
    Lines lines = report(root + L"\\gone");
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0],
              "ERROR FindFirstFile Failed: Path: " + Narrow(root) + "\\gone\\*, 0x80070003");
    EXPECT_EQ(lines[1], "INFO Profile Size: 0.00MB, Files: 0, Folders: 0. sessionId=3");

    lines = report(root);
    const DiskStatistics& disk = session.sessionLog->disk;
    EXPECT_GT(disk.totalBytes, 0u);
    const Lines expected = {
        "INFO Profile Size: 1036.00MB, Files: 4, Folders: 3. sessionId=3",
        "INFO File Size Distribution For sessionId=3:",
        "INFO   0 to < 1MB: 1",
        "INFO   1MB to < 10MB: 1",
        "INFO   10MB to < 100MB: 1",
        "INFO   100MB to < 1GB: 0",
        "INFO   1GB to < 10GB: 1",
        "INFO   >= 10GB: 0",
        "INFO No user token available.  Collecting user-independent free disk space metrics.",
        "INFO Disk Space Metrics For User Profile Volume:"};
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 10), expected);
    EXPECT_EQ(lines.back(),
              "INFO Total Disk Space: " + std::to_string(disk.totalBytes >> 30) + " GB");
}

// Ethernet: two addresses, two DNS servers; one without a name: no
// address. The list needs `needs[i]` bytes at the i-th
// call (the last again after that); `result` replaces success once it fits.
struct FakeAdapters : AdapterList {
    ULONG Get(ULONG, ULONG, IP_ADAPTER_ADDRESSES* buffer, ULONG* size) override {
        const ULONG needed = needs[std::min(sizes.size(), needs.size() - 1)];
        sizes.push_back(*size);
        if (*size < needed) {
            *size = needed;
            return ERROR_BUFFER_OVERFLOW;
        }
        std::memcpy(buffer, &adapters[0], sizeof adapters[0]);
        return result;
    }

    FakeAdapters() {
        const char* texts[] = {"10.0.0.5", "192.168.1.20", "10.0.0.1", "8.8.8.8"};
        for (int i = 0; i < 4; ++i) {
            sockets[i].sin_family = AF_INET;
            sockets[i].sin_addr.s_addr = inet_addr(texts[i]);
            (i < 2 ? unicast[i].Address : dns[i - 2].Address).lpSockaddr =
                reinterpret_cast<sockaddr*>(&sockets[i]);
        }
        unicast[0].Next = &unicast[1];
        dns[0].Next = &dns[1];
        adapters[0].Next = &adapters[1];
        adapters[0].FriendlyName = const_cast<wchar_t*>(L"Ethernet");
        adapters[0].FirstUnicastAddress = &unicast[0];
        adapters[0].FirstDnsServerAddress = &dns[0];
        adapters[1].FirstDnsServerAddress = &dns[1];
    }

    std::vector<ULONG> needs;
    ULONG result = NO_ERROR;
    std::vector<ULONG> sizes;
    IP_ADAPTER_ADDRESSES adapters[2]{};
    IP_ADAPTER_UNICAST_ADDRESS unicast[2]{};
    IP_ADAPTER_DNS_SERVER_ADDRESS dns[2]{};
    sockaddr_in sockets[4]{};
};

TEST(NetworkReportTest, ReportsAdaptersWithDnsServersAndGrowsTheBufferThreeTimesAtMost) {
    const Lines report = {
        "INFO Friendly Name: Ethernet",        "INFO IP Address: 10.0.0.5",
        "INFO IP Address: 192.168.1.20",       "INFO Dns Server Address[0]: 10.0.0.1",
        "INFO Dns Server Address[1]: 8.8.8.8", "INFO Friendly Name: Unknown",
        "INFO IP Address: None Found",         "INFO Dns Server Address[0]: 8.8.8.8"};
    // Only the first character of an error's message reaches the log.
    const Lines error = {"ERROR Error: ?"}, none;
    const struct {
        std::vector<ULONG> needs;
        ULONG result;
        std::vector<ULONG> sizes;
        const Lines& expected;
    } cases[] = {
        {{15000}, NO_ERROR, {15000}, report},
        {{15100}, NO_ERROR, {15000, 15100}, report},
        {{15100, 15200, 15300}, NO_ERROR, {15000, 15100, 15200}, error},
        {{15000}, ERROR_NO_DATA, {15000}, none},
        {{15000}, ERROR_ACCESS_DENIED, {15000}, error},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(&test - cases);
        TempFolder folder;
        ScopedMainLog log(folder.Path());
        FakeAdapters adapters;
        adapters.needs = test.needs;
        adapters.result = test.result;
        LogIpAddresses(adapters);
        EXPECT_EQ(adapters.sizes, test.sizes);
        Lines lines = LinesFrom(log.Path(), "LogIpAddresses");
        if (lines.size() == 1 && lines[0].starts_with("ERROR Error: ")) {
            lines[0].back() = '?';
        }
        EXPECT_EQ(lines, test.expected);
    }
}

}  // namespace
