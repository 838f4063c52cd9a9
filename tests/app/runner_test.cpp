#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "app/LogonMonitorRunner.h"
#include "app/Settings.h"
#include "log/LogWriter.h"
#include "tests/support/LogFiles.h"

namespace plmx::testing {
namespace {

using ::testing::ElementsAre;

// A name query that refuses `failing` with access denied and answers the
// other format by the two-call protocol.
template <COMPUTER_NAME_FORMAT failing>
BOOL WINAPI FailingQuery(COMPUTER_NAME_FORMAT format, LPWSTR name, LPDWORD size) {
    if (format == failing) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    return GetComputerNameExW(format, name, size);
}

TEST(RunnerTest, AFailedNameQueryEndsTheRunWithZeroAfterItsTwoLines) {
    const struct {
        LogonMonitorRunner::ComputerNameQuery query;
        const char* fatalLine;
    } cases[] = {
        {&FailingQuery<ComputerNameNetBIOS>,
         "FATAL [LogonMonitorRunner::InitializeProcess] Failed Getting Computer Name: 0x80070005"},
        {&FailingQuery<ComputerNameDnsFullyQualified>,
         "FATAL [LogonMonitorRunner::InitializeProcess] Failed Getting FQDN: 0x80070005"},
    };
    for (const auto& c : cases) {
        TempFolder folder;
        const std::wstring& path = folder.Path();
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettingsKeyPath, L"LogPath", REG_SZ, path.c_str(),
                        static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
        EXPECT_EQ(LogonMonitorRunner(c.query).Run(nullptr, L"C:\\never-read.etl"), 0);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath);
        // The failed start-up leaves the main log open; the lines are there.
        CloseMainLog();

        const auto lines = Tagged(ReadLines(path + L"plmx.txt"));
        ASSERT_GE(lines.size(), 2u);
        EXPECT_THAT(
            std::vector<std::string>(lines.end() - 2, lines.end()),
            ElementsAre(c.fatalLine,
                        "ERROR [LogonMonitorRunner::Run] Fatal error: Initializing failed"));
    }
}

}  // namespace
}  // namespace plmx::testing
