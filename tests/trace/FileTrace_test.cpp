#include "trace/FileTrace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/LogFiles.h"
#include "tests/trace/RecordingEtwControl.h"
#include "trace/AutoLogger.h"

namespace logonmon {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::RecordingEtwControl;

const std::wstring kEntryPath = std::wstring(kAutoLoggerKey) + L"\\" + kFileSessionName;

// "<level> [<function>] <message>" of each line written to standard output.
std::vector<std::string> LogLines(const std::string& output) {
    std::vector<std::string> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        const std::optional<plmx::testing::LogLine> parsed = plmx::testing::ParseLogLine(line);
        lines.push_back(parsed ? parsed->level + " [" + parsed->source + "] " + parsed->message
                               : "<unparsed> " + line);
    }
    return lines;
}

bool EntryExists() {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kEntryPath.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return false;
    }
    RegCloseKey(key);
    return true;
}

std::wstring EntryFileName() {
    wchar_t text[512] = {};
    DWORD size = sizeof(text);
    RegGetValueW(HKEY_LOCAL_MACHINE, kEntryPath.c_str(), L"FileName", RRF_RT_REG_SZ, nullptr, text,
                 &size);
    return text;
}

// Each test starts and ends without a boot entry; ETW is the recording
// stand-in, the registry the Wine prefix's.
class FileTraceTest : public ::testing::Test {
  protected:
    void SetUp() override { AutoLogger::Delete(kFileSessionName); }
    void TearDown() override { AutoLogger::Delete(kFileSessionName); }

    // Runs `command` and returns its result with the log lines it wrote.
    template <typename Command>
    ULONG Run(Command command, std::vector<std::string>* lines) {
        plmx::testing::StdoutCapture capture;
        const ULONG result = command();
        *lines = LogLines(capture.Text());
        return result;
    }

    RecordingEtwControl etw_;
};

TEST_F(FileTraceTest, PersistentTraceTwiceKeepsTheFirstEntryAndStartsNothingMore) {
    std::vector<std::string> lines;
    ASSERT_EQ(Run([] { return StartFileTrace(L"C:\\first.etl", true); }, &lines), 0u);
    EXPECT_THAT(lines,
                ElementsAre("ERROR [StartFileTrace] Persistent trace session AutoLogger saved in "
                            "registry",
                            "INFO [StartFileTrace] Tracing to C:\\first.etl succeeded."));
    EXPECT_EQ(etw_.startedName, L"logonmon_diag_trace_file");
    EXPECT_EQ(etw_.enables.size(), 23u);
    EXPECT_EQ(EntryFileName(), L"C:\\first.etl");

    etw_.calls.clear();
    EXPECT_EQ(Run([] { return StartFileTrace(L"C:\\second.etl", true); }, &lines),
              static_cast<ULONG>(ERROR_ALREADY_EXISTS));
    EXPECT_THAT(lines,
                ElementsAre("ERROR [StartFileTrace] logonmon::AutoLogger::Save failed, ret = 183"));
    EXPECT_THAT(etw_.calls, IsEmpty());
    EXPECT_EQ(EntryFileName(), L"C:\\first.etl");
}

TEST_F(FileTraceTest, AFailedStartRemovesTheEntryItJustSaved) {
    struct Case {
        const char* name;
        ULONG startResult;
        size_t failingEnable;
    };
    const Case cases[] = {
        {"session already running", ERROR_ALREADY_EXISTS, SIZE_MAX},
        {"start refused", ERROR_ACCESS_DENIED, SIZE_MAX},
        {"third provider refused", ERROR_SUCCESS, 2},
    };
    for (const Case& c : cases) {
        etw_.startResult = c.startResult;
        etw_.failingEnable = c.failingEnable;
        std::vector<std::string> lines;
        const ULONG result = Run([] { return StartFileTrace(L"C:\\t.etl", true); }, &lines);
        EXPECT_NE(result, 0u) << c.name;
        EXPECT_EQ(result, c.startResult != ERROR_SUCCESS ? c.startResult : etw_.enableFailure);
        EXPECT_THAT(lines, ElementsAre("ERROR [StartFileTrace] Persistent trace session "
                                       "AutoLogger saved in registry"))
            << c.name;
        EXPECT_FALSE(EntryExists()) << c.name;
    }
}

