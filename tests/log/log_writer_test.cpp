#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "log/SessionLog.h"
#include "tests/support/LogFiles.h"

using plmx::testing::LogLine;
using plmx::testing::Messages;
using plmx::testing::Narrow;
using plmx::testing::ParseLogLine;
using plmx::testing::ReadFileBytes;
using plmx::testing::ReadLines;
using plmx::testing::ScopedMainLog;
using plmx::testing::StdoutCapture;
using plmx::testing::TempFolder;

namespace {

std::string Timestamp(const SYSTEMTIME& time) {
    char text[32];
    snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", time.wYear, time.wMonth,
             time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
    return text;
}

std::string OwnIds() {
    char text[32];
    snprintf(text, sizeof text, "%04lx-%04lx", GetCurrentProcessId(), GetCurrentThreadId());
    return text;
}

bool Exists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

class LogWriterTest : public ::testing::Test {
  protected:
    // The main log's lines after its first, "Opened main log" line.
    std::vector<std::string> Written() {
        std::vector<std::string> lines = ReadLines(mainLog_.Path());
        if (!lines.empty()) {
            lines.erase(lines.begin());
        }
        return lines;
    }

    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path()};
};

TEST_F(LogWriterTest, PlainLineCarriesLocalTimeTagIdsAndFunction) {
    SYSTEMTIME before;
    GetLocalTime(&before);
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "hello %d", 42);
    SYSTEMTIME after;
    GetLocalTime(&after);

    const std::string bytes = ReadFileBytes(mainLog_.Path());
    const std::vector<std::string> lines = Written();
    ASSERT_EQ(lines.size(), 1u);
    const std::string& line = lines[0];
    ASSERT_GE(line.size(), 24u);
    const std::string timestamp = line.substr(0, 23);
    EXPECT_GE(timestamp, Timestamp(before));
    EXPECT_LE(timestamp, Timestamp(after));
    EXPECT_EQ(line.substr(23), " INFO (" + OwnIds() + ") [Writer::Test] hello 42");
    EXPECT_EQ(bytes.substr(bytes.size() - line.size() - 2), line + "\r\n");
}

TEST_F(LogWriterTest, FirstLineOfTheMainLogReportsItsSize) {
    const std::vector<std::string> lines = ReadLines(mainLog_.Path());
    ASSERT_EQ(lines.size(), 1u);
    const std::optional<LogLine> line = ParseLogLine(lines[0]);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, "INFO");
    EXPECT_EQ(line->source, "OpenMainLog");
    EXPECT_EQ(line->message, "Opened main log, Size: 0");

    // Reopening an existing log reports what it held before the new line;
    // the folder echo still went to the log open at the time.
    ASSERT_TRUE(OpenMainLog());
    const std::string bytes = ReadFileBytes(mainLog_.Path());
    const std::vector<std::string> messages = Messages(ReadLines(mainLog_.Path()));
    const size_t lastLine = bytes.rfind("\r\n", bytes.size() - 3) + 2;
    EXPECT_EQ(messages,
              (std::vector<std::string>{"Opened main log, Size: 0",
                                        "Created Folder: " + Narrow(Settings::Instance().LogPath),
                                        "Opened main log, Size: " + std::to_string(lastLine)}));
}

TEST_F(LogWriterTest, TagIsTheLowestKnownLevelBit) {
    Settings::Instance().LogLevel = 0xFFFFFFFF;
    const std::pair<uint32_t, const char*> cases[] = {
        {0x01, "ERROR"}, {0x02, "INFO"},  {0x03, "ERROR"}, {0x04, "DEBUG"},      {0x08, "TRACE"},
        {0x10, "FATAL"}, {0x18, "TRACE"}, {0x20, "NONE"},  {0x80000000, "NONE"},
    };
    for (const auto& [level, tag] : cases) {
        LogMessage(nullptr, level, L"Writer::Test", "level %u", level);
    }
    const std::vector<std::string> lines = Written();
    ASSERT_EQ(lines.size(), std::size(cases));
    for (size_t i = 0; i < lines.size(); ++i) {
        SCOPED_TRACE(lines[i]);
        EXPECT_EQ(ParseLogLine(lines[i])->level, cases[i].second);
    }
}

