#include "trace/Controller.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using testing::RecordingEtwControl;

constexpr ULONG kEnableProperty = 0x83;

struct ExpectedProvider {
    const wchar_t* id;
    std::vector<uint16_t> eventIds;
};

const std::vector<ExpectedProvider> kTiming{
    {L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}", {}},
    {L"{AEA1B4FA-97D1-45F2-A64C-4D69FFFD92C9}", {}},
    {L"{30336ED4-E327-447C-9DE0-51B652C86108}", {9602}},
    {L"{89B1E9F0-5AFF-44A6-9B44-0A07A7CE5845}", {}},
    {L"{5D896912-022D-40AA-A3A8-4FA5515C76D7}", {}},
    {L"{7D7B0C39-93F6-4100-BD96-4DDA859652C5}", {488, 1001}},
    {L"{0D5380E5-A6BA-4CFC-B31E-484C775E4DB9}", {}},
};
const std::vector<ExpectedProvider> kProcess{
    {L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}", {1, 2}},
};
const std::vector<const wchar_t*> kDiagnosticIds{
    L"{DB00DFB6-29F9-4A9C-9B3B-1F4F9E7D9770}", L"{397B9505-A6BA-5951-46EE-84B08FB14812}",
    L"{B39B8CEA-EAAA-5A74-5794-4948E222C663}", L"{E5D3F7AD-54A2-404D-B50B-BF41C40D6CAB}",
    L"{59DE359D-EC83-445C-9323-B75E2056D5A5}", L"{C6FDD8E3-770B-4964-9F0C-227457146B49}",
    L"{9891E0A7-F966-547F-EB21-D98616BF72EE}", L"{9959ADBD-B5AC-5758-3FFA-EE0DA5B8FE4B}",
    L"{C1DF9318-DA0B-4CD1-92BF-59415E6454F7}", L"{6FC72ED3-75DA-4BC4-8365-C4228CEAEDFE}",
    L"{966AFB4E-A7EF-5EB7-5E31-38C352CA38B9}", L"{5283D5F6-65B5-425F-A30B-F16C057D6B57}",
    L"{59DE359D-EC83-445C-9323-B75E2056D5A5}", L"{C000E9AE-71F9-426E-A1C2-C78FF53284BF}",
    L"{0B9B891E-FF74-49AC-A582-4C58BDF12D8B}", L"{E8316A2D-0D94-4F52-85DD-1E15B66C5891}",
};

std::vector<std::wstring> Ids(const std::vector<TraceProvider>& providers) {
    std::vector<std::wstring> ids;
    for (const TraceProvider& provider : providers) {
        ids.push_back(GuidText(provider.providerId));
    }
    return ids;
}

// The file session of the boot-time trace: every list merged in.
Controller FileSession(const std::wstring& path) {
    Controller session = Controller::Diagnostic();
    session.SwitchToFile(path);
    session.AddTimingProviders();
    session.AddDiagnosticProviders();
    session.AddProcessProviders();
    return session;
}

TraceProvider Provider(uint32_t data1, uint32_t enableProperty, uint32_t level,
                       std::vector<uint16_t> eventIds) {
    return TraceProvider{{data1, 0, 0, {}}, enableProperty, level, std::move(eventIds)};
}

TEST(ProviderListsTest, HoldTheLogonProvidersWithSidSessionAndStartKeyAtInformationLevel) {
    const auto check = [](const std::vector<TraceProvider>& list,
                          const std::vector<ExpectedProvider>& expected) {
        ASSERT_EQ(list.size(), expected.size());
        for (size_t i = 0; i < list.size(); ++i) {
            EXPECT_EQ(GuidText(list[i].providerId), expected[i].id);
            EXPECT_EQ(list[i].eventIds, expected[i].eventIds) << i;
            EXPECT_EQ(list[i].enableProperty, kEnableProperty);
            EXPECT_EQ(list[i].level, 4u);
        }
    };
    check(TimingProviders(), kTiming);
    check(ProcessProviders(), kProcess);
    std::vector<ExpectedProvider> diagnostic;
    for (const wchar_t* id : kDiagnosticIds) {
        diagnostic.push_back({id, {}});
    }
    check(DiagnosticProviders(), diagnostic);
}

