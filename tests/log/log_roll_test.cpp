#include <gtest/gtest.h>

#include <windows.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "tests/support/LogFiles.h"

using namespace plmx::testing;
using Lines = std::vector<std::string>;

namespace {

constexpr uint32_t kLimit = 2000;
const std::string kOpened = "Opened main log, Size: 0";

std::string Line(int index) {
    return "line " + std::to_string(1000 + index) + " " + std::string(60, '.');
}

class LogRollTest : public ::testing::Test {
  protected:
    // Writes numbered lines from `next` on until the log rolls or a write
    // throws; returns the number after the last line written.
    int WriteUntilRolled(int next) {
        const std::string backup = ReadFileBytes(mainLog_.BackupPath());
        while (ReadFileBytes(mainLog_.BackupPath()) == backup && next < 1000) {
            LogMessage(nullptr, LOG_LEVEL_INFO, L"Roll::Test", "%s", Line(next++).c_str());
        }
        return next;
    }
    static Lines Expected(int from, int to) {
        Lines lines{kOpened};
        for (int i = from; i < to; ++i) {
            lines.push_back(Line(i));
        }
        return lines;
    }

    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path(), kLimit};
};

TEST_F(LogRollTest, RollsAfterTheLineThatCrossesTheLimit) {
    const int firstRoll = WriteUntilRolled(0);
    EXPECT_EQ(Messages(ReadLines(mainLog_.BackupPath())), Expected(0, firstRoll));
    EXPECT_EQ(Messages(ReadLines(mainLog_.Path())), Expected(0, 0));
    // The old file was within the limit before the crossing line.
    const size_t backupSize = ReadFileBytes(mainLog_.BackupPath()).size();
    EXPECT_GT(backupSize, kLimit);
    EXPECT_LE(backupSize - ReadLines(mainLog_.BackupPath()).back().size() - 2, kLimit);

    // The next roll replaces the backup.
    const int secondRoll = WriteUntilRolled(firstRoll);
    EXPECT_EQ(Messages(ReadLines(mainLog_.BackupPath())), Expected(firstRoll, secondRoll));
}

TEST_F(LogRollTest, FailuresAreRaisedAndLaterLinesGoToStandardOutput) {
    struct Case {
        const char* error;
        bool blockRename;  // else block the reopening
    };
    const Case cases[] = {{"Failed to roll main log file", true},
                          {"Failed to open main log after rolling", false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.error);
        TempFolder folder;
        ScopedMainLog mainLog(folder.Path(), kLimit);
        const std::wstring backupPath = mainLog.BackupPath();
        if (c.blockRename) {
            ASSERT_TRUE(CreateDirectoryW(backupPath.c_str(), nullptr));
        } else {
            CloseHandle(CreateFileW((folder.Path() + L"blocker").c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_NEW, 0, nullptr));
            Settings::Instance().LogPath = L"\\\\?\\" + folder.Path() + L"blocker\\logs\\";
        }
        StdoutCapture capture;
        int next = 0;
        try {
            while (next < 1000) {
                LogMessage(nullptr, LOG_LEVEL_INFO, L"Roll::Test", "%s", Line(next++).c_str());
            }
            ADD_FAILURE() << "no roll";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), c.error);
        }
        // The crossing line was written before the roll failed.
        EXPECT_EQ(Messages(ReadLines(c.blockRename ? mainLog.Path() : backupPath)),
                  Expected(0, next));

        EXPECT_NO_THROW(LogMessage(nullptr, LOG_LEVEL_INFO, L"Roll::Test", "afterwards"));
        EXPECT_NE(capture.Text().find("[Roll::Test] afterwards"), std::string::npos);
    }
}

}  // namespace