TEST_F(LogWriterTest, LevelSettingIsAMask) {
    struct Case {
        uint32_t setting;
        uint32_t level;
        bool written;
    };
    const Case cases[] = {
        {0x00, 0x01, false}, {0x00, 0x1F, false}, {0x02, 0x02, true},  {0x02, 0x01, false},
        {0x09, 0x03, true},  {0x09, 0x04, false}, {0x1F, 0x20, false}, {0x10, 0x10, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "setting " << c.setting << " level " << c.level);
        Settings::Instance().LogLevel = c.setting;
        const size_t before = Written().size();
        LogMessage(nullptr, c.level, L"Writer::Test", "masked");
        EXPECT_EQ(Written().size(), before + (c.written ? 1 : 0));
    }
}

TEST_F(LogWriterTest, FormatsWithTheRuntimeConventions) {
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "%ws|%I64u|%d|%s|%%|0x%X", L"wide",
               18446744073709551615ULL, -7, "narrow", 0xBEEFu);
    EXPECT_EQ(Messages(Written()),
              (std::vector<std::string>{"wide|18446744073709551615|-7|narrow|%|0xBEEF"}));
}

TEST_F(LogWriterTest, PreparedArgumentListEntryWritesTheSameLine) {
    const auto viaList = [](const char* format, ...) {
        va_list args;
        va_start(args, format);
        LogMessageV(nullptr, LOG_LEVEL_TRACE, L"Writer::List", format, args);
        va_end(args);
    };
    viaList("%ws=%d", L"count", 3);
    const std::vector<std::string> lines = Written();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].substr(23), " TRACE (" + OwnIds() + ") [Writer::List] count=3");
}

TEST_F(LogWriterTest, LongMessagesAreCutToTheLineBuffer) {
    const std::string huge(70000, 'x');
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "%s", huge.c_str());
    std::vector<std::string> lines = Written();
    ASSERT_EQ(lines.size(), 1u);
    ASSERT_EQ(lines[0].size(), 65535u);
    const size_t prefix = lines[0].find("] ") + 2;
    EXPECT_EQ(lines[0].substr(prefix), std::string(65535 - prefix, 'x'));

    // A message that fills the buffer exactly is whole; one more byte is cut.
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "%s",
               (std::string(65534 - prefix, 'y') + "z").c_str());
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "%s",
               (std::string(65535 - prefix, 'y') + "z").c_str());
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "after");
    lines = Written();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1].substr(prefix), std::string(65534 - prefix, 'y') + "z");
    EXPECT_EQ(lines[2].substr(prefix), std::string(65535 - prefix, 'y'));
    EXPECT_EQ(ParseLogLine(lines[3])->message, "after");
}

TEST_F(LogWriterTest, LineEndsAreCarriageReturnLineFeed) {
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "one\ntwo");
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "three");
    const std::string bytes = ReadFileBytes(mainLog_.Path());
    size_t lineFeeds = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] == '\n') {
            ++lineFeeds;
            EXPECT_TRUE(i > 0 && bytes[i - 1] == '\r') << "bare line feed at " << i;
        }
    }
    EXPECT_EQ(lineFeeds, 4u);
    EXPECT_NE(bytes.find("] one\r\ntwo\r\n"), std::string::npos);
    EXPECT_TRUE(bytes.ends_with("] three\r\n"));
}

