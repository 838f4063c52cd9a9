#include "trace/FileTrace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/LogFiles.h"
#include "tests/trace/RecordingEtwControl.h"
#include "trace/AutoLogger.h"

namespace logonmon {
namespace {

using ::testing::ElementsAre;

constexpr char kSaved[] =
    "ERROR [StartFileTrace] Persistent trace session AutoLogger saved in registry";

// The boot entry's "FileName"; empty without an entry.
std::wstring EntryFileName() {
    const std::wstring entry = std::wstring(kAutoLoggerKey) + L"\\" + kFileSessionName;
    wchar_t text[64] = {};
    DWORD size = sizeof(text);
    RegGetValueW(HKEY_LOCAL_MACHINE, entry.c_str(), L"FileName", RRF_RT_REG_SZ, nullptr, text,
                 &size);
    return text;
}

// "<level> [<function>] <message>" of each line `command` logs.
template <typename Command>
std::vector<std::string> Logged(Command command, ULONG expectedResult) {
    plmx::testing::StdoutCapture capture;
    EXPECT_EQ(command(), expectedResult);
    return plmx::testing::Tagged(plmx::testing::ReadLines(capture.Path()));
}

// ETW is the recording stand-in, the registry the Wine prefix's; every test
// starts and ends without a boot entry.
struct FileTraceTest : ::testing::Test {
    void SetUp() override { AutoLogger::Delete(kFileSessionName); }
    void TearDown() override { AutoLogger::Delete(kFileSessionName); }

    testing::RecordingEtwControl etw;
};

TEST_F(FileTraceTest, PersistentStartAndStop) {
    EXPECT_THAT(Logged([] { return StartFileTrace(L"C:\\first.etl", true); }, 0),
                ElementsAre(kSaved, "INFO [StartFileTrace] Tracing to C:\\first.etl succeeded."));
    EXPECT_EQ(etw.calls.front(), "Start logonmon_diag_trace_file");
    EXPECT_EQ(etw.enables.size(), 23u);
    // A second start keeps the first entry and starts nothing more.
    etw.calls.clear();
    EXPECT_THAT(Logged([] { return StartFileTrace(L"C:\\second.etl", true); }, 183),
                ElementsAre("ERROR [StartFileTrace] logonmon::AutoLogger::Save failed, ret = 183"));
    EXPECT_TRUE(etw.calls.empty());
    EXPECT_EQ(EntryFileName(), L"C:\\first.etl");

    EXPECT_THAT(Logged([] { return StopFileTrace(true); }, 0),
                ElementsAre("INFO [StopFileTrace] logonmon::AutoLogger::Delete succeeded",
                            "INFO [StopFileTrace] logonmon::Controller::Stop succeeded"));
    EXPECT_THAT(etw.calls, ElementsAre("Stop logonmon_diag_trace_file"));
    EXPECT_EQ(EntryFileName(), L"");
    etw.stopResult = ERROR_WMI_INSTANCE_NOT_FOUND;
    EXPECT_THAT(Logged([] { return StopFileTrace(true); }, ERROR_WMI_INSTANCE_NOT_FOUND),
                ElementsAre("ERROR [StopFileTrace] logonmon::AutoLogger::Delete failed, ret = 2",
                            "ERROR [StopFileTrace] logonmon::Controller::Stop failed, ret = 4201"));
}

TEST_F(FileTraceTest, AFailedStartRemovesTheEntryItJustSaved) {
    const struct {
        ULONG startResult;
        size_t failingEnable;
        ULONG expected;
    } cases[] = {
        {ERROR_ALREADY_EXISTS, SIZE_MAX, ERROR_ALREADY_EXISTS},  // the session runs already
        {ERROR_ACCESS_DENIED, SIZE_MAX, ERROR_ACCESS_DENIED},
        {ERROR_SUCCESS, 2, ERROR_ACCESS_DENIED},  // the third provider is refused
    };
    for (const auto& c : cases) {
        etw.startResult = c.startResult;
        etw.failingEnable = c.failingEnable;
        EXPECT_THAT(Logged([] { return StartFileTrace(L"C:\\t.etl", true); }, c.expected),
                    ElementsAre(kSaved));
        EXPECT_EQ(EntryFileName(), L"") << c.expected;
    }
    plmx::testing::StdoutCapture capture;
    EXPECT_THROW(StartFileTrace(L"C:\\" + std::wstring(1021, L'p'), true), std::runtime_error);
    EXPECT_EQ(EntryFileName(), L"");
}

TEST_F(FileTraceTest, WithoutPersistentTheEntryIsLeftAlone) {
    EXPECT_THAT(Logged([] { return StartFileTrace(L"C:\\t.etl", false); }, 0),
                ElementsAre("INFO [StartFileTrace] Tracing to C:\\t.etl succeeded."));
    EXPECT_EQ(EntryFileName(), L"");
    Logged([] { return StartFileTrace(L"C:\\kept.etl", true); }, 0);
    EXPECT_THAT(Logged([] { return StopFileTrace(false); }, 0),
                ElementsAre("INFO [StopFileTrace] logonmon::Controller::Stop succeeded"));
    EXPECT_EQ(EntryFileName(), L"C:\\kept.etl");
}

}  // namespace
}  // namespace logonmon
