#include "trace/Controller.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/trace/RecordingEtwControl.h"
#include "trace/DebugOutput.h"
#include "trace/ProviderLists.h"
#include "trace/TextForms.h"

namespace logonmon {
namespace {

using ::testing::ElementsAre;
using testing::RecordingEtwControl;

const std::string kClose = "Close " + std::to_string(RecordingEtwControl::kSessionHandle);

// The event-id filters (EVENT_FILTER_EVENT_ID: FilterIn, Reserved, Count,
// ids) of the providers that have one.
const std::map<std::wstring, std::vector<uint8_t>> kEventIdFilters{
    {L"{30336ED4-E327-447C-9DE0-51B652C86108}", {1, 0, 1, 0, 0x82, 0x25}},  // 9602
    {L"{7D7B0C39-93F6-4100-BD96-4DDA859652C5}", {1, 0, 2, 0, 0xE8, 0x01, 0xE9, 0x03}},
    {L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}", {1, 0, 2, 0, 0x01, 0x00, 0x02, 0x00}},
};

TraceProvider Provider(uint32_t enableProperty, uint32_t level, std::vector<uint16_t> ids) {
    return {{1, 0, 0, {}}, enableProperty, level, std::move(ids)};
}

TEST(ControllerTest, MergingFoldsAProviderIntoOneEntry) {
    const struct {
        TraceProvider present, added, merged;
    } cases[] = {
        {Provider(1, 4, {1001}), Provider(1, 4, {488}), Provider(1, 4, {1001, 488})},
        {Provider(1, 4, {1, 2}), Provider(1, 4, {2, 3}), Provider(1, 4, {1, 2, 3})},
        {Provider(1, 4, {1001}), Provider(1, 4, {}), Provider(1, 4, {})},
        {Provider(1, 4, {}), Provider(1, 4, {488}), Provider(1, 4, {})},
        {Provider(0x81, 2, {}), Provider(0x2, 5, {}), Provider(0x83, 5, {})},
        {Provider(0x1, 5, {}), Provider(0x1, 2, {}), Provider(0x1, 5, {})},
    };
    for (const auto& c : cases) {
        Controller session;
        session.AddProviders({c.present});
        session.AddProviders({c.added});
        ASSERT_EQ(session.Providers().size(), 1u);
        EXPECT_EQ(session.Providers()[0].enableProperty, c.merged.enableProperty);
        EXPECT_EQ(session.Providers()[0].level, c.merged.level);
        EXPECT_EQ(session.Providers()[0].eventIds, c.merged.eventIds);
    }
    EXPECT_EQ(DiagnosticProviders().size(), 16u);  // one provider on purpose twice
}

// The block as the system reads it: EVENT_TRACE_PROPERTIES (x64), the session
// name at byte 120, the log file name 2,048 bytes further.
std::vector<uint8_t> PropertiesBlock(const std::wstring& sessionName, const std::wstring& file,
                                     uint32_t logFileMode, bool systemTimeClock) {
    std::vector<uint8_t> bytes(4216);
    const auto put = [&](size_t offset, uint32_t value, size_t size) {
        for (size_t i = 0; i < size; ++i) {
            bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
        }
    };
    const auto putText = [&](size_t offset, const std::wstring& text) {
        for (size_t i = 0; i < text.size(); ++i) {
            put(offset + 2 * i, text[i], 2);
        }
    };
    put(0, 4216, 4);                      // Wnode.BufferSize
    put(40, systemTimeClock ? 2 : 0, 4);  // Wnode.ClientContext
    put(44, 0x20000, 4);                  // Wnode.Flags: WNODE_FLAG_TRACED_GUID
    put(64, logFileMode, 4);              // LogFileMode
    put(116, 120, 4);                     // LoggerNameOffset
    putText(120, sessionName);
    if (!file.empty()) {
        put(112, 2168, 4);  // LogFileNameOffset
        putText(2168, file);
    }
    return bytes;
}

TEST(ControllerTest, StartAndStopPassTheBlockAndStartEnablesEveryProviderInOrder) {
    const std::wstring longestPath = L"C:\\" + std::wstring(1020, L'p');  // 1,023 characters
    const struct {
        Controller session;
        std::wstring name, file;
        uint32_t mode;
        size_t providers;
    } cases[] = {
        {Controller::Timing(), L"logonmon_timing", L"", 0x100, 7},
        {Controller::Diagnostic(), L"logonmon_diag_trace_rt", L"", 0x100, 0},
        {Controller::DiagnosticFile(L"C:\\t\\boot.etl"), L"logonmon_diag_trace_file",
         L"C:\\t\\boot.etl", 0, 23},
        {Controller::DiagnosticFile(longestPath), L"logonmon_diag_trace_file", longestPath, 0, 23},
    };
    for (const auto& c : cases) {
        RecordingEtwControl etw;
        ASSERT_EQ(c.session.Start(), 0u);
        ASSERT_EQ(c.session.Stop(), 0u);
        std::vector<std::string> expectedCalls{"Start " + Utf8FromWide(c.name)};
        expectedCalls.insert(expectedCalls.end(), c.providers, "Enable");
        expectedCalls.insert(expectedCalls.end(), {kClose, "Stop " + Utf8FromWide(c.name)});
        EXPECT_EQ(etw.calls, expectedCalls);
        EXPECT_EQ(etw.startBlock, PropertiesBlock(c.name, c.file, c.mode, true));
        EXPECT_EQ(etw.stopBlock, PropertiesBlock(c.name, c.file, c.mode, false));

        ASSERT_EQ(etw.enables.size(), c.providers);
        for (size_t i = 0; i < c.providers; ++i) {
            const testing::EnableCall& call = etw.enables[i];
            const std::wstring provider = GuidText(call.providerId);
            EXPECT_EQ(provider, GuidText(c.session.Providers()[i].providerId));
            EXPECT_EQ(call.handle, RecordingEtwControl::kSessionHandle);
            EXPECT_EQ(call.controlCode, 1u);  // EVENT_CONTROL_CODE_ENABLE_PROVIDER
            EXPECT_EQ(call.level, 4);
            EXPECT_EQ(call.keywordsAndTimeout, 0u);
            EXPECT_EQ(call.parameters.Version, 2u);
            EXPECT_EQ(call.parameters.EnableProperty, 0x83u);
            const auto filter = kEventIdFilters.find(provider);
            const bool filtered = filter != kEventIdFilters.end();
            EXPECT_EQ(call.parameters.FilterDescCount, filtered ? 1u : 0u) << i;
            EXPECT_EQ(call.filter, filtered ? filter->second : std::vector<uint8_t>{}) << i;
            EXPECT_EQ(call.filterType, filtered ? 0x80000200u : 0u);  // EVENT_FILTER_TYPE_EVENT_ID
        }
    }
    EXPECT_EQ(GuidText(Controller::DiagnosticFile(L"x").Providers()[22].providerId),
              L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}");  // the process provider last
}

TEST(ControllerTest, RefusesWhatCannotBePassedWithoutCallingTheSystem) {
    RecordingEtwControl etw;
    EXPECT_EQ(Controller().Start(), 87u);
    EXPECT_EQ(Controller().Stop(), 87u);
    EXPECT_EQ(Controller::Timing().EnableProviders(0), 87u);
    const Controller tooLong = Controller::DiagnosticFile(L"C:\\" + std::wstring(1021, L'p'));
    for (auto operation : {&Controller::Start, &Controller::Stop}) {
        try {
            (tooLong.*operation)();
            ADD_FAILURE() << "no exception";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "file name string too long");
        }
    }
    EXPECT_TRUE(etw.calls.empty());
}

std::vector<std::wstring> debugLines;

class ControllerFailureTest : public ::testing::Test {
  protected:
    void SetUp() override {
        debugLines.clear();
        previousSink_ = SetDebugOutputSink([](const wchar_t* line) { debugLines.push_back(line); });
    }
    void TearDown() override { SetDebugOutputSink(previousSink_); }

