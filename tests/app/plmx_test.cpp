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

// The boot entry's "FileName"; empty without an entry.
std::wstring BootEntry() {
    wchar_t fileName[64] = {};
    DWORD size = sizeof(fileName);
    RegGetValueW(HKEY_LOCAL_MACHINE, kEntryKey.c_str(), L"FileName", RRF_RT_REG_SZ, nullptr,
                 fileName, &size);
    return fileName;
}

// Only "/file" opens the main log; the other modes, and a command line that
// is not understood, leave no log and exit with 0. Without arguments the
// program is the service, whose dispatcher fails from a console.
TEST(PlmxTest, ConsoleModesWriteTheBootEntryOrTheMainLogAndExitWithZero) {
    const struct {
        const wchar_t* arguments;
        bool entryBefore;  // made by "/traceOn /persistent C:\before.etl"
        const wchar_t* fileName;
        const char* logLine;  // null: no main log
    } cases[] = {
        {L"/traceOn /persistent C:\\t.etl", false, L"C:\\t.etl", nullptr},
        {L"/TRACEON /PERSISTENT x y C:\\last.etl", false, L"C:\\last.etl", nullptr},
        {L"/traceOn C:\\t.etl", false, L"", nullptr},
        {L"/traceOn /persistent", false, L"", nullptr},  // a trace file named "/persistent"
        {L"/traceOn a b c", false, L"", nullptr},
        {L"/traceOn", false, L"", nullptr},
        {L"/traceOn /persistent C:\\t.etl", true, L"C:\\before.etl", nullptr},
        {L"/traceOff", true, L"C:\\before.etl", nullptr},
        {L"/traceOff /persistent", true, L"", nullptr},
        {L"/TraceOff /Persistent", false, L"", nullptr},
        {L"/File C:\\missing.etl", false, L"", "TRACE [LogSettings] Flags: 0x100: "},
        {L"/FILE", false, L"", nullptr},
        {L"/file a.etl b.etl", false, L"", nullptr},
        {L"/persistent C:\\t.etl", false, L"", nullptr},
        {L"-traceOn /persistent C:\\t.etl", false, L"", nullptr},
        {L"", false, L"", nullptr},
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
        EXPECT_EQ(BootEntry(), c.fileName);
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
