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

using namespace plmx::testing;
using logonmon::EventRecordData;

namespace {

constexpr int kThreads = 8;
constexpr int kLinesPerThread = 20000;
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

// Each writer's line numbers, in file order, from the lines of writers
// labelled `label`; every line must be whole. Opening lines of the main log
// and folder echoes are skipped.
std::vector<std::vector<int>> Collect(const std::vector<std::wstring>& paths, char label,
                                      int writers) {
    std::vector<std::vector<int>> numbers(writers);
    for (const std::wstring& path : paths) {
        for (const std::string& text : ReadLines(path)) {
            const auto line = ParseLogLine(text);
            if (line && (line->source == "OpenMainLog" || line->source == "RecurseCreateFolder")) {
                continue;
            }
            int thread = -1;
            int index = -1;
            const bool whole =
                line && sscanf(line->message.c_str(), "%*c%d L%d", &thread, &index) == 2 &&
                thread >= 0 && thread < writers && line->message == Message(label, thread, index);
            if (!whole) {
                ADD_FAILURE() << "not a whole line of " << label << ": " << text;
                continue;
            }
            numbers[thread].push_back(index);
        }
    }
    return numbers;
}

// Each writer's surviving lines run on by one up to its last line.
void ExpectInOrderSuffixes(const std::vector<std::vector<int>>& numbers, int lastIndex) {
    for (const std::vector<int>& sequence : numbers) {
        for (size_t i = 0; i < sequence.size(); ++i) {
            ASSERT_EQ(sequence[i], lastIndex - static_cast<int>(sequence.size() - 1 - i));
        }
    }
}

void RunWriters(std::vector<std::thread>& writers) {
    for (int thread = 0; thread < kThreads; ++thread) {
        writers.emplace_back(WriteLines, 'T', thread, kLinesPerThread);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
}

// About 18 MB in all: a limit of 12 MB rolls once and keeps every line; one
// of 200 KB rolls often and keeps only the newest lines.
TEST(LogConcurrencyTest, RollsKeepLinesWholeInOrderAndCompleteAtTheEnd) {
    for (const uint32_t limit : {12000000u, 200000u}) {
        SCOPED_TRACE(limit);
        TempFolder folder;
        ScopedMainLog mainLog(folder.Path(), limit);
        std::vector<std::thread> writers;
        RunWriters(writers);

        const auto numbers = Collect({mainLog.BackupPath(), mainLog.Path()}, 'T', kThreads);
        ExpectInOrderSuffixes(numbers, kLinesPerThread - 1);
        if (limit > 1000000) {
            for (const std::vector<int>& sequence : numbers) {
                EXPECT_EQ(sequence.size(), static_cast<size_t>(kLinesPerThread));
            }
        }
        // Each roll came right after the line that crossed the limit.
        const std::string backup = ReadFileBytes(mainLog.BackupPath());
        EXPECT_GT(backup.size(), limit);
        EXPECT_LE(backup.size() - ReadLines(mainLog.BackupPath()).back().size() - 2, limit);
        EXPECT_LE(ReadFileBytes(mainLog.Path()).size(), limit);
    }
}

TEST(LogConcurrencyTest, SessionLogsReceiveExactlyTheirSessionsLines) {
    constexpr int kLines = 5000;
    logonmon::AllocateCurrentRecordSlot();
    ScopedFakeTdh tdh;
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path());

    // Two sessions with two event threads each, beside plain writers.
    std::vector<std::shared_ptr<logonmon::SESSION_CONTEXT>> sessions;
    std::vector<std::wstring> paths;
    std::vector<std::unique_ptr<EventRecordData>> records;
    for (uint32_t s = 0; s < 2; ++s) {
        sessions.push_back(std::make_shared<logonmon::SESSION_CONTEXT>());
        sessions[s]->sessionId = s + 1;
        const std::shared_ptr<SessionLog> sessionLog = SessionLogOf(*sessions[s]);
        paths.push_back(folder.Path() + sessionLog->logId + L".txt");
        ASSERT_TRUE(OpenLog(paths[s], *sessionLog));
        for (int t = 0; t < 2; ++t) {
            EventBuilder builder;
            builder.EventId(1).Level(4);
            records.push_back(std::make_unique<EventRecordData>(builder.Record()));
            records.back()->sessionContext = sessions[s];
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
    for (std::thread& writer : writers) {
        writer.join();
    }
    for (const auto& session : sessions) {
        CloseSessionLog(*session->sessionLog);
    }

    const std::pair<std::vector<std::wstring>, char> logs[] = {
        {{paths[0]}, 'A'}, {{paths[1]}, 'B'}, {{mainLog.Path()}, 'T'}};
    for (const auto& [files, label] : logs) {
        SCOPED_TRACE(label);
        const auto numbers = Collect(files, label, label == 'T' ? kThreads : 2);
        ExpectInOrderSuffixes(numbers, kLines - 1);
        for (const std::vector<int>& sequence : numbers) {
            EXPECT_EQ(sequence.size(), static_cast<size_t>(kLines));
        }
    }
}

}  // namespace
