#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
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

using namespace plmx::testing;

namespace {

constexpr int kThreads = 8;
constexpr char kSource[] = "[Concurrency::Writer] ";
const std::string kPadding(40, '.');

std::string Message(char label, int thread, int index) {
    char text[32];
    snprintf(text, sizeof text, "%c%d L%05d ", label, thread, index);
    return text + kPadding;
}

void WriteLines(char label, int thread, int count) {
    for (int i = 0; i < count; ++i) {
        LogMessage(nullptr, LOG_LEVEL_INFO, L"Concurrency::Writer", "%c%d L%05d %s", label, thread,
                   i, kPadding.c_str());
    }
}

void Join(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Checks that every line of `paths` (opening lines and folder echoes aside)
// is one whole line of a writer labelled `label`, and that each writer's
// lines run on by one up to its last, `count` - 1; all `count` of them when
// `complete`.
void ExpectWholeOrderedLines(const std::vector<std::wstring>& paths, char label, int writers,
                             int count, bool complete) {
    std::vector<std::vector<int>> numbers(writers);
    for (const std::wstring& path : paths) {
        for (const std::string& text : ReadLines(path)) {
            if (text.find("[OpenMainLog] ") != std::string::npos ||
                text.find("[RecurseCreateFolder] ") != std::string::npos) {
                continue;
            }
            const size_t source = text.find(kSource);
            const std::string message =
                source == std::string::npos ? "" : text.substr(source + strlen(kSource));
            char seen = 0;
            int thread = -1;
            int index = -1;
            const bool whole = text.rfind(kSource) == source &&
                               sscanf(message.c_str(), "%c%d L%d", &seen, &thread, &index) == 3 &&
                               seen == label && thread >= 0 && thread < writers &&
                               message == Message(label, thread, index);
            ASSERT_TRUE(whole) << "not a whole line of " << label << ": " << text;
            numbers[thread].push_back(index);
        }
    }
    for (const std::vector<int>& sequence : numbers) {
        if (complete) {
            ASSERT_EQ(sequence.size(), static_cast<size_t>(count));
        }
        for (size_t i = 0; i < sequence.size(); ++i) {
            ASSERT_EQ(sequence[i], count - static_cast<int>(sequence.size() - i));
        }
    }
}

// About 18 MB in all: a limit of 12 MB rolls once and keeps every line; one
// of 200 KB rolls often and keeps only the newest lines.
TEST(LogConcurrencyTest, RollsKeepLinesWholeInOrderAndCompleteAtTheEnd) {
    constexpr int kLinesPerThread = 20000;
    for (const uint32_t limit : {12000000u, 200000u}) {
        SCOPED_TRACE(limit);
        TempFolder folder;
        ScopedMainLog mainLog(folder.Path(), limit);
        std::vector<std::thread> writers;
        for (int thread = 0; thread < kThreads; ++thread) {
            writers.emplace_back(WriteLines, 'T', thread, kLinesPerThread);
        }
        Join(writers);

        ExpectWholeOrderedLines({mainLog.BackupPath(), mainLog.Path()}, 'T', kThreads,
                                kLinesPerThread, limit > 1000000);
        // The last roll came right after the line that crossed the limit.
        const size_t backupSize = ReadFileBytes(mainLog.BackupPath()).size();
        EXPECT_GT(backupSize, limit);
        EXPECT_LE(backupSize - ReadLines(mainLog.BackupPath()).back().size() - 2, limit);
        EXPECT_LE(ReadFileBytes(mainLog.Path()).size(), limit);
    }
}

TEST(LogConcurrencyTest, SessionLogsReceiveExactlyTheirSessionsLines) {
    constexpr int kLines = 5000;
    logonmon::AllocateCurrentRecordSlot();
    ScopedFakeTdh tdh;
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path());

    // Two sessions with two event threads each ('A' and 'B'), beside plain
    // writers ('T').
    std::vector<std::wstring> paths;
    std::vector<std::unique_ptr<logonmon::EventRecordData>> records;
    for (uint32_t s = 0; s < 2; ++s) {
        const auto session = std::make_shared<logonmon::SESSION_CONTEXT>();
        session->sessionId = s + 1;
        const std::shared_ptr<SessionLog> sessionLog = SessionLogOf(*session);
        paths.push_back(folder.Path() + sessionLog->logId + L".txt");
        ASSERT_TRUE(OpenLog(paths[s], *sessionLog));
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
            WriteLines(r < 2 ? 'A' : 'B', static_cast<int>(r % 2), kLines);
        });
    }
    for (int thread = 0; thread < kThreads; ++thread) {
        writers.emplace_back(WriteLines, 'T', thread, kLines);
    }
    Join(writers);
    for (const auto& record : records) {
        CloseSessionLog(*record->sessionContext->sessionLog);
    }

    ExpectWholeOrderedLines({paths[0]}, 'A', 2, kLines, true);
    ExpectWholeOrderedLines({paths[1]}, 'B', 2, kLines, true);
    ExpectWholeOrderedLines({mainLog.Path()}, 'T', kThreads, kLines, true);
}

}  // namespace
