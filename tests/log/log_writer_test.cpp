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

using namespace plmx::testing;
using Lines = std::vector<std::string>;

namespace {

std::string OwnIds() {
    char text[32];
    snprintf(text, sizeof text, "%04lx-%04lx", GetCurrentProcessId(), GetCurrentThreadId());
    return text;
}

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

// A path under which nothing can be created: a file stands in its way.
std::wstring BlockedFolder(const std::wstring& folder) {
    CloseHandle(CreateFileW((folder + L"blocker").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                            FILE_ATTRIBUTE_NORMAL, nullptr));
    return L"\\\\?\\" + folder + L"blocker\\logs\\";
}

class LogWriterTest : public ::testing::Test {
  protected:
    // "TAG [source] message" of the main log's lines after its opening line.
    Lines Written() {
        const Lines lines = Tagged(ReadLines(mainLog_.Path()));
        return Lines(lines.begin() + 1, lines.end());
    }
    std::string LogPath() { return Narrow(Settings::Instance().LogPath); }

    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path()};
};

TEST_F(LogWriterTest, PlainLinesByteForByteFromBothEntries) {
    const auto viaList = [](const char* format, ...) {
        va_list args;
        va_start(args, format);
        LogMessageV(nullptr, LOG_LEVEL_TRACE, L"Writer::List", format, args);
        va_end(args);
    };
    const std::string before = LocalNow();
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "one\ntwo %d", 2);
    viaList("%ws|%I64u|%d|%s|%%|0x%X", L"wide", 18446744073709551615ULL, -7, "narrow", 0xBEEFu);
    const std::string after = LocalNow();

    const std::string bytes = ReadFileBytes(mainLog_.Path());
    EXPECT_EQ(bytes.substr(23, bytes.find("\r\n") - 23),
              " INFO (" + OwnIds() + ") [OpenMainLog] Opened main log, Size: 0");
    const std::string first = " INFO (" + OwnIds() + ") [Writer::Test] one\r\ntwo 2\r\n";
    const std::string second =
        " TRACE (" + OwnIds() + ") [Writer::List] wide|18446744073709551615|-7|narrow|%|0xBEEF\r\n";
    const std::string written = bytes.substr(bytes.find("\r\n") + 2);
    ASSERT_EQ(written.size(), 23 + first.size() + 23 + second.size()) << written;
    EXPECT_EQ(written.substr(23, first.size()), first);
    EXPECT_EQ(written.substr(46 + first.size()), second);
    for (const size_t at : {size_t{0}, 23 + first.size()}) {
        EXPECT_GE(written.substr(at, 23), before);
        EXPECT_LE(written.substr(at, 23), after);
    }
}

TEST_F(LogWriterTest, TagIsTheLowestKnownBitAndTheSettingIsAMask) {
    struct Case {
        uint32_t setting;
        uint32_t level;
        const char* tag;  // null: filtered out
    };
    const Case cases[] = {
        {0xFFFFFFFF, 0x01, "ERROR"}, {0xFFFFFFFF, 0x02, "INFO"},  {0xFFFFFFFF, 0x03, "ERROR"},
        {0xFFFFFFFF, 0x04, "DEBUG"}, {0xFFFFFFFF, 0x18, "TRACE"}, {0xFFFFFFFF, 0x10, "FATAL"},
        {0xFFFFFFFF, 0x20, "NONE"},  {0x00, 0x1F, nullptr},       {0x02, 0x02, "INFO"},
        {0x02, 0x01, nullptr},       {0x09, 0x03, "ERROR"},       {0x1F, 0x20, nullptr},
    };
    Lines expected;
    for (const Case& c : cases) {
        Settings::Instance().LogLevel = c.setting;
        LogMessage(nullptr, c.level, L"Writer::Test", "level %u", c.level);
        if (c.tag) {
            expected.push_back(std::string(c.tag) + " [Writer::Test] level " +
                               std::to_string(c.level));
        }
    }
    EXPECT_EQ(Written(), expected);
}

