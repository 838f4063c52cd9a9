#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "log/SessionLog.h"
#include "logonmon/CurrentRecord.h"
#include "logonmon/SessionContext.h"
#include "tests/support/EventBuilder.h"
#include "tests/support/LogFiles.h"
#include "trace/EventRecordData.h"

namespace plmx::testing {
namespace {

using Lines = std::vector<std::string>;
using ::testing::ElementsAre;
using ::testing::StartsWith;

std::string Timestamp(const SYSTEMTIME& t) {
    char text[32];
    snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", t.wYear, t.wMonth, t.wDay,
             t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
    return text;
}

std::string LocalNow() {
    SYSTEMTIME now;
    GetLocalTime(&now);
    return Timestamp(now);
}

// " <tag> (<process>-<thread>) [<source>] " of this thread's plain lines.
std::string Prefix(const char* tag, const char* source) {
    char text[96];
    snprintf(text, sizeof text, " %s (%04lx-%04lx) [%s] ", tag, GetCurrentProcessId(),
             GetCurrentThreadId(), source);
    return text;
}

// A path under which nothing can be created: a file stands in its way.
std::wstring BlockedFolder(const std::wstring& folder) {
    CloseHandle(CreateFileW((folder + L"blocker").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                            FILE_ATTRIBUTE_NORMAL, nullptr));
    return L"\\\\?\\" + folder + L"blocker\\logs\\";
}

class LogWriterTest : public ::testing::Test {
  protected:
    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path()};
};

// Both entries, MSVC's conversions, line ends inside a message, the level's
// tag (the lowest known bit; the setting is a mask) and the cut at the line
// buffer, where a text the runtime cannot convert also ends the line.
TEST_F(LogWriterTest, LinesByteForByte) {
    const auto viaList = [](uint32_t level, const char* format, ...) {
        va_list args;
        va_start(args, format);
        LogMessageV(nullptr, level, L"Writer::List", format, args);
        va_end(args);
    };
    const std::string before = LocalNow();
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "one\ntwo %d", 2);
    viaList(0x18, "%ws|%I64u|%d|%s|%%|0x%X", L"wide", 18446744073709551615ULL, -7, "nr", 0xBEEFu);
    for (const auto& [setting, level] : {std::pair{0xFFFFFFFFu, 0x03u},
                                         {0xFFFFFFFFu, 0x20u},
                                         {0x09u, 0x03u},
                                         {0x02u, 0x01u},
                                         {0x00u, 0x1Fu}}) {
        Settings::Instance().LogLevel = setting;
        viaList(level, "level %u", level);
    }
    Settings::Instance().LogLevel = 0x1F;
    const size_t room = 65535 - Prefix("INFO", "Writer::Test").size() - 23;
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "%s", std::string(70000, 'x').c_str());
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "kept|%ws", L"\x4E2D");
    const std::string after = LocalNow();

    const Lines lines = ReadLines(mainLog_.Path());
    ASSERT_EQ(lines.size(), 9u);
    const Lines expected{
        Prefix("INFO", "OpenMainLog") + "Opened main log, Size: 0",
        Prefix("INFO", "Writer::Test") + "one",
        "two 2",
        Prefix("TRACE", "Writer::List") + "wide|18446744073709551615|-7|nr|%|0xBEEF",
        Prefix("ERROR", "Writer::List") + "level 3",
        Prefix("NONE", "Writer::List") + "level 32",
        Prefix("ERROR", "Writer::List") + "level 3",
        Prefix("INFO", "Writer::Test") + std::string(room, 'x'),
        Prefix("INFO", "Writer::Test") + "kept|"};
    for (size_t i = 0; i < expected.size(); ++i) {
        const std::string text = i == 2 ? lines[i] : lines[i].substr(23);
        EXPECT_EQ(text, expected[i]) << i;
        // The opening line was written before `before`.
        EXPECT_TRUE(i == 0 || i == 2 ||
                    (lines[i].substr(0, 23) >= before && lines[i].substr(0, 23) <= after))
            << lines[i].substr(0, 23);
    }
}

// Every folder checked is echoed, created or not; while no main log is open
// lines go to standard output, also those of a failed opening.
TEST_F(LogWriterTest, FailuresToOpenOrCreateAreLoggedWhereLinesCanGo) {
    const std::wstring nested = Settings::Instance().LogPath + L"a\\b";
    EXPECT_EQ(RecurseCreateFolder(nested), 0u);
    EXPECT_EQ(RecurseCreateFolder(nested), 183u);
    const std::string echo = "TRACE [RecurseCreateFolder] Created Folder: " + Narrow(nested);
    EXPECT_THAT(Tagged(ReadLines(mainLog_.Path())),
                ElementsAre(StartsWith("INFO [OpenMainLog] "), echo, echo));

    CloseMainLog();
    const std::wstring logPath = Settings::Instance().LogPath;
    StdoutCapture capture;
    LogMessage(nullptr, LOG_LEVEL_ERROR, L"Writer::Test", "nowhere else");
    const std::string blocked =
        Narrow(Settings::Instance().LogPath = BlockedFolder(folder_.Path()));
    EXPECT_FALSE(OpenMainLog());
    EXPECT_THAT(
        Tagged(ReadLines(capture.Path())),
        ElementsAre(
            "ERROR [Writer::Test] nowhere else",
            StartsWith("ERROR [RecurseCreateFolder] Failed Creating Folder: " + blocked + ", 0x"),
            "ERROR [OpenLog] Failed to open Log: " + blocked + "plmx.txt"));
    Settings::Instance().LogPath = logPath;
    const size_t size = ReadFileBytes(mainLog_.Path()).size();
    ASSERT_TRUE(OpenMainLog());
    EXPECT_EQ(Tagged(ReadLines(mainLog_.Path())).back(),
              "INFO [OpenMainLog] Opened main log, Size: " + std::to_string(size));
}