TEST_F(FileTraceTest, AnOverlongPathThrowsAndLeavesNoEntry) {
    const std::wstring path = L"C:\\" + std::wstring(1021, L'p');
    plmx::testing::StdoutCapture capture;
    EXPECT_THROW(
        {
            try {
                StartFileTrace(path, true);
            } catch (const std::runtime_error& error) {
                EXPECT_STREQ(error.what(), "file name string too long");
                throw;
            }
        },
        std::runtime_error);
    EXPECT_FALSE(EntryExists());
    EXPECT_THAT(etw_.calls, IsEmpty());
}

TEST_F(FileTraceTest, WithoutPersistentNoEntryIsWrittenOrRemoved) {
    std::vector<std::string> lines;
    ASSERT_EQ(Run([] { return StartFileTrace(L"C:\\t.etl", false); }, &lines), 0u);
    EXPECT_THAT(lines, ElementsAre("INFO [StartFileTrace] Tracing to C:\\t.etl succeeded."));
    EXPECT_FALSE(EntryExists());

    etw_.startResult = ERROR_ALREADY_EXISTS;
    EXPECT_EQ(Run([] { return StartFileTrace(L"C:\\t.etl", false); }, &lines),
              static_cast<ULONG>(ERROR_ALREADY_EXISTS));
    EXPECT_THAT(lines, IsEmpty());

    etw_.startResult = ERROR_SUCCESS;
    ASSERT_EQ(Run([] { return StartFileTrace(L"C:\\kept.etl", true); }, &lines), 0u);
    ASSERT_EQ(Run([] { return StopFileTrace(false); }, &lines), 0u);
    EXPECT_THAT(lines, ElementsAre("INFO [StopFileTrace] logonmon::Controller::Stop succeeded"));
    EXPECT_EQ(EntryFileName(), L"C:\\kept.etl");
}

TEST_F(FileTraceTest, StopRemovesTheEntryAndStopsTheSession) {
    std::vector<std::string> lines;
    ASSERT_EQ(Run([] { return StartFileTrace(L"C:\\t.etl", true); }, &lines), 0u);

    ASSERT_EQ(Run([] { return StopFileTrace(true); }, &lines), 0u);
    EXPECT_THAT(lines, ElementsAre("INFO [StopFileTrace] logonmon::AutoLogger::Delete succeeded",
                                   "INFO [StopFileTrace] logonmon::Controller::Stop succeeded"));
    EXPECT_FALSE(EntryExists());
    ASSERT_EQ(etw_.controls.size(), 1u);
    EXPECT_EQ(etw_.controls[0].sessionName, L"logonmon_diag_trace_file");
    EXPECT_EQ(etw_.controls[0].controlCode, static_cast<ULONG>(EVENT_TRACE_CONTROL_STOP));
}

TEST_F(FileTraceTest, StopWithNoEntryAndNoSessionReportsBothAndReturnsTheStopResult) {
    etw_.controlResult = ERROR_WMI_INSTANCE_NOT_FOUND;
    std::vector<std::string> lines;
    EXPECT_EQ(Run([] { return StopFileTrace(true); }, &lines),
              static_cast<ULONG>(ERROR_WMI_INSTANCE_NOT_FOUND));
    EXPECT_THAT(lines,
                ElementsAre("ERROR [StopFileTrace] logonmon::AutoLogger::Delete failed, ret = 2",
                            "ERROR [StopFileTrace] logonmon::Controller::Stop failed, ret = 4201"));
}

}  // namespace
}  // namespace logonmon
