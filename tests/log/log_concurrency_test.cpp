#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <memory>
#include <optional>
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

using logonmon::EventRecordData;
using logonmon::ScopedCurrentRecord;
using logonmon::SESSION_CONTEXT;
using plmx::testing::EventBuilder;
using plmx::testing::LogLine;
using plmx::testing::ParseLogLine;
using plmx::testing::ReadFileBytes;
using plmx::testing::ReadLines;
using plmx::testing::ScopedFakeTdh;
using plmx::testing::ScopedMainLog;
using plmx::testing::TempFolder;

namespace {

constexpr int kThreads = 8;
constexpr int kLinesPerThread = 20000;
const std::string kPadding(40, '.');
const std::string kOpened = "Opened main log, Size: 0";

std::string Message(const char* label, int thread, int index) {
    char text[32];
    snprintf(text, sizeof text, "%s%d L%05d ", label, thread, index);
    return text + kPadding;
}

void WriteLines(const char* label, int thread, int count) {
    for (int i = 0; i < count; ++i) {
        LogMessage(nullptr, LOG_LEVEL_INFO, L"Concurrency::Writer", "%s%d L%05d %s", label, thread,
                   i, kPadding.c_str());
    }
}

// Line numbers per writing thread, in file order.
using Sequences = std::vector<std::vector<int>>;

// Checks that each line is one whole line of a writer labelled `label` (or
// the log's opening line) and collects its number. Returns the count of
// opening lines.
int Collect(const std::vector<std::string>& lines, const char* label, Sequences& sequences) {
    int opened = 0;
    for (const std::string& text : lines) {
        const std::optional<LogLine> line = ParseLogLine(text);
        if (!line) {
            ADD_FAILURE() << "not a log line: " << text;
            continue;
        }
        if (line->source == "OpenMainLog" && line->message == kOpened) {
            ++opened;
            continue;
        }
        if (line->source == "RecurseCreateFolder") {
            continue;  // opening a session log echoes the log folder
        }
        int thread = -1;
        int index = -1;
        const std::string format = std::string(label) + "%d L%d";
        if (sscanf(line->message.c_str(), format.c_str(), &thread, &index) != 2 || thread < 0 ||
            thread >= static_cast<int>(sequences.size()) ||
            line->message != Message(label, thread, index)) {
            ADD_FAILURE() << "broken line: " << text;
            continue;
        }
        sequences[thread].push_back(index);
    }
    return opened;
}

// Each thread's numbers must run on by one, ending with its last line.
void ExpectInOrderSuffixes(const Sequences& sequences, int linesPerThread) {
    for (size_t thread = 0; thread < sequences.size(); ++thread) {
        SCOPED_TRACE(thread);
        const std::vector<int>& numbers = sequences[thread];
        if (numbers.empty()) {
            continue;
        }
        EXPECT_EQ(numbers.back(), linesPerThread - 1);
        for (size_t i = 1; i < numbers.size(); ++i) {
            if (numbers[i] != numbers[i - 1] + 1) {
                ADD_FAILURE() << "line " << numbers[i] << " follows " << numbers[i - 1];
                break;
            }
        }
    }
}

void RunWriters(int threads, int linesPerThread) {
    std::vector<std::thread> writers;
    for (int thread = 0; thread < threads; ++thread) {
        writers.emplace_back(WriteLines, "T", thread, linesPerThread);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
}

// The backup ends with the line that crossed the limit.
void ExpectRolledAtTheCrossing(const std::wstring& backupPath, uint32_t limit) {
    const std::string backup = ReadFileBytes(backupPath);
    const std::vector<std::string> lines = ReadLines(backupPath);
    ASSERT_FALSE(lines.empty());
    EXPECT_GT(backup.size(), limit);
    EXPECT_LE(backup.size() - lines.back().size() - 2, limit);
}

TEST(LogConcurrencyTest, OneRollKeepsEveryLineWholeAndInOrder) {
    // About 18 MB in all: the limit lets exactly one roll happen.
    constexpr uint32_t kLimit = 12000000;
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path(), kLimit);

    RunWriters(kThreads, kLinesPerThread);

    Sequences sequences(kThreads);
    EXPECT_EQ(Collect(ReadLines(mainLog.BackupPath()), "T", sequences), 1);
    EXPECT_EQ(Collect(ReadLines(mainLog.Path()), "T", sequences), 1);
    for (const std::vector<int>& numbers : sequences) {
        ASSERT_EQ(numbers.size(), static_cast<size_t>(kLinesPerThread));
        EXPECT_EQ(numbers.front(), 0);
    }
    ExpectInOrderSuffixes(sequences, kLinesPerThread);
    ExpectRolledAtTheCrossing(mainLog.BackupPath(), kLimit);
}

TEST(LogConcurrencyTest, ManyRollsKeepTheNewestLinesInOrder) {
    constexpr uint32_t kLimit = 200000;
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path(), kLimit);

