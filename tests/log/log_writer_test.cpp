#include <gtest/gtest.h>

#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "log/SessionLog.h"
#include "tests/support/LogFiles.h"

using namespace plmx::testing;
using Lines = std::vector<std::string>;

namespace {

std::string OwnIds() {
    char text[32];
    snprintf(text, sizeof text, "%04lx-%04lx", GetCurrentProcessId(), GetCurrentThreadId());
    return text;
}

std::string LocalNow() {
    SYSTEMTIME t;
    GetLocalTime(&t);
    char text[32];
    snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", t.wYear, t.wMonth, t.wDay,
             t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
    return text;
}

void CreateBlockingFile(const std::wstring& path) {
    ASSERT_TRUE(CloseHandle(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                        FILE_ATTRIBUTE_NORMAL, nullptr)));
}

class LogWriterTest : public ::testing::Test {
  protected:
    // The main log's lines after its opening line.
    Lines Written() {
        Lines lines = ReadLines(mainLog_.Path());
        return Lines(lines.begin() + 1, lines.end());
    }
    std::string LogPath() { return Narrow(Settings::Instance().LogPath); }

    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path()};
};

TEST_F(LogWriterTest, PlainLineIsPrefixedWithLocalTimeTagIdsAndFunction) {
    const std::string before = LocalNow();
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "one\ntwo %d", 2);
    const std::string after = LocalNow();

    const std::string bytes = ReadFileBytes(mainLog_.Path());
    EXPECT_EQ(Messages(ReadLines(mainLog_.Path())).front(), "Opened main log, Size: 0");
    const std::string line = bytes.substr(bytes.find("\r\n") + 2);
    EXPECT_EQ(line.substr(23), " INFO (" + OwnIds() + ") [Writer::Test] one\r\ntwo 2\r\n");
    EXPECT_GE(line.substr(0, 23), before);
    EXPECT_LE(line.substr(0, 23), after);
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
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.setting) + " " + std::to_string(c.level));
        Settings::Instance().LogLevel = c.setting;
        const size_t before = Written().size();
        LogMessage(nullptr, c.level, L"Writer::Test", "masked");
        const Lines lines = Written();
        ASSERT_EQ(lines.size(), before + (c.tag ? 1 : 0));
        if (c.tag) {
            EXPECT_EQ(ParseLogLine(lines.back())->level, c.tag);
        }
    }
}

TEST_F(LogWriterTest, BothEntriesFormatWithTheRuntimeConventions) {
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "%ws|%I64u|%d|%s|%%|0x%X", L"wide",
               18446744073709551615ULL, -7, "narrow", 0xBEEFu);
    const auto viaList = [](const char* format, ...) {
        va_list args;
        va_start(args, format);
        LogMessageV(nullptr, LOG_LEVEL_TRACE, L"Writer::List", format, args);
        va_end(args);
    };
    viaList("%ws=%d", L"count", 3);
    const Lines lines = Written();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(ParseLogLine(lines[0])->message, "wide|18446744073709551615|-7|narrow|%|0xBEEF");
    EXPECT_EQ(lines[1].substr(23), " TRACE (" + OwnIds() + ") [Writer::List] count=3");
}

TEST_F(LogWriterTest, MessagesAreCutToFitTheLineBuffer) {
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "%s", std::string(70000, 'x').c_str());
    const size_t prefix = Written()[0].find("] ") + 2;
    const size_t room = 65535 - prefix;  // the buffer less the prefix and a null
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "%s", std::string(room, 'y').c_str());
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "after");

    const Lines lines = Written();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].size(), 65535u);
    EXPECT_EQ(lines[0].substr(prefix), std::string(room, 'x'));
    EXPECT_EQ(lines[1].substr(prefix), std::string(room, 'y'));
    EXPECT_EQ(ParseLogLine(lines[2])->message, "after");
}

TEST_F(LogWriterTest, WithoutAnOpenLogLinesGoToStandardOutput) {
    CloseMainLog();
    StdoutCapture capture;
    LogMessage(nullptr, LOG_LEVEL_ERROR, L"Writer::Test", "nowhere else");
    ASSERT_TRUE(OpenMainLog());

    const std::string out = capture.Text();
    EXPECT_NE(out.find(" ERROR (" + OwnIds() + ") [Writer::Test] nowhere else\n"),
              std::string::npos)
        << out;
    // Opening echoes the folder before the new log is there to take the line.
    EXPECT_NE(out.find("[RecurseCreateFolder] Created Folder: " + LogPath() + "\n"),
              std::string::npos);
    const Lines messages = Messages(ReadLines(mainLog_.Path()));
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1],
              "Opened main log, Size: " + std::to_string(ReadLines(mainLog_.Path())[0].size() + 2));

    // A log that cannot be opened is reported where the lines go meanwhile.
    CloseMainLog();
    CreateBlockingFile(folder_.Path() + L"blocker");
    Settings::Instance().LogPath = L"\\\\?\\" + folder_.Path() + L"blocker\\logs\\";
    EXPECT_FALSE(OpenMainLog());
    EXPECT_NE(capture.Text().find(" ERROR (" + OwnIds() +
                                  ") [OpenLog] Failed to open Log: " + LogPath() + "plmx.txt\n"),
              std::string::npos);
}

