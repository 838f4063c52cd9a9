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

TEST(ControllerTest, StartAndStopPassTheBlockAndStartEnablesEveryProviderInOrder) {
    // The event-id filters (FilterIn, Reserved, Count, ids) of the providers that have one.
    const std::map<std::string, std::string> filters{
        {"{30336ED4-E327-447C-9DE0-51B652C86108}", " 010001008225"},  // 9602
        {"{7D7B0C39-93F6-4100-BD96-4DDA859652C5}", " 01000200e801e903"},
        {"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}", " 0100020001000200"},
    };
    const std::wstring longest = L"C:\\" + std::wstring(1020, L'p');  // 1,023 characters
    const struct {
        Controller session;
        std::string block;  // mode, name, file
        size_t providers;
    } cases[] = {
        {Controller::Timing(), "0x100 logonmon_timing -", 7},
        {Controller::Diagnostic(), "0x100 logonmon_diag_trace_rt -", 0},
        {Controller::DiagnosticFile(L"C:\\t\\boot.etl"),
         "0x0 logonmon_diag_trace_file C:\\t\\boot.etl", 23},
        {Controller::DiagnosticFile(longest),
         "0x0 logonmon_diag_trace_file " + Utf8FromWide(longest), 23},
    };
    for (const auto& c : cases) {
        RecordingEtwControl etw;
        ASSERT_EQ(c.session.Start(), 0u);
        ASSERT_EQ(c.session.Stop(), 0u);
        const std::string name = Utf8FromWide(c.session.SessionName());
        std::vector<std::string> calls{"Start " + name};
        calls.insert(calls.end(), c.providers, "Enable");
        calls.insert(calls.end(), {kClose, "Stop " + name});
        EXPECT_EQ(etw.calls, calls);
        // Start asks for the system-time clock (2), stop for none.
        EXPECT_THAT(etw.blocks,
                    ElementsAre("4216 0x20000 2 " + c.block, "4216 0x20000 0 " + c.block));
        ASSERT_EQ(etw.enables.size(), c.providers);
        for (size_t i = 0; i < c.providers; ++i) {
            const std::string provider =
                Utf8FromWide(GuidText(c.session.Providers()[i].providerId));
            EXPECT_EQ(etw.enables[i], provider + " 4 131" +
                                          (filters.contains(provider) ? filters.at(provider) : ""));
        }
    }
    EXPECT_EQ(GuidText(Controller::DiagnosticFile(L"x").Providers()[22].providerId),
              L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}");  // the process provider last
}

std::vector<std::wstring> debugLines;

TEST(ControllerTest, FailuresAreReturnedAndTheUnexpectedReported) {
    RecordingEtwControl etw;
    debugLines.clear();
    const DebugOutputSink previous =
        SetDebugOutputSink([](const wchar_t* line) { debugLines.push_back(line); });
    // What cannot be passed is refused without calling the system.
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

    // A provider that cannot be enabled stops the session again.
    etw.failingEnable = 2;
    EXPECT_EQ(Controller::Timing().Start(), ULONG{ERROR_ACCESS_DENIED});
    EXPECT_THAT(etw.calls, ElementsAre("Start logonmon_timing", "Enable", "Enable", "Enable",
                                       kClose, "Stop logonmon_timing"));
    etw.calls.clear();
    etw.startResult = ERROR_ALREADY_EXISTS;  // not reported: the caller decides
    EXPECT_EQ(Controller::Timing().Start(), ULONG{ERROR_ALREADY_EXISTS});
    etw.startResult = ERROR_ACCESS_DENIED;
    EXPECT_EQ(Controller::Timing().Start(), ULONG{ERROR_ACCESS_DENIED});
    etw.stopResult = ERROR_WMI_INSTANCE_NOT_FOUND;
    EXPECT_EQ(Controller::Timing().Stop(), ULONG{ERROR_WMI_INSTANCE_NOT_FOUND});
    EXPECT_THAT(etw.calls, ElementsAre("Start logonmon_timing", "Start logonmon_timing",
                                       "Stop logonmon_timing"));
    EXPECT_THAT(debugLines, ElementsAre(L"LogonMonitor: EnableTraceEx2 "
                                        L"{30336ED4-E327-447C-9DE0-51B652C86108} failed, GLE=5",
                                        L"LogonMonitor: Failed starting trace, GLE=5"));
    SetDebugOutputSink(previous);
}

}  // namespace
}  // namespace logonmon