TEST_F(LogWriterTest, LinesGoToStandardOutputWhileNoLogIsOpen) {
    CloseMainLog();
    const size_t size = ReadFileBytes(mainLog_.Path()).size();
    StdoutCapture capture;

    LogMessage(nullptr, LOG_LEVEL_ERROR, L"Writer::Test", "nowhere else");
    ASSERT_TRUE(OpenMainLog());

    const std::string captured = capture.Text();
    EXPECT_NE(captured.find(" ERROR (" + OwnIds() + ") [Writer::Test] nowhere else"),
              std::string::npos)
        << captured;
    // Opening echoes the folder before the log is there to take the line.
    EXPECT_NE(captured.find("[RecurseCreateFolder] Created Folder: " +
                            Narrow(Settings::Instance().LogPath)),
              std::string::npos)
        << captured;
    EXPECT_EQ(Messages(ReadLines(mainLog_.Path())),
              (std::vector<std::string>{"Opened main log, Size: 0",
                                        "Opened main log, Size: " + std::to_string(size)}));
}

TEST_F(LogWriterTest, FailedMainLogOpenIsReportedOnStandardOutput) {
    CloseMainLog();
    const std::wstring blocker = folder_.Path() + L"blocker";
    ASSERT_TRUE(CloseHandle(CreateFileW(blocker.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                        FILE_ATTRIBUTE_NORMAL, nullptr)));
    Settings::Instance().LogPath = L"\\\\?\\" + blocker + L"\\logs\\";
    StdoutCapture capture;

    EXPECT_FALSE(OpenMainLog());

    const std::string captured = capture.Text();
    EXPECT_NE(captured.find(" ERROR (" + OwnIds() + ") [OpenLog] Failed to open Log: " +
                            Narrow(Settings::Instance().LogPath) + "plmx.txt"),
              std::string::npos)
        << captured;
    EXPECT_NE(captured.find("[RecurseCreateFolder] Failed Creating Folder: " +
                            Narrow(Settings::Instance().LogPath) + ", 0x"),
              std::string::npos)
        << captured;
}

TEST_F(LogWriterTest, OpenLogCanBeRenamedAndDeletedByOthers) {
    const std::wstring path = mainLog_.Path();
    const HANDLE other = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(other, INVALID_HANDLE_VALUE);
    CloseHandle(other);

    const std::wstring renamed = folder_.Path() + L"renamed.txt";
    ASSERT_TRUE(MoveFileW(path.c_str(), renamed.c_str())) << GetLastError();
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "after rename");
    EXPECT_EQ(Messages(ReadLines(renamed)).back(), "after rename");
    EXPECT_FALSE(Exists(path));

    ASSERT_TRUE(DeleteFileW(renamed.c_str())) << GetLastError();
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "after delete");
    CloseMainLog();
    EXPECT_FALSE(Exists(renamed));
}

TEST_F(LogWriterTest, SessionLogTakesLinesAddressedToItUntilClosed) {
    SessionLog sessionLog;
    const std::wstring path =
        Settings::Instance().LogPath + L"plmx_session_" + sessionLog.logId + L"_2.txt";
    ASSERT_TRUE(OpenLog(path, sessionLog));
    EXPECT_EQ(sessionLog.path, path);

    LogMessage(&sessionLog.stream, LOG_LEVEL_INFO, L"Writer::Test", "to the session");
    CloseSessionLog(sessionLog);
    EXPECT_EQ(sessionLog.stream, nullptr);
    {
        StdoutCapture capture;
        LogMessage(&sessionLog.stream, LOG_LEVEL_INFO, L"Writer::Test", "closed");
        EXPECT_NE(capture.Text().find("[Writer::Test] closed"), std::string::npos);
    }

    EXPECT_EQ(Messages(ReadLines(path)), (std::vector<std::string>{"to the session"}));
    EXPECT_EQ(
        Messages(Written()),
        (std::vector<std::string>{"Created Folder: " + Narrow(Settings::Instance().LogPath)}));
}