    RunWriters(kThreads, kLinesPerThread);

    Sequences sequences(kThreads);
    EXPECT_EQ(Collect(ReadLines(mainLog.BackupPath()), "T", sequences), 1);
    EXPECT_EQ(Collect(ReadLines(mainLog.Path()), "T", sequences), 1);
    ExpectInOrderSuffixes(sequences, kLinesPerThread);
    ExpectRolledAtTheCrossing(mainLog.BackupPath(), kLimit);
    EXPECT_LE(ReadFileBytes(mainLog.Path()).size(), kLimit);
}

TEST(LogConcurrencyTest, SessionLogsReceiveExactlyTheirSessionsLines) {
    constexpr int kSessions = 2;
    constexpr int kThreadsPerSession = 2;
    constexpr int kLines = 5000;
    logonmon::AllocateCurrentRecordSlot();
    ScopedFakeTdh tdh;
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path());

    std::vector<std::shared_ptr<SESSION_CONTEXT>> sessions;
    std::vector<std::wstring> paths;
    for (int s = 0; s < kSessions; ++s) {
        auto session = std::make_shared<SESSION_CONTEXT>();
        session->sessionId = static_cast<uint32_t>(s + 1);
        const std::shared_ptr<SessionLog> sessionLog = SessionLogOf(*session);
        paths.push_back(folder.Path() + L"plmx_session_" + sessionLog->logId + L"_" +
                        std::to_wstring(s + 1) + L".txt");
        ASSERT_TRUE(OpenLog(paths.back(), *sessionLog));
        sessions.push_back(std::move(session));
    }
    std::vector<std::unique_ptr<EventRecordData>> records;
    for (int s = 0; s < kSessions; ++s) {
        for (int t = 0; t < kThreadsPerSession; ++t) {
            EventBuilder builder;
            builder.EventId(1).Level(4).ProcessId(0x10).ThreadId(0x20 + t);
            records.push_back(std::make_unique<EventRecordData>(builder.Record()));
            records.back()->sessionContext = sessions[s];
        }
    }

    std::vector<std::thread> writers;
    for (int thread = 0; thread < kThreads; ++thread) {
        writers.emplace_back(WriteLines, "T", thread, kLines);
    }
    for (size_t r = 0; r < records.size(); ++r) {
        writers.emplace_back([&records, r] {
            ScopedCurrentRecord current(records[r].get());
            const int session = static_cast<int>(r) / kThreadsPerSession;
            WriteLines(session == 0 ? "A" : "B", static_cast<int>(r) % kThreadsPerSession, kLines);
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    for (const auto& session : sessions) {
        CloseSessionLog(*session->sessionLog);
    }

    const char* labels[] = {"A", "B"};
    for (int s = 0; s < kSessions; ++s) {
        SCOPED_TRACE(labels[s]);
        Sequences sequences(kThreadsPerSession);
        EXPECT_EQ(Collect(ReadLines(paths[s]), labels[s], sequences), 0);
        for (const std::vector<int>& numbers : sequences) {
            EXPECT_EQ(numbers.size(), static_cast<size_t>(kLines));
        }
        ExpectInOrderSuffixes(sequences, kLines);
    }
    Sequences plain(kThreads);
    EXPECT_EQ(Collect(ReadLines(mainLog.Path()), "T", plain), 1);
    for (const std::vector<int>& numbers : plain) {
        EXPECT_EQ(numbers.size(), static_cast<size_t>(kLines));
    }
    ExpectInOrderSuffixes(plain, kLines);
}

}  // namespace