TEST_F(LogWriterTest, MessagesAreCutToFitTheLineBuffer) {
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "%s", std::string(70000, 'x').c_str());
    const size_t prefix = ReadLines(mainLog_.Path())[1].find("] ") + 2;
    const size_t room = 65535 - prefix;  // the buffer less the prefix and a null
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "%s", std::string(room, 'y').c_str());
    // The runtime cannot convert this text: the line ends where it failed.
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "kept|%ws", L"\x4E2D");

    const Lines lines = ReadLines(mainLog_.Path());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1].substr(prefix), std::string(room, 'x'));
    EXPECT_EQ(lines[2].substr(prefix), std::string(room, 'y'));
    EXPECT_EQ(Tagged({lines[3]}), Lines{"INFO [Writer::Test] kept|"});
}

TEST_F(LogWriterTest, WithoutAnOpenLogLinesGoToStandardOutput) {
    CloseMainLog();
    StdoutCapture capture;
    LogMessage(nullptr, LOG_LEVEL_ERROR, L"Writer::Test", "nowhere else");
    ASSERT_TRUE(OpenMainLog());
    // Opening echoes the folder before the new log is there to take the line.
    EXPECT_EQ(Tagged(ReadLines(capture.Path())),
              (Lines{"ERROR [Writer::Test] nowhere else",
                     "TRACE [RecurseCreateFolder] Created Folder: " + LogPath()}));
    const Lines lines = ReadLines(mainLog_.Path());
    EXPECT_EQ(Tagged({lines.back()}), Lines{"INFO [OpenMainLog] Opened main log, Size: " +
                                            std::to_string(lines.front().size() + 2)});

    CloseMainLog();
    Settings::Instance().LogPath = BlockedFolder(folder_.Path());
    EXPECT_FALSE(OpenMainLog());
    EXPECT_EQ(Tagged(ReadLines(capture.Path())).back(),
              "ERROR [OpenLog] Failed to open Log: " + LogPath() + "plmx.txt");
}

