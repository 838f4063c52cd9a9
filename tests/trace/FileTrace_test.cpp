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

const std::wstring kEntry = std::wstring(kAutoLoggerKey) + L"\\" + kFileSessionName;
constexpr char kSaved[] =
    "ERROR [StartFileTrace] Persistent trace session AutoLogger saved in registry";

// The boot entry's "FileName"; empty without an entry.
std::wstring EntryFileName() {
    wchar_t text[512] = {};
    DWORD size = sizeof(text);
    RegGetValueW(HKEY_LOCAL_MACHINE, kEntry.c_str(), L"FileName", RRF_RT_REG_SZ, nullptr, text,
                 &size);
    return text;
}

// ETW is the recording stand-in, the registry the Wine prefix's; every test
// starts and ends without a boot entry.
class FileTraceTest : public ::testing::Test {
  protected:
    void SetUp() override { AutoLogger::Delete(kFileSessionName); }
    void TearDown() override { AutoLogger::Delete(kFileSessionName); }

    // Runs `command`; `lines` receives "<level> [<function>] <message>" of
    // each line it logged.
    template <typename Command>
    ULONG Run(Command command, std::vector<std::string>* lines) {
        plmx::testing::StdoutCapture capture;
        const ULONG result = command();
        lines->clear();
        std::istringstream output(capture.Text());
        for (std::string line; std::getline(output, line);) {
            const auto parsed = plmx::testing::ParseLogLine(line.substr(0, line.find('\r')));
            lines->push_back(parsed ? parsed->level + " [" + parsed->source + "] " + parsed->message
                                    : "<unparsed> " + line);
        }
        return result;
    }

    RecordingEtwControl etw_;
    std::vector<std::string> lines_;
};

TEST_F(FileTraceTest, PersistentTraceTwiceKeepsTheFirstEntryAndStartsNothingMore) {
    ASSERT_EQ(Run([] { return StartFileTrace(L"C:\\first.etl", true); }, &lines_), 0u);
    EXPECT_THAT(lines_,
                ElementsAre(kSaved, "INFO [StartFileTrace] Tracing to C:\\first.etl succeeded."));
    EXPECT_EQ(etw_.startedName, L"logonmon_diag_trace_file");
    EXPECT_EQ(etw_.enables.size(), 23u);
    EXPECT_EQ(EntryFileName(), L"C:\\first.etl");

    etw_.calls.clear();
    EXPECT_EQ(Run([] { return StartFileTrace(L"C:\\second.etl", true); }, &lines_),
              ULONG{ERROR_ALREADY_EXISTS});
    EXPECT_THAT(lines_,
                ElementsAre("ERROR [StartFileTrace] logonmon::AutoLogger::Save failed, ret = 183"));
    EXPECT_THAT(etw_.calls, IsEmpty());
    EXPECT_EQ(EntryFileName(), L"C:\\first.etl");
}

TEST_F(FileTraceTest, AFailedStartRemovesTheEntryItJustSaved) {
    const struct {
        ULONG startResult;
        size_t failingEnable;
        ULONG expected;
    } cases[] = {
        {ERROR_ALREADY_EXISTS, SIZE_MAX, ERROR_ALREADY_EXISTS},  // the session runs already
        {ERROR_ACCESS_DENIED, SIZE_MAX, ERROR_ACCESS_DENIED},
        {ERROR_SUCCESS, 2, etw_.enableFailure},  // the third provider is refused
    };
    for (const auto& c : cases) {
        etw_.startResult = c.startResult;
        etw_.failingEnable = c.failingEnable;
        EXPECT_EQ(Run([] { return StartFileTrace(L"C:\\t.etl", true); }, &lines_), c.expected);
        EXPECT_THAT(lines_, ElementsAre(kSaved));
        EXPECT_EQ(EntryFileName(), L"") << c.expected;
    }

    plmx::testing::StdoutCapture capture;
    try {
        StartFileTrace(L"C:\\" + std::wstring(1021, L'p'), true);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "file name string too long");
    }
    EXPECT_EQ(EntryFileName(), L"");
}

TEST_F(FileTraceTest, WithoutPersistentTheEntryIsLeftAlone) {
    ASSERT_EQ(Run([] { return StartFileTrace(L"C:\\t.etl", false); }, &lines_), 0u);
    EXPECT_THAT(lines_, ElementsAre("INFO [StartFileTrace] Tracing to C:\\t.etl succeeded."));
    EXPECT_EQ(EntryFileName(), L"");

    ASSERT_EQ(Run([] { return StartFileTrace(L"C:\\kept.etl", true); }, &lines_), 0u);
    ASSERT_EQ(Run([] { return StopFileTrace(false); }, &lines_), 0u);
    EXPECT_THAT(lines_, ElementsAre("INFO [StopFileTrace] logonmon::Controller::Stop succeeded"));
    EXPECT_EQ(EntryFileName(), L"C:\\kept.etl");
}

TEST_F(FileTraceTest, StopRemovesTheEntryAndStopsTheSessionOrReportsBothMissing) {
    ASSERT_EQ(Run([] { return StartFileTrace(L"C:\\t.etl", true); }, &lines_), 0u);
    ASSERT_EQ(Run([] { return StopFileTrace(true); }, &lines_), 0u);
    EXPECT_THAT(lines_, ElementsAre("INFO [StopFileTrace] logonmon::AutoLogger::Delete succeeded",
                                    "INFO [StopFileTrace] logonmon::Controller::Stop succeeded"));
    EXPECT_EQ(EntryFileName(), L"");
    EXPECT_EQ(etw_.controls.at(0).sessionName, L"logonmon_diag_trace_file");
    EXPECT_EQ(etw_.controls.at(0).controlCode, ULONG{EVENT_TRACE_CONTROL_STOP});

    etw_.controlResult = ERROR_WMI_INSTANCE_NOT_FOUND;
    EXPECT_EQ(Run([] { return StopFileTrace(true); }, &lines_),
              ULONG{ERROR_WMI_INSTANCE_NOT_FOUND});
    EXPECT_THAT(lines_,
                ElementsAre("ERROR [StopFileTrace] logonmon::AutoLogger::Delete failed, ret = 2",
                            "ERROR [StopFileTrace] logonmon::Controller::Stop failed, ret = 4201"));
}

}  // namespace
}  // namespace logonmon