TEST(ControllerTest, ConstructorsAndFileModeDescribeTheThreeSessions) {
    const Controller timing = Controller::Timing();
    EXPECT_EQ(timing.SessionName(), L"logonmon_timing");
    EXPECT_EQ(timing.LogFileMode(), 0x100u);
    EXPECT_EQ(Ids(timing.Providers()), Ids(TimingProviders()));

    Controller session = Controller::Diagnostic();
    EXPECT_EQ(session.SessionName(), L"logonmon_diag_trace_rt");
    EXPECT_EQ(session.LogFileMode(), 0x100u);
    EXPECT_THAT(session.Providers(), IsEmpty());

    session.SwitchToFile(L"C:\\t.etl");
    EXPECT_EQ(session.SessionName(), L"logonmon_diag_trace_file");
    EXPECT_EQ(session.LogFileMode(), 0u);
    EXPECT_EQ(session.LogFileName(), L"C:\\t.etl");
    session.SwitchToFile(L"");
    EXPECT_EQ(session.LogFileName(), L"C:\\t.etl");

    for (const Controller& c : {timing, session}) {
        EXPECT_EQ(c.FlushTimer(), 0u);
        EXPECT_EQ(c.MaximumFileSize(), 0u);
    }
}

TEST(ControllerTest, MergingFoldsAProviderIntoOneEntry) {
    struct Case {
        const char* name;
        TraceProvider present;
        TraceProvider added;
        TraceProvider merged;
    };
    const Case cases[] = {
        {"new ids are appended", Provider(1, 0x1, 4, {1001}), Provider(1, 0x1, 4, {488}),
         Provider(1, 0x1, 4, {1001, 488})},
        {"known ids are not repeated", Provider(1, 0x1, 4, {1, 2}), Provider(1, 0x1, 4, {2, 3}),
         Provider(1, 0x1, 4, {1, 2, 3})},
        {"an entry without ids removes the filter", Provider(1, 0x1, 4, {1001}),
         Provider(1, 0x1, 4, {}), Provider(1, 0x1, 4, {})},
        {"all events stay all events", Provider(1, 0x1, 4, {}), Provider(1, 0x1, 4, {488}),
         Provider(1, 0x1, 4, {})},
        {"properties are ORed, the larger level kept", Provider(1, 0x81, 2, {}),
         Provider(1, 0x2, 5, {}), Provider(1, 0x83, 5, {})},
        {"a smaller level does not lower it", Provider(1, 0x1, 5, {}), Provider(1, 0x1, 2, {}),
         Provider(1, 0x1, 5, {})},
    };
    for (const Case& c : cases) {
        Controller session;
        session.AddProviders({c.present, Provider(2, 0x1, 4, {7})});
        session.AddProviders({c.added});
        ASSERT_EQ(session.Providers().size(), 2u) << c.name;
        const TraceProvider& merged = session.Providers()[0];
        EXPECT_EQ(merged.enableProperty, c.merged.enableProperty) << c.name;
        EXPECT_EQ(merged.level, c.merged.level) << c.name;
        EXPECT_EQ(merged.eventIds, c.merged.eventIds) << c.name;
        EXPECT_EQ(session.Providers()[1].eventIds, std::vector<uint16_t>{7}) << c.name;
    }
}

TEST(ControllerTest, FileSessionHasTwentyThreeDistinctProvidersInListOrder) {
    std::vector<std::wstring> expected;
    for (const ExpectedProvider& p : kTiming) {
        expected.push_back(p.id);
    }
    for (size_t i = 0; i < kDiagnosticIds.size(); ++i) {
        if (i != 12) {  // the duplicate
            expected.push_back(kDiagnosticIds[i]);
        }
    }
    expected.push_back(kProcess[0].id);

    const Controller session = FileSession(L"C:\\t.etl");
    EXPECT_THAT(Ids(session.Providers()), ElementsAreArray(expected));
    EXPECT_EQ(session.Providers()[5].eventIds, (std::vector<uint16_t>{488, 1001}));
    EXPECT_EQ(session.Providers()[22].eventIds, (std::vector<uint16_t>{1, 2}));
}

// The properties block as the system reads it: EVENT_TRACE_PROPERTIES (x64)
// with the session name at byte 120 and the log file name 2,048 bytes later.
class ExpectedBlock {
  public:
    ExpectedBlock(const std::wstring& sessionName, const std::wstring& logFileName,
                  uint32_t logFileMode, bool systemTimeClock) {
        Put32(0, 4216);          // Wnode.BufferSize
        Put32(44, 0x20000);      // Wnode.Flags: WNODE_FLAG_TRACED_GUID
        Put32(64, logFileMode);  // LogFileMode
        Put32(116, 120);         // LoggerNameOffset
        PutText(120, sessionName);
        if (systemTimeClock) {
            Put32(40, 2);  // Wnode.ClientContext
        }
        if (!logFileName.empty()) {
            Put32(112, 2168);  // LogFileNameOffset
            PutText(2168, logFileName);
        }
    }
    const std::vector<uint8_t>& Bytes() const { return bytes_; }

