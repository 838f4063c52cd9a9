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

// The timing list, the diagnostic list without its repeated entry, the
// process provider.
const std::vector<std::wstring> kFileSessionIds{
    L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}", L"{AEA1B4FA-97D1-45F2-A64C-4D69FFFD92C9}",
    L"{30336ED4-E327-447C-9DE0-51B652C86108}", L"{89B1E9F0-5AFF-44A6-9B44-0A07A7CE5845}",
    L"{5D896912-022D-40AA-A3A8-4FA5515C76D7}", L"{7D7B0C39-93F6-4100-BD96-4DDA859652C5}",
    L"{0D5380E5-A6BA-4CFC-B31E-484C775E4DB9}", L"{DB00DFB6-29F9-4A9C-9B3B-1F4F9E7D9770}",
    L"{397B9505-A6BA-5951-46EE-84B08FB14812}", L"{B39B8CEA-EAAA-5A74-5794-4948E222C663}",
    L"{E5D3F7AD-54A2-404D-B50B-BF41C40D6CAB}", L"{59DE359D-EC83-445C-9323-B75E2056D5A5}",
    L"{C6FDD8E3-770B-4964-9F0C-227457146B49}", L"{9891E0A7-F966-547F-EB21-D98616BF72EE}",
    L"{9959ADBD-B5AC-5758-3FFA-EE0DA5B8FE4B}", L"{C1DF9318-DA0B-4CD1-92BF-59415E6454F7}",
    L"{6FC72ED3-75DA-4BC4-8365-C4228CEAEDFE}", L"{966AFB4E-A7EF-5EB7-5E31-38C352CA38B9}",
    L"{5283D5F6-65B5-425F-A30B-F16C057D6B57}", L"{C000E9AE-71F9-426E-A1C2-C78FF53284BF}",
    L"{0B9B891E-FF74-49AC-A582-4C58BDF12D8B}", L"{E8316A2D-0D94-4F52-85DD-1E15B66C5891}",
    L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}",
};
// The EVENT_FILTER_EVENT_ID by index above: FilterIn, Reserved, Count, ids.
const std::map<size_t, std::vector<uint8_t>> kEventIdFilters{
    {2, {1, 0, 1, 0, 0x82, 0x25}},               // 9602
    {5, {1, 0, 2, 0, 0xE8, 0x01, 0xE9, 0x03}},   // 488, 1001
    {22, {1, 0, 2, 0, 0x01, 0x00, 0x02, 0x00}},  // 1, 2
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
        size_t providers;  // the first ones of the file session
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

        for (size_t i = 0; i < etw.enables.size(); ++i) {
            const testing::EnableCall& call = etw.enables[i];
            EXPECT_EQ(call.handle, RecordingEtwControl::kSessionHandle);
            EXPECT_EQ(GuidText(call.providerId), kFileSessionIds[i]);
            EXPECT_EQ(call.controlCode, 1u);  // EVENT_CONTROL_CODE_ENABLE_PROVIDER
            EXPECT_EQ(call.level, 4);
            EXPECT_EQ(call.keywordsAndTimeout, 0u);
            EXPECT_EQ(call.parameters.Version, 2u);
            EXPECT_EQ(call.parameters.EnableProperty, 0x83u);
            const auto filter = kEventIdFilters.find(i);
            const bool filtered = filter != kEventIdFilters.end();
            EXPECT_EQ(call.parameters.FilterDescCount, filtered ? 1u : 0u) << i;
            EXPECT_EQ(call.filter, filtered ? filter->second : std::vector<uint8_t>{}) << i;
            EXPECT_EQ(call.filterType, filtered ? 0x80000200u : 0u);  // EVENT_FILTER_TYPE_EVENT_ID
        }
    }
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
