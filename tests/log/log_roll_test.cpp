#include <gtest/gtest.h>

#include <windows.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "tests/support/LogFiles.h"

using plmx::testing::Messages;
using plmx::testing::ReadFileBytes;
using plmx::testing::ReadLines;
using plmx::testing::ScopedMainLog;
using plmx::testing::StdoutCapture;
using plmx::testing::TempFolder;

namespace {

constexpr uint32_t kLimit = 2000;
const std::string kOpened = "Opened main log, Size: 0";

class LogRollTest : public ::testing::Test {
  protected:
    void Write(int index) {
        LogMessage(nullptr, LOG_LEVEL_INFO, L"Roll::Test", "line %03d %s", index,
                   std::string(60, '.').c_str());
    }
    static std::string Expected(int index) {
        char text[16];
        snprintf(text, sizeof text, "line %03d ", index);
        return text + std::string(60, '.');
    }
    // Writes lines from `next` on until the backup file shows up.
    int WriteUntilRolled(int next) {
        const std::string before = ReadFileBytes(mainLog_.BackupPath());
        while (ReadFileBytes(mainLog_.BackupPath()) == before) {
            Write(next++);
            if (next > 1000) {
                ADD_FAILURE() << "no roll";
                break;
            }
        }
        return next;
    }

    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path(), kLimit};
};

TEST_F(LogRollTest, RollsAfterTheLineThatCrossesTheLimit) {
    const int firstAfterRoll = WriteUntilRolled(0);

    const std::string backup = ReadFileBytes(mainLog_.BackupPath());
    const std::vector<std::string> backupLines = ReadLines(mainLog_.BackupPath());
    ASSERT_EQ(backupLines.size(), static_cast<size_t>(firstAfterRoll) + 1);
    EXPECT_EQ(Messages(backupLines)[0], kOpened);
    for (int i = 0; i < firstAfterRoll; ++i) {
        EXPECT_EQ(Messages(backupLines)[i + 1], Expected(i));
    }
    // The crossing line went into the old file, which was within the limit before it.
    EXPECT_GT(backup.size(), kLimit);
    EXPECT_LE(backup.size() - backupLines.back().size() - 2, kLimit);
    EXPECT_EQ(Messages(ReadLines(mainLog_.Path())), std::vector<std::string>{kOpened});

    // The next roll replaces the backup; nothing in between is lost.
    const int secondRoll = WriteUntilRolled(firstAfterRoll);
    const std::vector<std::string> secondBackup = Messages(ReadLines(mainLog_.BackupPath()));
    ASSERT_EQ(secondBackup.size(), static_cast<size_t>(secondRoll - firstAfterRoll) + 1);
    EXPECT_EQ(secondBackup[0], kOpened);
    for (int i = firstAfterRoll; i < secondRoll; ++i) {
        EXPECT_EQ(secondBackup[i - firstAfterRoll + 1], Expected(i));
    }
    Write(secondRoll);
    EXPECT_EQ(Messages(ReadLines(mainLog_.Path())),
              (std::vector<std::string>{kOpened, Expected(secondRoll)}));
}

TEST_F(LogRollTest, FailedRenameIsRaisedAndLaterLinesGoToStandardOutput) {
    ASSERT_TRUE(CreateDirectoryW(mainLog_.BackupPath().c_str(), nullptr));
    int index = 0;
    try {
        for (; index < 1000; ++index) {
            Write(index);
        }
        FAIL() << "no roll";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Failed to roll main log file");
    }
    const std::vector<std::string> lines = Messages(ReadLines(mainLog_.Path()));
    ASSERT_EQ(lines.size(), static_cast<size_t>(index) + 2);
    EXPECT_EQ(lines.back(), Expected(index));

    StdoutCapture capture;
    EXPECT_NO_THROW(Write(index + 1));
    EXPECT_NE(capture.Text().find(Expected(index + 1)), std::string::npos);
    EXPECT_EQ(Messages(ReadLines(mainLog_.Path())).size(), lines.size());
}

TEST_F(LogRollTest, FailedReopenIsRaised) {
    const std::wstring blocker = folder_.Path() + L"blocker";
    ASSERT_TRUE(CloseHandle(CreateFileW(blocker.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                        FILE_ATTRIBUTE_NORMAL, nullptr)));
    const std::wstring backupPath = mainLog_.BackupPath();
    Settings::Instance().LogPath = L"\\\\?\\" + blocker + L"\\logs\\";
    StdoutCapture capture;
    int index = 0;
    try {
        for (; index < 1000; ++index) {
            Write(index);
        }
        FAIL() << "no roll";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Failed to open main log after rolling");
    }
    const std::vector<std::string> backup = Messages(ReadLines(backupPath));
    ASSERT_EQ(backup.size(), static_cast<size_t>(index) + 2);
    EXPECT_EQ(backup.back(), Expected(index));
    EXPECT_NE(capture.Text().find("[OpenLog] Failed to open Log: "), std::string::npos);
}

}  // namespace
