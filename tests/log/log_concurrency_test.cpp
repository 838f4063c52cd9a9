#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

#include "tests/support/LogFiles.h"

namespace plmx::testing {
namespace {

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