    RecordingEtwControl etw_;
    DebugOutputSink previousSink_ = nullptr;
};

TEST_F(ControllerFailureTest, EnablingFailureAtTheThirdProviderStopsTheSessionAgain) {
    etw_.failingEnable = 2;
    EXPECT_EQ(Controller::Timing().Start(), ULONG{ERROR_ACCESS_DENIED});
    EXPECT_THAT(etw_.calls, ElementsAre("Start logonmon_timing", "Enable", "Enable", "Enable",
                                        kClose, "Stop logonmon_timing"));
    EXPECT_THAT(debugLines, ElementsAre(L"LogonMonitor: EnableTraceEx2 "
                                        L"{30336ED4-E327-447C-9DE0-51B652C86108} failed, GLE=5"));
}

TEST_F(ControllerFailureTest, FailuresAreReturnedAndOnlyUnexpectedStartFailuresReported) {
    etw_.startResult = ERROR_ALREADY_EXISTS;
    EXPECT_EQ(Controller::Timing().Start(), ULONG{ERROR_ALREADY_EXISTS});
    etw_.startResult = ERROR_ACCESS_DENIED;
    EXPECT_EQ(Controller::Timing().Start(), ULONG{ERROR_ACCESS_DENIED});
    etw_.stopResult = ERROR_WMI_INSTANCE_NOT_FOUND;
    EXPECT_EQ(Controller::Timing().Stop(), ULONG{ERROR_WMI_INSTANCE_NOT_FOUND});

    EXPECT_THAT(etw_.calls, ElementsAre("Start logonmon_timing", "Start logonmon_timing",
                                        "Stop logonmon_timing"));
    EXPECT_THAT(debugLines, ElementsAre(L"LogonMonitor: Failed starting trace, GLE=5"));
}

}  // namespace
}  // namespace logonmon
