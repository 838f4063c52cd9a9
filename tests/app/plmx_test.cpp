// plmx.exe as an administrator meets it: console modes observed by their
// exit codes, the boot-time trace entry and the main log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "app/Settings.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogFiles.h"
#include "trace/AutoLogger.h"
#include "trace/SessionNames.h"

namespace plmx::testing {
namespace {

const std::wstring kPlmx = L"" PLMX_EXE;
const std::wstring kEntryKey =
    std::wstring(logonmon::kAutoLoggerKey) + L"\\" + logonmon::kFileSessionName;

// The boot entry's "FileName" and its number of provider subkeys; empty and
// 0 without an entry.
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

// Only "/file" opens the main log; the other modes, and a command line that
// is not understood, leave no log and exit with 0. Without arguments the
// program is the service, whose dispatcher fails from a console.
TEST(PlmxTest, ConsoleModesWriteTheBootEntryOrTheMainLogAndExitWithZero) {
    constexpr DWORD kProviders = 23;
    const struct {
        const wchar_t* arguments;
        bool entryBefore;  // made by "/traceOn /persistent C:\before.etl"
        const wchar_t* fileName;
        DWORD providers;
        const char* logLine;  // null: no main log
    } cases[] = {
        {L"/traceOn /persistent C:\\t.etl", false, L"C:\\t.etl", kProviders, nullptr},
        {L"/TRACEON /PERSISTENT x y C:\\last.etl", false, L"C:\\last.etl", kProviders, nullptr},
        {L"/traceOn C:\\t.etl", false, L"", 0, nullptr},
        {L"/traceOn /persistent", false, L"", 0, nullptr},  // a trace file named "/persistent"
        {L"/traceOn a b c", false, L"", 0, nullptr},
        {L"/traceOn", false, L"", 0, nullptr},
        {L"/traceOn /persistent C:\\t.etl", true, L"C:\\before.etl", kProviders, nullptr},
        {L"/traceOff", true, L"C:\\before.etl", kProviders, nullptr},
        {L"/traceOff /persistent", true, L"", 0, nullptr},
        {L"/TraceOff /Persistent", false, L"", 0, nullptr},
        {L"/File C:\\missing.etl", false, L"", 0, "TRACE [LogSettings] Flags: 0x100: "},
        {L"/FILE", false, L"", 0, nullptr},
        {L"/file a.etl b.etl", false, L"", 0, nullptr},
        {L"/persistent C:\\t.etl", false, L"", 0, nullptr},
        {L"-traceOn /persistent C:\\t.etl", false, L"", 0, nullptr},
        {L"", false, L"", 0, nullptr},
    };
    TempFolder folder;
    const std::wstring mainLog = folder.Path() + L"plmx.txt";
    for (const auto& c : cases) {
        SCOPED_TRACE(Narrow(c.arguments));
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kEntryKey.c_str());
        DeleteFileW(mainLog.c_str());
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettingsKeyPath, L"LogPath", REG_SZ,
                        folder.Path().c_str(),
                        static_cast<DWORD>((folder.Path().size() + 1) * sizeof(wchar_t)));
        if (c.entryBefore) {
            ASSERT_EQ(RunProgram(kPlmx, L"/traceOn /persistent C:\\before.etl").exitCode, 0u);
        }
        EXPECT_EQ(RunProgram(kPlmx, c.arguments).exitCode, *c.arguments ? 0u : DWORD(-1));
        EXPECT_EQ(BootEntry(), std::make_pair(std::wstring(c.fileName), c.providers));
        if (c.logLine != nullptr) {
            EXPECT_THAT(Tagged(ReadLines(mainLog)), ::testing::Contains(c.logLine));
        } else {
            EXPECT_EQ(GetFileAttributesW(mainLog.c_str()), INVALID_FILE_ATTRIBUTES);
        }
    }
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kEntryKey.c_str());
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath);
}

}  // namespace
}  // namespace plmx::testing
