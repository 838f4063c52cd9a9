// plmx.exe as an administrator meets it: console modes observed by their
// exit codes and the boot-time trace entry, the service by its log and
// reported state, the file by its version resource.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "app/Settings.h"
#include "tests/app/InstalledService.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogFiles.h"
#include "trace/AutoLogger.h"
#include "trace/Controller.h"

namespace plmx::testing {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::StartsWith;

const std::wstring kPlmx = BuildTreePath(PLMX_EXE);
const std::wstring kEntryKey =
    std::wstring(logonmon::kAutoLoggerKey) + L"\\" + logonmon::kFileSessionName;

DWORD Plmx(const std::wstring& arguments) {
    return RunProgram(kPlmx, arguments).exitCode;
}

// The boot entry's "FileName" and its number of provider subkeys; empty
// and 0 without an entry.
std::pair<std::wstring, DWORD> BootEntry() {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kEntryKey.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return {L"", 0};
    }
    wchar_t fileName[64] = {};
    DWORD size = sizeof(fileName);
    RegGetValueW(key, nullptr, L"FileName", RRF_RT_REG_SZ, nullptr, fileName, &size);
    DWORD subKeys = 0;
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr,
                     nullptr, nullptr, nullptr);
    RegCloseKey(key);
    return {fileName, subKeys};
}

// Every test starts and ends without a boot entry or settings key.
class PlmxTest : public ::testing::Test {
  protected:
    PlmxTest() { Clean(); }
    ~PlmxTest() override { Clean(); }

    static void Clean() {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kEntryKey.c_str());
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath);
    }

    // The settings key pointing the logs at `folder`.
    static void LogInto(const TempFolder& folder) {
        const std::wstring& path = folder.Path();
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettingsKeyPath, L"LogPath", REG_SZ, path.c_str(),
                        static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
    }
};

TEST_F(PlmxTest, ConsoleModesWriteOrRemoveTheBootEntryAndExitWithZero) {
    constexpr DWORD kProviders = 23;
    const struct {
        const wchar_t* arguments;
        bool entryBefore;  // made by "/traceOn /persistent C:\before.etl"
        const wchar_t* fileName;
        DWORD providers;
    } cases[] = {
        {L"/traceOn /persistent C:\\t.etl", false, L"C:\\t.etl", kProviders},
        {L"/TRACEON /PERSISTENT x y C:\\last.etl", false, L"C:\\last.etl", kProviders},
        {L"/traceOn C:\\t.etl", false, L"", 0},
        {L"/traceOn /persistent", false, L"", 0},  // a trace file named "/persistent"
        {L"/traceOn a b c", false, L"", 0},
        {L"/traceOn", false, L"", 0},
        {L"/traceOn /persistent C:\\t.etl", true, L"C:\\before.etl", kProviders},
        {L"/traceOff", true, L"C:\\before.etl", kProviders},
        {L"/traceOff /persistent", true, L"", 0},
        {L"/TraceOff /Persistent", false, L"", 0},
        {L"/FILE", false, L"", 0},
        {L"/file a.etl b.etl", false, L"", 0},
        {L"/persistent C:\\t.etl", false, L"", 0},
        {L"-traceOn /persistent C:\\t.etl", false, L"", 0},
    };
    for (const auto& c : cases) {
        Clean();
        if (c.entryBefore) {
            ASSERT_EQ(Plmx(L"/traceOn /persistent C:\\before.etl"), 0u);
        }
        EXPECT_EQ(Plmx(c.arguments), 0u) << Narrow(c.arguments);
        EXPECT_EQ(BootEntry(), std::make_pair(std::wstring(c.fileName), c.providers))
            << Narrow(c.arguments);
    }
}

TEST_F(PlmxTest, FileModeReportsTheTraceFileFlagWithTheSettings) {
    TempFolder folder;
    LogInto(folder);
    EXPECT_EQ(Plmx(L"/File C:\\missing.etl"), 0u);
    EXPECT_THAT(Tagged(ReadLines(folder.Path() + L"plmx.txt")),
                Contains("TRACE [LogSettings] Flags: 0x100: "));
}

TEST_F(PlmxTest, TheServiceStopsCleanlyWhenItsTraceSessionCannotBeConsumed) {
    TempFolder folder;
    LogInto(folder);
    InstalledService service(L"PLMX", L"\"" + kPlmx + L"\"");
    ASSERT_EQ(service.Start(), ERROR_SUCCESS);
    EXPECT_EQ(service.WaitFor(SERVICE_STOPPED), static_cast<DWORD>(SERVICE_STOPPED));

    const std::vector<std::string> lines = Tagged(ReadLines(folder.Path() + L"plmx.txt"));
    EXPECT_THAT(lines,
                IsSupersetOf(std::vector<std::string>{
                    "TRACE [LogSettings] Log Level: 0x1F: Error | Info | Debug | Trace | Fatal",
                    "TRACE [LogSettings] Log Path: \\\\?\\" + Narrow(folder.Path()),
                    "TRACE [LogSettings] Flags: 0x0: None"}));
    EXPECT_THAT(lines,
                Contains(StartsWith("TRACE [LogonMonitorRunner::InitializeProcess] Process Id: ")));
    std::vector<std::string> errors;
    for (const std::string& line : lines) {
        if (line.starts_with("ERROR ")) {
            errors.push_back(line);
        }
    }
    EXPECT_THAT(errors, ::testing::ElementsAre(
                            HasSubstr("Failed to open trace session logonmon_timing, err ")));
}

TEST_F(PlmxTest, TheFileNamesProductAndVersion) {
    DWORD ignored = 0;
    std::vector<BYTE> info(GetFileVersionInfoSizeW(kPlmx.c_str(), &ignored));
    ASSERT_FALSE(info.empty());
    ASSERT_TRUE(
        GetFileVersionInfoW(kPlmx.c_str(), 0, static_cast<DWORD>(info.size()), info.data()));
    for (const auto& [name, expected] :
         {std::pair{L"ProductVersion", L"1.0.0"},
          std::pair{L"FileDescription", L"Norvik Logon Monitor service"}}) {
        wchar_t* value = nullptr;
        UINT length = 0;
        const std::wstring path = std::wstring(L"\\StringFileInfo\\040904B0\\") + name;
        ASSERT_TRUE(
            VerQueryValueW(info.data(), path.c_str(), reinterpret_cast<void**>(&value), &length));
        EXPECT_EQ(std::wstring(value), expected);
    }
}

}  // namespace
}  // namespace plmx::testing
