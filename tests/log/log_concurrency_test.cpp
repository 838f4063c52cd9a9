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
    std::vector<std::wstring> sessionPaths;
    std::vector<std::unique_ptr<logonmon::EventRecordData>> records;
    for (uint32_t s = 0; s < 2; ++s) {
        const auto session = std::make_shared<logonmon::SESSION_CONTEXT>();
        session->sessionId = s + 1;
        const std::shared_ptr<SessionLog> sessionLog = SessionLogOf(*session);
        sessionPaths.push_back(folder.Path() + sessionLog->logId + L".txt");
        ASSERT_TRUE(OpenLog(sessionPaths[s], *sessionLog));
        for (int t = 0; t < 2; ++t) {
            EventBuilder builder;
            builder.EventId(1).Level(4);
            records.push_back(std::make_unique<logonmon::EventRecordData>(builder.Record()));
            logonmon::LinkToSession(*records.back(), session);
        }
    }
    std::vector<std::thread> writers;
    for (size_t r = 0; r < records.size(); ++r) {
        writers.emplace_back([&records, r] {
            logonmon::ScopedCurrentRecord current(records[r].get());
            WriteLines(r < 2 ? 'A' : 'B', static_cast<int>(r % 2));
        });
    }
    for (int writer = 0; writer < 8; ++writer) {
        writers.emplace_back(WriteLines, 'T', writer);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    for (const auto& record : records) {
        CloseSessionLog(*record->sessionContext->sessionLog);
    }

    ExpectWholeOrderedLines({sessionPaths[0]}, 'A', 2);
    ExpectWholeOrderedLines({sessionPaths[1]}, 'B', 2);
    ExpectWholeOrderedLines({mainLog.BackupPath(), mainLog.Path()}, 'T', 8);
    // The roll came right after the line that crossed the limit.
    const size_t backupSize = ReadFileBytes(mainLog.BackupPath()).size();
    EXPECT_GT(backupSize, kLimit);
    EXPECT_LE(backupSize - ReadLines(mainLog.BackupPath()).back().size() - 2, kLimit);
}

}  // namespace
}  // namespace plmx::testing
