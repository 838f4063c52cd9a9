#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log/LogWriter.h"
#include "log/SessionLog.h"
#include "logonmon/CurrentRecord.h"
#include "logonmon/SessionContext.h"
#include "tests/support/EventBuilder.h"
#include "tests/support/LogFiles.h"
#include "trace/EventRecordData.h"

namespace plmx::testing {
namespace {

constexpr int kLines = 5000;
constexpr char kSource[] = "[Concurrency::Writer] ";

std::string Message(char label, int writer, int index) {
    char text[64];
    snprintf(text, sizeof text, "%c%d L%05d %s", label, writer, index,
             std::string(40, '.').c_str());
    return text;
}

// Checks that every line of `paths` but opening lines and folder echoes is
// one whole line of writer `label`<n>, n < `writers`, and that each writer's
// lines are all there in order.
void ExpectWholeOrderedLines(const std::vector<std::wstring>& paths, char label, int writers) {
    std::vector<int> next(writers, 0);
    for (const std::wstring& path : paths) {
        for (const std::string& text : ReadLines(path)) {
            if (text.find("[OpenMainLog] ") != std::string::npos ||
                text.find("[RecurseCreateFolder] ") != std::string::npos) {
                continue;
            }
            const size_t source = text.find(kSource);
            const std::string message =
                source == std::string::npos ? "" : text.substr(source + sizeof kSource - 1);
            char seen = 0;
            int writer = -1;
            int index = -1;
            ASSERT_TRUE(sscanf(message.c_str(), "%c%d L%d", &seen, &writer, &index) == 3 &&
                        seen == label && writer >= 0 && writer < writers &&
                        message == Message(label, writer, index))
                << "not a whole line of " << label << ": " << text;
            ASSERT_EQ(index, next[writer]++) << text;
        }
    }
    EXPECT_EQ(next, std::vector<int>(writers, kLines)) << label;
}

void WriteLines(char label, int writer) {
    for (int i = 0; i < kLines; ++i) {
        LogMessage(nullptr, LOG_LEVEL_INFO, L"Concurrency::Writer", "%s",
                   Message(label, writer, i).c_str());
    }
}

// Eight plain writers fill the main log past its limit, which rolls it once,
// while two event threads of each of two sessions write into their
// sessions' logs: no line is lost, torn or misplaced.
TEST(LogConcurrencyTest, LinesStayWholeInOrderAndInTheirLogAcrossARoll) {
    constexpr uint32_t kLimit = 3000000;  // about 4.4 MB of plain lines
    logonmon::AllocateCurrentRecordSlot();
    ScopedFakeTdh tdh;
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path(), kLimit);
    std::vector<std::thread> writers;
    std::vector<std::unique_ptr<logonmon::EventRecordData>> records;
    std::vector<std::shared_ptr<SessionLog>> sessionLogs;
    for (const wchar_t label : {L'A', L'B'}) {
        const auto session = std::make_shared<logonmon::SESSION_CONTEXT>();
        sessionLogs.push_back(SessionLogOf(*session));
        EXPECT_TRUE(OpenLog(folder.Path() + label + L".txt", *sessionLogs.back()));
        for (int writer = 0; writer < 2; ++writer) {
            records.push_back(std::make_unique<logonmon::EventRecordData>(
                EventBuilder().EventId(1).Level(4).Record()));
            logonmon::LinkToSession(*records.back(), session);
            writers.emplace_back([record = records.back().get(), label, writer] {
                const logonmon::ScopedCurrentRecord current(record);
                WriteLines(static_cast<char>(label), writer);
            });
        }
    }
    for (int writer = 0; writer < 8; ++writer) {
        writers.emplace_back(WriteLines, 'T', writer);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    for (const std::shared_ptr<SessionLog>& sessionLog : sessionLogs) {
        CloseSessionLog(*sessionLog);
    }

    ExpectWholeOrderedLines({folder.Path() + L"A.txt"}, 'A', 2);
    ExpectWholeOrderedLines({folder.Path() + L"B.txt"}, 'B', 2);
    ExpectWholeOrderedLines({mainLog.BackupPath(), mainLog.Path()}, 'T', 8);
    // The roll came right after the line that crossed the limit.
    const size_t backupSize = ReadFileBytes(mainLog.BackupPath()).size();
    EXPECT_GT(backupSize, kLimit);
    EXPECT_LE(backupSize - ReadLines(mainLog.BackupPath()).back().size() - 2, kLimit);
}

}  // namespace
}  // namespace plmx::testing
