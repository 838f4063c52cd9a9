#include <gmock/gmock.h>

#include "tests/monitor/MonitorFixture.h"

namespace plmx::testing {
namespace {

using ::testing::Contains;

constexpr int kNever = -1;
constexpr size_t kNone = SIZE_MAX;
constexpr ULONG kIdle = ~0u;
constexpr char kStartFailed[] =
    "ERROR [LogonMonitor::RunRealTime] Failed to start timing trace session, err 5";

struct RealTimeCase {
    const char* name;
    uint32_t flags;
    ULONG startResult;     // of every StartTrace
    size_t failingEnable;  // index of the EnableTraceEx2 call that fails
    ULONG openError;
    ULONG firstProcessing;  // the timing consumer's first result; kIdle waits
    int stopAt;             // the timing consumer's ProcessTrace call that stops; 0 before the run
    const char* control;    // session starts and stops; T timing, D diagnostic
    size_t enables;
    const char* error;  // the one error line of the run
};

class RunRealTimeTest : public MonitorTest, public ::testing::WithParamInterface<RealTimeCase> {};

TEST_P(RunRealTimeTest, StartsConsumesAndStopsItsSessions) {
    const RealTimeCase& c = GetParam();
    control_.startResult = c.startResult;
    control_.failingEnable = c.failingEnable;
    consume_.openError = c.openError;
    const UniqueHandle stop(CreateEventW(nullptr, TRUE, c.stopAt == 0, nullptr));
    if (c.firstProcessing != kIdle) {
        consume_.Queue(L"logonmon_timing", {.result = c.firstProcessing});
    }
    if (c.stopAt > 0) {
        consume_.Queue(L"logonmon_timing",
                       {.untilClosed = true, .before = [&] { SetEvent(stop.Get()); }});
    }

    Monitor(c.flags)->RunRealTime(stop.Get());

    std::string control;
    for (const std::string& call : control_.calls) {
        if (call.starts_with("Start") || call.starts_with("Stop")) {
            control += (control.empty() ? "" : "|") + call.substr(0, call.find(' ') + 1) +
                       (call.ends_with("logonmon_timing") ? "T" : "D");
        }
    }
    EXPECT_EQ(control, c.control);
    EXPECT_EQ(control_.enables.size(), c.enables);
    EXPECT_EQ(Matching(MainLog(), "ERROR"), *c.error ? Lines{c.error} : Lines{});
}

const RealTimeCase kRealTimeCases[] = {
    // With the agent integration, the timing session outlives the monitor.
    {"AgentIntegration", FLAG_ENABLE_LOOM_INTEGRATION, 0, kNone, 0, kIdle, 1, "Start T", 7, ""},
    {"DiagnosticTraceStoppedAtOnce", FLAG_DIAGNOSTIC_SESSION, 0, kNone, 0, kIdle, 0,
     "Start T|Start D|Stop T|Stop D", 7 + 15, ""},
    {"ExistingSessionReused", 0, ERROR_ALREADY_EXISTS, kNone, 0, kIdle, 1, "Start T|Stop T", 0, ""},
    {"TimingCannotStart", 0, ERROR_ACCESS_DENIED, kNone, 0, kIdle, kNever, "Start T", 0,
     kStartFailed},
    // The timing runner is stopped and joined before the run returns.
    {"DiagnosticCannotStart", FLAG_ENABLE_PROCESS_TIMINGS, 0, 7, 0, kIdle, kNever,
     "Start T|Start D|Stop D|Stop T", 8, kStartFailed},
    {"ConsumerFailureEndsTheRun", 0, 0, kNone, 0, ERROR_NOACCESS, kNever, "Start T|Stop T", 7,
     "ERROR [TraceSessionRunner::Consume] Processing trace session logonmon_timing failed, err "
     "998"},
    {"SessionThatCannotBeOpenedEndsTheRun", 0, 0, kNone, ERROR_ACCESS_DENIED, kIdle, kNever,
     "Start T|Stop T", 7,
     "ERROR [TraceSessionRunner::Consume] Failed to open trace session logonmon_timing, err 5"},
};
INSTANTIATE_TEST_SUITE_P(Cases, RunRealTimeTest, ::testing::ValuesIn(kRealTimeCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(MonitorTest, RunFileFinishesEveryLogonOfTheTrace) {
    const std::wstring sample = PLMX_SAMPLES_DIR L"/fast_logon.etl";
    const std::string cannotOpen =
        "INFO [LogonMonitor::RunFile] The system cannot open trace file ";
    const std::string builtIn = "; reading it with the built-in trace reader and event schemas";
    const Lines missing = {cannotOpen + "C:\\t.etl, err 2" + builtIn,
                           "ERROR [LogonMonitor::RunFile] Failed to read trace file C:\\t.etl: "
                           "cannot open C:\\t.etl"};
    const Lines fallback = {cannotOpen + Narrow(sample) + ", err 5" + builtIn};
    const std::string builtInSummary =
        "INFO [Microsoft-Windows-Shell-Core] ****************** Session Summary (User=, "
        "sessionId=2) *****************";
    const struct {
        ULONG openError;
        const Lines& lines;          // the run's error and INFO [LogonMonitor::RunFile] lines
        std::string sessionSummary;  // of the one session log, if any
        std::wstring file = L"C:\\t.etl";
    } cases[] = {
        {ERROR_FILE_NOT_FOUND, missing, ""},
        // A trace the system cannot open is read by the built-in reader.
        {ERROR_ACCESS_DENIED, fallback, builtInSummary, sample},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Narrow(c.file) + " " + std::to_string(c.openError));
        const size_t before = MainLog().size();
        consume_.openError = c.openError;

        Monitor(0)->RunFile(c.file);

        Lines lines = Matching(MainLog(), "ERROR", before);
        const Lines info = Matching(MainLog(), "INFO [LogonMonitor::RunFile]", before);
        lines.insert(lines.begin(), info.begin(), info.end());
        EXPECT_EQ(lines, c.lines);
        const auto files = SessionLogFiles();
        ASSERT_EQ(files.size(), c.sessionSummary.empty() ? 0u : 1u);
        if (!files.empty()) {
            EXPECT_THAT(Tagged(ReadLines(folder_.Path() + files[0])), Contains(c.sessionSummary));
        }
    }
}

// A token of another user must never carry the session's upload.
TEST_F(MonitorTest, ATokenOfAnotherUserIsDropped) {
    const size_t before = MainLog().size();
    std::wstring userName;
    AccessToken token;
    EXPECT_FALSE(Monitor(0)->TryGetUserToken(3, logonmon::Sid::FromString(L"S-1-5-21-1-2-3-1000"),
                                             userName, token, 0));
    EXPECT_FALSE(token);
    const Lines errors = Matching(MainLog(), "ERROR", before);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_THAT(errors[0], ::testing::EndsWith("due to SID mismatch. sessionId=3"));
}

}  // namespace
}  // namespace plmx::testing