  private:
    void Put32(size_t offset, uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            bytes_[offset + i] = static_cast<uint8_t>(value >> (8 * i));
        }
    }
    void PutText(size_t offset, const std::wstring& text) {
        for (wchar_t c : text) {
            bytes_[offset++] = static_cast<uint8_t>(c & 0xFF);
            bytes_[offset++] = static_cast<uint8_t>(c >> 8);
        }
    }
    std::vector<uint8_t> bytes_ = std::vector<uint8_t>(4216);
};

TEST(ControllerTest, StartAndStopPassThePropertiesBlockByteForByte) {
    const std::wstring longestPath = L"C:\\" + std::wstring(1020, L'p');  // 1,023 characters
    struct Case {
        const char* name;
        Controller session;
        const wchar_t* logFileName;
        uint32_t logFileMode;
    };
    const Case cases[] = {
        {"real-time session", Controller::Timing(), L"", 0x100},
        {"file session", FileSession(L"C:\\trace\\boot.etl"), L"C:\\trace\\boot.etl", 0},
        {"longest file name", FileSession(longestPath), longestPath.c_str(), 0},
    };
    for (const Case& c : cases) {
        RecordingEtwControl etw;
        ASSERT_EQ(c.session.Start(), 0u) << c.name;
        EXPECT_EQ(etw.startedName, c.session.SessionName()) << c.name;
        EXPECT_EQ(
            etw.startProperties,
            ExpectedBlock(c.session.SessionName(), c.logFileName, c.logFileMode, true).Bytes())
            << c.name;

        ASSERT_EQ(c.session.Stop(), 0u) << c.name;
        ASSERT_EQ(etw.controls.size(), 1u) << c.name;
        EXPECT_EQ(etw.controls[0].handle, 0u) << c.name;
        EXPECT_EQ(etw.controls[0].sessionName, c.session.SessionName()) << c.name;
        EXPECT_EQ(etw.controls[0].controlCode, static_cast<ULONG>(EVENT_TRACE_CONTROL_STOP));
        EXPECT_EQ(
            etw.controls[0].properties,
            ExpectedBlock(c.session.SessionName(), c.logFileName, c.logFileMode, false).Bytes())
            << c.name;
    }
}

TEST(ControllerTest, RefusesWhatCannotBePassedWithoutCallingTheSystem) {
    RecordingEtwControl etw;
    const Controller unnamed;
    EXPECT_EQ(unnamed.Start(), 87u);
    EXPECT_EQ(unnamed.Stop(), 87u);
    EXPECT_EQ(Controller::Timing().EnableProviders(0), 87u);

    const Controller tooLong = FileSession(L"C:\\" + std::wstring(1021, L'p'));
    for (auto operation : {&Controller::Start, &Controller::Stop}) {
        try {
            (tooLong.*operation)();
            ADD_FAILURE() << "no exception";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "file name string too long");
        }
    }
    EXPECT_THAT(etw.calls, IsEmpty());
}

TEST(ControllerTest, EnablesEveryProviderInOrderWithItsPropertiesAndEventIdFilter) {
    RecordingEtwControl etw;
    const Controller session = FileSession(L"C:\\t.etl");
    ASSERT_EQ(session.Start(), 0u);

    std::vector<std::string> expectedCalls{"Start"};
    expectedCalls.insert(expectedCalls.end(), 23, "Enable");
    expectedCalls.push_back("Close");
    EXPECT_EQ(etw.calls, expectedCalls);
    EXPECT_THAT(etw.closed, ElementsAre(RecordingEtwControl::kSessionHandle));

    ASSERT_EQ(etw.enables.size(), 23u);
    for (size_t i = 0; i < etw.enables.size(); ++i) {
        const testing::EnableCall& call = etw.enables[i];
        const TraceProvider& provider = session.Providers()[i];
        EXPECT_EQ(call.handle, RecordingEtwControl::kSessionHandle);
        EXPECT_EQ(GuidText(call.providerId), GuidText(provider.providerId));
        EXPECT_EQ(call.controlCode, 1u);  // EVENT_CONTROL_CODE_ENABLE_PROVIDER
        EXPECT_EQ(call.level, 4);
        EXPECT_EQ(call.matchAnyKeyword, 0u);
        EXPECT_EQ(call.matchAllKeyword, 0u);
        EXPECT_EQ(call.timeout, 0u);
        EXPECT_EQ(call.parameters.Version, 2u);
        EXPECT_EQ(call.parameters.EnableProperty, kEnableProperty);
        EXPECT_EQ(call.parameters.ControlFlags, 0u);
        EXPECT_EQ(call.parameters.FilterDescCount, provider.eventIds.empty() ? 0u : 1u) << i;
    }

    // EVENT_FILTER_EVENT_ID: FilterIn, Reserved, Count, the ids in list order.
    const struct {
        size_t index;
        std::vector<uint8_t> filter;
    } filtered[] = {
        {2, {1, 0, 1, 0, 0x82, 0x25}},
        {5, {1, 0, 2, 0, 0xE8, 0x01, 0xE9, 0x03}},
        {22, {1, 0, 2, 0, 0x01, 0x00, 0x02, 0x00}},
    };
    for (const auto& f : filtered) {
        const testing::EnableCall& call = etw.enables[f.index];
        EXPECT_EQ(call.filter.Type, 0x80000200u);  // EVENT_FILTER_TYPE_EVENT_ID
        EXPECT_EQ(call.filter.Size, f.filter.size());
        EXPECT_EQ(call.filterData, f.filter) << f.index;
    }
}