TEST_F(LogWriterTest, SessionLogIdentifiersAreFreshUpperCaseGuids) {
    const SessionLog first;
    const SessionLog second;
    EXPECT_NE(first.logId, second.logId);
    for (const std::wstring& id : {first.logId, second.logId}) {
        SCOPED_TRACE(Narrow(id));
        ASSERT_EQ(id.size(), 36u);
        for (size_t i = 0; i < id.size(); ++i) {
            if (i == 8 || i == 13 || i == 18 || i == 23) {
                EXPECT_EQ(id[i], L'-');
            } else {
                EXPECT_TRUE(iswdigit(id[i]) || (id[i] >= L'A' && id[i] <= L'F'));
            }
        }
    }
}

TEST_F(LogWriterTest, SessionLogThatCannotOpenIsReportedInTheMainLog) {
    SessionLog sessionLog;
    const std::wstring path = folder_.Path() + L"missing\\plmx_session_x_1.txt";
    EXPECT_FALSE(OpenLog(path, sessionLog));
    EXPECT_EQ(sessionLog.stream, nullptr);
    const std::vector<std::string> lines = Written();
    ASSERT_FALSE(lines.empty());
    const std::optional<LogLine> line = ParseLogLine(lines.back());
    EXPECT_EQ(line->level, "ERROR");
    EXPECT_EQ(line->source, "OpenLog");
    EXPECT_EQ(line->message, "Failed to open Log: " + Narrow(path));
}

TEST_F(LogWriterTest, FolderCreationEchoesEveryPathChecked) {
    const std::wstring nested = Settings::Instance().LogPath + L"a\\b\\c";
    EXPECT_EQ(RecurseCreateFolder(nested), 0u);
    EXPECT_EQ(GetFileAttributesW(nested.c_str()) & FILE_ATTRIBUTE_DIRECTORY,
              static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY));
    EXPECT_EQ(RecurseCreateFolder(nested), 183u);

    const std::wstring blocker = folder_.Path() + L"blocker";
    ASSERT_TRUE(CloseHandle(CreateFileW(blocker.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                        FILE_ATTRIBUTE_NORMAL, nullptr)));
    const std::wstring blocked = blocker + L"\\sub";
    const uint32_t failure = RecurseCreateFolder(blocked);
    EXPECT_NE(failure, 0u);
    EXPECT_NE(failure, 183u);

    char code[16];
    snprintf(code, sizeof code, "0x%X", failure);
    std::vector<std::string> expected = {
        "TRACE Created Folder: " + Narrow(nested), "TRACE Created Folder: " + Narrow(nested),
        "ERROR Failed Creating Folder: " + Narrow(blocked) + ", " + code};
    std::vector<std::string> seen;
    for (const std::string& text : Written()) {
        const std::optional<LogLine> line = ParseLogLine(text);
        ASSERT_TRUE(line);
        EXPECT_EQ(line->source, "RecurseCreateFolder");
        seen.push_back(line->level + " " + line->message);
    }
    EXPECT_EQ(seen, expected);
}

TEST(LogPathTest, LongPathPrefixAndTrailingSeparator) {
    const std::pair<std::wstring, std::wstring> prefixed[] = {
        {L"C:\\Logs", L"\\\\?\\C:\\Logs"},
        {L"\\\\?\\C:\\Logs", L"\\\\?\\C:\\Logs"},
        {L"", L"\\\\?\\"},
        {L"\\\\server\\share", L"\\\\?\\\\\\server\\share"},
        {L"//?/C:", L"\\\\?\\//?/C:"},
    };
    for (const auto& [path, expected] : prefixed) {
        EXPECT_EQ(AddLongPathPrefix(path), expected) << Narrow(path);
    }
    const std::pair<std::wstring, std::wstring> separated[] = {
        {L"C:\\Logs", L"C:\\Logs\\"},
        {L"C:\\Logs\\", L"C:\\Logs\\"},
        {L"C:/Logs/", L"C:/Logs/"},
        {L"", L"\\"},
    };
    for (const auto& [path, expected] : separated) {
        EXPECT_EQ(AddTrailingSeparator(path), expected) << Narrow(path);
    }
}

}  // namespace