TEST_F(LogWriterTest, OthersCanRenameAndDeleteAnOpenLog) {
    const std::wstring renamed = folder_.Path() + L"renamed.txt";
    ASSERT_TRUE(MoveFileW(mainLog_.Path().c_str(), renamed.c_str())) << GetLastError();
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "after rename");
    EXPECT_EQ(Messages(ReadLines(renamed)).back(), "after rename");

    ASSERT_TRUE(DeleteFileW(renamed.c_str())) << GetLastError();
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Writer::Test", "after delete");
    CloseMainLog();
    EXPECT_EQ(GetFileAttributesW(renamed.c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(LogWriterTest, SessionLogOpensAndCloses) {
    SessionLog sessionLog;
    const SessionLog other;
    EXPECT_NE(sessionLog.logId, other.logId);
    EXPECT_EQ(sessionLog.logId.size(), 36u);
    EXPECT_EQ(sessionLog.logId.find_first_not_of(L"0123456789ABCDEF-"), std::wstring::npos);

    const std::wstring path =
        Settings::Instance().LogPath + L"plmx_session_" + sessionLog.logId + L"_2.txt";
    ASSERT_TRUE(OpenLog(path, sessionLog));
    EXPECT_EQ(sessionLog.path, path);
    LogMessage(&sessionLog.stream, LOG_LEVEL_INFO, L"Writer::Test", "to the session");
    CloseSessionLog(sessionLog);
    EXPECT_EQ(sessionLog.stream, nullptr);
    EXPECT_EQ(Messages(ReadLines(path)), Lines{"to the session"});

    const std::wstring missing = folder_.Path() + L"missing\\plmx_session_x_1.txt";
    EXPECT_FALSE(OpenLog(missing, sessionLog));
    EXPECT_EQ(sessionLog.stream, nullptr);
    Lines lines;
    for (const std::string& text : Written()) {
        const auto line = ParseLogLine(text);
        lines.push_back(line->level + " [" + line->source + "] " + line->message);
    }
    EXPECT_EQ(lines, (Lines{"TRACE [RecurseCreateFolder] Created Folder: " + LogPath(),
                            "TRACE [RecurseCreateFolder] Created Folder: " + LogPath(),
                            "ERROR [OpenLog] Failed to open Log: " + Narrow(missing)}));
}

TEST_F(LogWriterTest, FolderCreationEchoesEveryPathChecked) {
    const std::wstring nested = Settings::Instance().LogPath + L"a\\b\\c";
    EXPECT_EQ(RecurseCreateFolder(nested), 0u);
    EXPECT_TRUE(GetFileAttributesW(nested.c_str()) & FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(RecurseCreateFolder(nested), 183u);
    CreateBlockingFile(folder_.Path() + L"blocker");
    const std::wstring blocked = folder_.Path() + L"blocker\\sub";
    const uint32_t failure = RecurseCreateFolder(blocked);
    EXPECT_NE(failure, 0u);
    EXPECT_NE(failure, 183u);

    char code[16];
    snprintf(code, sizeof code, "0x%X", failure);
    Lines lines;
    for (const std::string& text : Written()) {
        const auto line = ParseLogLine(text);
        lines.push_back(line->level + " [" + line->source + "] " + line->message);
    }
    EXPECT_EQ(lines, (Lines{"TRACE [RecurseCreateFolder] Created Folder: " + Narrow(nested),
                            "TRACE [RecurseCreateFolder] Created Folder: " + Narrow(nested),
                            "ERROR [RecurseCreateFolder] Failed Creating Folder: " +
                                Narrow(blocked) + ", " + code}));
}

TEST(LogPathTest, LongPathPrefixAndTrailingSeparator) {
    const std::pair<std::wstring, std::wstring> prefixed[] = {
        {L"C:\\Logs", L"\\\\?\\C:\\Logs"},
        {L"\\\\?\\C:\\Logs", L"\\\\?\\C:\\Logs"},
        {L"", L"\\\\?\\"},
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
