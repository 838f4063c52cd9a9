#include <gtest/gtest.h>

#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <regex>
#include <thread>

#include "tests/support/LogFiles.h"

namespace plmx::testing {
namespace {

using Lines = std::vector<std::string>;

const std::regex kTime(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3})");

// " <tag> (<process>-<thread>) [<source>] " of this thread's plain lines.
std::string Prefix(const char* tag, const char* source) {
    char text[96];
    snprintf(text, sizeof text, " %s (%04lx-%04lx) [%s] ", tag, GetCurrentProcessId(),
             GetCurrentThreadId(), source);
    return text;
}

// Both entries, MSVC's conversions, line ends inside a message, the level's
// tag (the lowest known bit; the setting is a mask) and the cut at the line
// buffer, where a text the runtime cannot convert also ends the line.
TEST(LogWriterTest, LinesByteForByte) {
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path());
    const auto viaList = [](uint32_t level, const char* format, ...) {
        va_list args;
        va_start(args, format);
        LogMessageV(nullptr, level, L"Writer::List", format, args);
        va_end(args);
    };
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

    const Lines lines = ReadLines(mainLog.Path());
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
        EXPECT_EQ(i == 2 ? lines[i] : lines[i].substr(23), expected[i]) << i;
        EXPECT_TRUE(i == 2 || std::regex_match(lines[i].substr(0, 23), kTime)) << lines[i];
    }
}

constexpr int kLines = 5000, kWriters = 8;
constexpr char kSource[] = "[Concurrency::Writer] ";

std::string Message(int writer, int index) {
    char text[64];
    snprintf(text, sizeof text, "W%d L%05d %s", writer, index, std::string(40, '.').c_str());
    return text;
}

// Eight writers fill the main log past its limit, which rolls it once: each
// line of either file is one whole line, and each writer's lines are all
// there in order.
TEST(LogConcurrencyTest, LinesStayWholeAndInOrderAcrossARoll) {
    constexpr uint32_t kLimit = 3000000;  // about 4.4 MB of lines
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path(), kLimit);
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([writer] {
            for (int i = 0; i < kLines; ++i) {
                LogMessage(nullptr, LOG_LEVEL_INFO, L"Concurrency::Writer", "%s",
                           Message(writer, i).c_str());
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }

    std::vector<int> next(kWriters, 0);
    for (const std::wstring& path : {mainLog.BackupPath(), mainLog.Path()}) {
        for (const std::string& text : ReadLines(path)) {
            if (text.find("[OpenMainLog] ") != std::string::npos) {
                continue;
            }
            const size_t source = text.find(kSource);
            const std::string message =
                source == std::string::npos ? "" : text.substr(source + sizeof kSource - 1);
            int writer = -1, index = -1;
            ASSERT_TRUE(sscanf(message.c_str(), "W%d L%d", &writer, &index) == 2 && writer >= 0 &&
                        writer < kWriters && message == Message(writer, index))
                << "not a whole line: " << text;
            ASSERT_EQ(index, next[writer]++) << text;
        }
    }
    EXPECT_EQ(next, std::vector<int>(kWriters, kLines));
    // The roll came right after the line that crossed the limit.
    const size_t backupSize = ReadFileBytes(mainLog.BackupPath()).size();
    EXPECT_GT(backupSize, kLimit);
    EXPECT_LE(backupSize - ReadLines(mainLog.BackupPath()).back().size() - 2, kLimit);
}

}  // namespace
}  // namespace plmx::testing