TEST(ControllerTest, PassesOnlyTheLowByteOfTheLevel) {
    RecordingEtwControl etw;
    Controller session = Controller::Diagnostic();
    session.AddProviders({Provider(1, 0x1, 0x105, {})});
    ASSERT_EQ(session.Start(), 0u);
    ASSERT_EQ(etw.enables.size(), 1u);
    EXPECT_EQ(etw.enables[0].level, 5);
}

std::vector<std::wstring> debugLines;
void RecordDebugLine(const wchar_t* line) {
    debugLines.push_back(line);
}

class ControllerFailureTest : public ::testing::Test {
  protected:
    void SetUp() override {
        debugLines.clear();
        previousSink_ = SetDebugOutputSink(RecordDebugLine);
    }
    void TearDown() override { SetDebugOutputSink(previousSink_); }

    RecordingEtwControl etw_;

  private:
    DebugOutputSink previousSink_ = nullptr;
};

TEST_F(ControllerFailureTest, EnablingFailureAtTheThirdProviderStopsTheSessionAgain) {
    etw_.failingEnable = 2;
    etw_.enableFailure = ERROR_ACCESS_DENIED;
    const Controller session = Controller::Timing();

    EXPECT_EQ(session.Start(), static_cast<ULONG>(ERROR_ACCESS_DENIED));
    EXPECT_THAT(etw_.calls, ElementsAre("Start", "Enable", "Enable", "Enable", "Close", "Control"));
    ASSERT_EQ(etw_.controls.size(), 1u);
    EXPECT_EQ(etw_.controls[0].sessionName, L"logonmon_timing");
    EXPECT_EQ(etw_.controls[0].controlCode, static_cast<ULONG>(EVENT_TRACE_CONTROL_STOP));
    EXPECT_THAT(debugLines, ElementsAre(L"LogonMonitor: EnableTraceEx2 "
                                        L"{30336ED4-E327-447C-9DE0-51B652C86108} failed, GLE=5"));
}

TEST_F(ControllerFailureTest, StartFailuresAreReturnedAndOnlyUnexpectedOnesReported) {
    etw_.startResult = ERROR_ALREADY_EXISTS;
    EXPECT_EQ(Controller::Timing().Start(), static_cast<ULONG>(ERROR_ALREADY_EXISTS));
    EXPECT_THAT(etw_.calls, ElementsAre("Start"));
    EXPECT_THAT(debugLines, IsEmpty());

    etw_.startResult = ERROR_ACCESS_DENIED;
    EXPECT_EQ(Controller::Timing().Start(), static_cast<ULONG>(ERROR_ACCESS_DENIED));
    EXPECT_THAT(etw_.calls, ElementsAre("Start", "Start"));
    EXPECT_THAT(debugLines, ElementsAre(L"LogonMonitor: Failed starting trace, GLE=5"));
}

TEST_F(ControllerFailureTest, StopReturnsTheSystemResult) {
    etw_.controlResult = ERROR_WMI_INSTANCE_NOT_FOUND;
    EXPECT_EQ(Controller::Timing().Stop(), static_cast<ULONG>(ERROR_WMI_INSTANCE_NOT_FOUND));
    EXPECT_THAT(debugLines, IsEmpty());
}

}  // namespace
}  // namespace logonmon