// Administrators may rename and delete the log while it is open.
TEST_F(LogWriterTest, OthersCanRenameAndDeleteAnOpenLog) {
    const std::wstring renamed = folder_.Path() + L"renamed.txt";
    ASSERT_TRUE(MoveFileW(mainLog_.Path().c_str(), renamed.c_str())) << GetLastError();
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "after rename");
    EXPECT_EQ(Tagged(ReadLines(renamed)).back(), "INFO [Writer::Test] after rename");
    EXPECT_TRUE(DeleteFileW(renamed.c_str())) << GetLastError();
}

// An event of 2024-03-05 06:07:08.009 UTC from process 0x1a2b and thread
// 0x3c: its lines show its own time, ids and provider. Until its session's
// log is open they go to the main log.
TEST_F(LogWriterTest, EventLinesGoToTheirSessionsLogOnceItIsOpen) {
    const SYSTEMTIME utc{2024, 3, 2, 5, 6, 7, 8, 9};
    FILETIME time;
    SystemTimeToFileTime(&utc, &time);
    logonmon::AllocateCurrentRecordSlot();
    ScopedFakeTdh tdh;
    EventBuilder builder;
    builder.EventId(5).Level(5).ProcessId(0x1a2b).ThreadId(0x3c).Timestamp(
        (uint64_t(time.dwHighDateTime) << 32) | time.dwLowDateTime);
    logonmon::EventRecordData record(
        builder.ProviderName(L"Microsoft-Windows-User Profiles Service").Record());
    const auto session = std::make_shared<logonmon::SESSION_CONTEXT>();
    session->sessionId = 7;
    logonmon::LinkToSession(record, session);
    const logonmon::ScopedCurrentRecord current(&record);
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Routing::Test", "before");
    const std::wstring sessionPath = folder_.Path() + L"plmx_session_7.txt";
    ASSERT_TRUE(OpenLog(sessionPath, *session->sessionLog));
    LogMessage(nullptr, LOG_LEVEL_TRACE, L"Routing::Test", "handled %ws", L"logon");
    CloseSessionLog(*session->sessionLog);

    SYSTEMTIME local;
    SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local);
    const std::string prefix =
        Timestamp(local) +
        " VERBOSE (1a2b-003c-7) [0005] [Microsoft-Windows-User Profiles Service] ";
    EXPECT_EQ(ReadLines(sessionPath), Lines{prefix + "handled logon"});
    const Lines main = ReadLines(mainLog_.Path());
    EXPECT_EQ(Lines(main.begin() + 1, main.end()),
              (Lines{prefix + "before",
                     prefix + "Created Folder: " + Narrow(Settings::Instance().LogPath)}));
}

// The line that crosses the size limit is written before the roll; a roll
// that fails is raised, and later lines go to standard output.
TEST(LogRollTest, FailuresAreRaisedAndLaterLinesGoToStandardOutput) {
    for (const bool blockRename : {true, false}) {
        SCOPED_TRACE(blockRename);
        TempFolder folder;
        ScopedMainLog mainLog(folder.Path(), 2000);
        const std::wstring backupPath = mainLog.BackupPath();
        if (blockRename) {
            ASSERT_TRUE(CreateDirectoryW(backupPath.c_str(), nullptr));
        } else {
            Settings::Instance().LogPath = BlockedFolder(folder.Path());
        }
        StdoutCapture capture;
        Lines written{"INFO [OpenMainLog] Opened main log, Size: 0"};
        try {
            while (written.size() < 1000) {
                written.push_back("INFO [Roll::Test] line " + std::to_string(written.size()) +
                                  std::string(60, '.'));
                LogMessage(nullptr, LOG_LEVEL_INFO, L"Roll::Test", "%s",
                           written.back().c_str() + 18);
            }
            ADD_FAILURE() << "no roll";
        } catch (const std::runtime_error& raised) {
            EXPECT_STREQ(raised.what(), blockRename ? "Failed to roll main log file"
                                                    : "Failed to open main log after rolling");
        }
        EXPECT_EQ(Tagged(ReadLines(blockRename ? mainLog.Path() : backupPath)), written);
        EXPECT_NO_THROW(LogMessage(nullptr, LOG_LEVEL_INFO, L"Roll::Test", "afterwards"));
        EXPECT_EQ(Tagged(ReadLines(capture.Path())).back(), "INFO [Roll::Test] afterwards");
    }
}

}  // namespace
}  // namespace plmx::testing