TEST_F(LogWriterTest, OthersCanRenameAndDeleteAnOpenLog) {
    const std::wstring renamed = folder_.Path() + L"renamed.txt";
    ASSERT_TRUE(MoveFileW(mainLog_.Path().c_str(), renamed.c_str())) << GetLastError();
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "after rename");
    EXPECT_EQ(Tagged(ReadLines(renamed)).back(), "INFO [Writer::Test] after rename");

    ASSERT_TRUE(DeleteFileW(renamed.c_str())) << GetLastError();
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "after delete");
    CloseMainLog();
    EXPECT_EQ(GetFileAttributesW(renamed.c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(LogWriterTest, FolderCreationEchoesEveryPathChecked) {
    const std::wstring nested = Settings::Instance().LogPath + L"a\\b\\c";
    EXPECT_EQ(RecurseCreateFolder(nested), 0u);
    EXPECT_TRUE(GetFileAttributesW(nested.c_str()) & FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(RecurseCreateFolder(nested), 183u);
    const std::wstring blocked = BlockedFolder(folder_.Path());
    const uint32_t failure = RecurseCreateFolder(blocked);
    EXPECT_NE(failure, 0u);
    EXPECT_NE(failure, 183u);
    // A session log whose folder is missing is reported and stays closed.
    SessionLog sessionLog;
    EXPECT_FALSE(OpenLog(folder_.Path() + L"missing\\s.txt", sessionLog));
    EXPECT_EQ(sessionLog.stream, nullptr);

    char code[16];
    snprintf(code, sizeof code, "0x%X", failure);
    EXPECT_EQ(
        Written(),
        (Lines{
            "TRACE [RecurseCreateFolder] Created Folder: " + Narrow(nested),
            "TRACE [RecurseCreateFolder] Created Folder: " + Narrow(nested),
            "ERROR [RecurseCreateFolder] Failed Creating Folder: " + Narrow(blocked) + ", " + code,
            "TRACE [RecurseCreateFolder] Created Folder: " + LogPath(),
            "ERROR [OpenLog] Failed to open Log: " + Narrow(folder_.Path()) + "missing\\s.txt"}));
}

TEST(LogPathTest, LongPathPrefixAndTrailingSeparator) {
    EXPECT_EQ(AddLongPathPrefix(L"C:\\Logs"), L"\\\\?\\C:\\Logs");
    EXPECT_EQ(AddLongPathPrefix(L"\\\\?\\C:"), L"\\\\?\\C:");
    EXPECT_EQ(AddLongPathPrefix(L"//?/C:"), L"\\\\?\\//?/C:");
    EXPECT_EQ(AddLongPathPrefix(L""), L"\\\\?\\");
    EXPECT_EQ(AddTrailingSeparator(L"C:\\Logs"), L"C:\\Logs\\");
    EXPECT_EQ(AddTrailingSeparator(L"C:\\Logs\\"), L"C:\\Logs\\");
    EXPECT_EQ(AddTrailingSeparator(L"C:/Logs/"), L"C:/Logs/");
    EXPECT_EQ(AddTrailingSeparator(L""), L"\\");
}

// An event of 2024-03-05 06:07:08.009 UTC, level `level`, from process
// 0x1a2b and thread 0x3c; a replayed trace shows its time.
constexpr SYSTEMTIME kEventUtc = {2024, 3, 2, 5, 6, 7, 8, 9};

std::unique_ptr<logonmon::EventRecordData> Event(uint8_t level, const std::wstring& provider) {
    FILETIME time;
    SystemTimeToFileTime(&kEventUtc, &time);
    EventBuilder builder;
    builder.EventId(5).Level(level).ProcessId(0x1a2b).ThreadId(0x3c).Timestamp(
        (uint64_t(time.dwHighDateTime) << 32) | time.dwLowDateTime);
    if (!provider.empty()) {
        builder.ProviderName(provider);
    }
    return std::make_unique<logonmon::EventRecordData>(builder.Record());
}

std::string EventTime() {
    SYSTEMTIME local;
    SystemTimeToTzSpecificLocalTime(nullptr, &kEventUtc, &local);
    return Timestamp(local);
}

TEST_F(LogWriterTest, EventLinesGoToTheirSessionsLogWithTheEventPrefix) {
    logonmon::AllocateCurrentRecordSlot();
    ScopedFakeTdh tdh;
    const auto session = std::make_shared<logonmon::SESSION_CONTEXT>();
    session->sessionId = 7;
    const auto record = Event(5, L"Microsoft-Windows-User Profiles Service");
    logonmon::LinkToSession(*record, session);
    const auto unbound = Event(2, L"");
    std::wstring sessionPath;
    {
        logonmon::ScopedCurrentRecord current(record.get());
        // The session gets its log record even from a filtered line.
        Settings::Instance().LogLevel = 0;
        LogMessage(nullptr, LOG_LEVEL_INFO, L"Routing::Test", "filtered");
        ASSERT_TRUE(session->sessionLog);
        Settings::Instance().LogLevel = 0x1F;
        // Its log is not open yet: the main log takes the line.
        LogMessage(nullptr, LOG_LEVEL_INFO, L"Routing::Test", "before");

        SessionLog& sessionLog = *session->sessionLog;
        sessionPath = folder_.Path() + L"plmx_session_" + sessionLog.logId + L"_7.txt";
        ASSERT_TRUE(OpenLog(sessionPath, sessionLog));
        LogMessage(nullptr, LOG_LEVEL_TRACE, L"Routing::Test", "handled %ws", L"logon");
        CloseSessionLog(sessionLog);
        EXPECT_EQ(sessionLog.stream, nullptr);
    }
    {
        logonmon::ScopedCurrentRecord current(unbound.get());
        LogMessage(nullptr, LOG_LEVEL_INFO, L"Routing::Test", "unbound");
    }
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Routing::Test", "no event");

    const std::string time = EventTime();
    const std::string profiles =
        " VERBOSE (1a2b-003c-7) [0005] [Microsoft-Windows-User Profiles Service] ";
    EXPECT_EQ(ReadLines(sessionPath), Lines{time + profiles + "handled logon"});
    const Lines main = ReadLines(mainLog_.Path());
    ASSERT_EQ(main.size(), 5u);
    EXPECT_EQ(main[1], time + profiles + "before");
    EXPECT_EQ(main[2], time + profiles + "Created Folder: " + LogPath());
    EXPECT_EQ(main[3], time + " ERROR (1a2b-003c--1) [0005] [Routing::Test] unbound");
    EXPECT_EQ(main[4].substr(23), " INFO (" + OwnIds() + ") [Routing::Test] no event");

    // Every record draws its own identifier: upper-case GUID text, no braces.
    const SessionLog other;
    EXPECT_NE(other.logId, session->sessionLog->logId);
    EXPECT_EQ(other.logId.size(), 36u);
    EXPECT_EQ(other.logId.find_first_not_of(L"0123456789ABCDEF-"), std::wstring::npos);
}

constexpr uint32_t kLimit = 2000;

std::string Numbered(int index) {
    return "line " + std::to_string(1000 + index) + " " + std::string(60, '.');
}

// A fresh log's opening line and the numbered lines from..to-1.
Lines Expected(int from, int to) {
    Lines lines{"INFO [OpenMainLog] Opened main log, Size: 0"};
    for (int i = from; i < to; ++i) {
        lines.push_back("INFO [Roll::Test] " + Numbered(i));
    }
    return lines;
}

TEST(LogRollTest, RollsAfterTheLineThatCrossesTheLimitIntoOneBackup) {
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path(), kLimit);
    int next = 0;
    const auto writeUntilRolled = [&] {
        const std::string backup = ReadFileBytes(mainLog.BackupPath());
        while (ReadFileBytes(mainLog.BackupPath()) == backup && next < 1000) {
            LogMessage(nullptr, LOG_LEVEL_INFO, L"Roll::Test", "%s", Numbered(next++).c_str());
        }
        return next;
    };
    const int firstRoll = writeUntilRolled();
    EXPECT_EQ(Tagged(ReadLines(mainLog.BackupPath())), Expected(0, firstRoll));
    EXPECT_EQ(Tagged(ReadLines(mainLog.Path())), Expected(0, 0));
    // Within the limit before the crossing line, above it after.
    const size_t backupSize = ReadFileBytes(mainLog.BackupPath()).size();
    EXPECT_GT(backupSize, kLimit);
    EXPECT_LE(backupSize - ReadLines(mainLog.BackupPath()).back().size() - 2, kLimit);

    const int secondRoll = writeUntilRolled();
    EXPECT_EQ(Tagged(ReadLines(mainLog.BackupPath())), Expected(firstRoll, secondRoll));
}

TEST(LogRollTest, FailuresAreRaisedAndLaterLinesGoToStandardOutput) {
    for (const bool blockRename : {true, false}) {
        const char* const error =
            blockRename ? "Failed to roll main log file" : "Failed to open main log after rolling";
        SCOPED_TRACE(error);
        TempFolder folder;
        ScopedMainLog mainLog(folder.Path(), kLimit);
        const std::wstring backupPath = mainLog.BackupPath();
        if (blockRename) {
            ASSERT_TRUE(CreateDirectoryW(backupPath.c_str(), nullptr));
        } else {
            Settings::Instance().LogPath = BlockedFolder(folder.Path());
        }
        StdoutCapture capture;
        int next = 0;
        try {
            while (next < 1000) {
                LogMessage(nullptr, LOG_LEVEL_INFO, L"Roll::Test", "%s", Numbered(next++).c_str());
            }
            ADD_FAILURE() << "no roll";
        } catch (const std::runtime_error& raised) {
            EXPECT_STREQ(raised.what(), error);
        }
        // The crossing line was written before the roll failed.
        EXPECT_EQ(Tagged(ReadLines(blockRename ? mainLog.Path() : backupPath)), Expected(0, next));

        EXPECT_NO_THROW(LogMessage(nullptr, LOG_LEVEL_INFO, L"Roll::Test", "afterwards"));
        EXPECT_EQ(Tagged(ReadLines(capture.Path())).back(), "INFO [Roll::Test] afterwards");
    }
}

}  // namespace
