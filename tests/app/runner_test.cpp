#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "app/LogonMonitorRunner.h"
#include "app/Settings.h"
#include "tests/support/LogFiles.h"

namespace plmx::testing {
namespace {

// A name query that refuses `failing` with access denied.
template <COMPUTER_NAME_FORMAT failing>
BOOL WINAPI FailingQuery(COMPUTER_NAME_FORMAT format, LPWSTR name, LPDWORD size) {
    SetLastError(ERROR_ACCESS_DENIED);
    return format != failing && GetComputerNameExW(format, name, size);
}

TEST(RunnerTest, AFailedNameQueryEndsTheRunWithZeroAfterItsTwoLines) {
    for (const auto& [query, name] :
         {std::pair{&FailingQuery<ComputerNameNetBIOS>, "Computer Name"},
          std::pair{&FailingQuery<ComputerNameDnsFullyQualified>, "FQDN"}}) {
        TempFolder folder;
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettingsKeyPath, L"LogPath", REG_SZ,
                        folder.Path().c_str(),
                        static_cast<DWORD>((folder.Path().size() + 1) * sizeof(wchar_t)));
        EXPECT_EQ(LogonMonitorRunner(query).Run(nullptr, L"C:\\never-read.etl"), 0);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath);
        CloseMainLog();  // a failed start-up leaves it open
        const std::vector<std::string> lines = Tagged(ReadLines(folder.Path() + L"plmx.txt"));
        ASSERT_GE(lines.size(), 2u);
        EXPECT_THAT(
            std::vector(lines.end() - 2, lines.end()),
            ::testing::ElementsAre(
                std::string("FATAL [LogonMonitorRunner::InitializeProcess] Failed Getting ") +
                    name + ": 0x80070005",
                "ERROR [LogonMonitorRunner::Run] Fatal error: Initializing failed"));
    }
}

}  // namespace
}  // namespace plmx::testing
