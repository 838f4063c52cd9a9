#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "tests/monitor/MonitorFixture.h"
#include "trace/UniqueHandle.h"

namespace plmx::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Lines = std::vector<std::string>;

constexpr char kTiming[] = "logonmon_timing";
constexpr char kDiagnostic[] = "logonmon_diag_trace_rt";
constexpr int kNever = -1;

std::string Start(const char* session) {
    return std::string("Start ") + session;
}
std::string Stop(const char* session) {
    return std::string("Stop ") + session;
}
std::string Close(const char* session) {
    return std::string("Close ") + session;
}

Lines Matching(const Lines& lines, const std::string& prefix) {
    Lines found;
    for (const std::string& line : lines) {
        if (line.starts_with(prefix)) {
            found.push_back(line);
        }
    }
    return found;
}

Lines SessionControl(const std::vector<std::string>& calls) {
    Lines found;
    for (const std::string& call : calls) {
        if (call.starts_with("Start ") || call.starts_with("Stop ")) {
            found.push_back(call);
        }
    }
    return found;
}

struct RealTimeCase {
    const char* name = nullptr;
    uint32_t flags = 0;
    ULONG startResult = ERROR_SUCCESS;
    size_t failingEnable = SIZE_MAX;
    ULONG openError = 0;
    std::vector<ConsumeScript> timingScripts{};
    // Signal the stop event once this many ProcessTrace calls began; 0: before
    // the run, kNever: the run must end by itself.
    int stopAfterProcessing = 1;
    Lines control{};
    size_t enables = 7;
    // What the consumer closed, when that does not depend on thread timing.
    std::optional<Lines> closes{};
    Lines errors{};
};

void PrintTo(const RealTimeCase& c, std::ostream* out) {
    *out << c.name;
}

class RunRealTimeTest : public MonitorTest, public ::testing::WithParamInterface<RealTimeCase> {};

TEST_P(RunRealTimeTest, StartsConsumesAndStopsItsSessions) {
    const RealTimeCase& c = GetParam();
    control_.startResult = c.startResult;
    control_.failingEnable = c.failingEnable;
    consume_.openError = c.openError;
    for (const ConsumeScript& script : c.timingScripts) {
        consume_.Queue(L"logonmon_timing", script);
    }
    const UniqueHandle stop(CreateEventW(nullptr, TRUE, c.stopAfterProcessing == 0, nullptr));
    consume_.onProcessing = [&](int processing) {
        if (processing == c.stopAfterProcessing) {
            SetEvent(stop.Get());
        }
    };

    Monitor(c.flags)->RunRealTime(stop.Get());

    EXPECT_EQ(SessionControl(control_.calls), c.control);
    EXPECT_EQ(control_.enables.size(), c.enables);
    if (c.closes) {
        EXPECT_EQ(Matching(consume_.Calls(), "Close "), *c.closes);
    }
    EXPECT_EQ(consume_.OpenHandles(), 0u);
    EXPECT_EQ(Matching(MainLog(), "ERROR"), c.errors);
}

const char kStartFailed[] =
    "ERROR [LogonMonitor::RunRealTime] Failed to start timing trace session, err 5";

INSTANTIATE_TEST_SUITE_P(
    Cases, RunRealTimeTest,
    ::testing::Values(
        RealTimeCase{.name = "TimingSessionOnly",
                     .control = {Start(kTiming), Stop(kTiming)},
                     .closes = Lines{Close(kTiming)}},
        RealTimeCase{.name = "AgentIntegrationLeavesTheTimingSessionRunning",
                     .flags = FLAG_ENABLE_LOOM_INTEGRATION,
                     .control = {Start(kTiming)},
                     .closes = Lines{Close(kTiming)}},
        RealTimeCase{
            .name = "ProcessTimingsAddTheDiagnosticSession",
            .flags = FLAG_ENABLE_PROCESS_TIMINGS,
            .stopAfterProcessing = 2,
            .control = {Start(kTiming), Start(kDiagnostic), Stop(kTiming), Stop(kDiagnostic)},
            .enables = 7 + 1,
            .closes = Lines{Close(kTiming), Close(kDiagnostic)}},
        RealTimeCase{
            .name = "DiagnosticTraceAddsTheDiagnosticSession",
            .flags = FLAG_DIAGNOSTIC_SESSION,
            .stopAfterProcessing = 2,
            .control = {Start(kTiming), Start(kDiagnostic), Stop(kTiming), Stop(kDiagnostic)},
            .enables = 7 + 15,
            .closes = Lines{Close(kTiming), Close(kDiagnostic)}},
        RealTimeCase{.name = "ExistingSessionIsReused",
                     .startResult = ERROR_ALREADY_EXISTS,
                     .control = {Start(kTiming), Stop(kTiming)},
                     .enables = 0,
                     .closes = Lines{Close(kTiming)}},
        RealTimeCase{.name = "StopBeforeAnyEvent",
                     .stopAfterProcessing = 0,
                     .control = {Start(kTiming), Stop(kTiming)}},
        RealTimeCase{.name = "TimingSessionThatCannotStartEndsTheRun",
                     .startResult = ERROR_ACCESS_DENIED,
                     .stopAfterProcessing = kNever,
                     .control = {Start(kTiming)},
                     .enables = 0,
                     .closes = Lines{},
                     .errors = {kStartFailed}},
        // The timing runner is stopped and joined before the run ends.
        RealTimeCase{
            .name = "DiagnosticSessionThatCannotStartStopsTheTimingRunner",
            .flags = FLAG_ENABLE_PROCESS_TIMINGS,
            .failingEnable = 7,
            .stopAfterProcessing = kNever,
            .control = {Start(kTiming), Start(kDiagnostic), Stop(kDiagnostic), Stop(kTiming)},
            .enables = 8,
            .errors = {kStartFailed}},
        RealTimeCase{.name = "ConsumerThatEndsByItselfIsRestarted",
                     .timingScripts = {ConsumeScript{}},
                     .stopAfterProcessing = 2,
                     .control = {Start(kTiming), Start(kTiming), Stop(kTiming)},
                     .enables = 14,
                     .closes = Lines{Close(kTiming), Close(kTiming)}},
        RealTimeCase{.name = "ConsumerThatFailsEndsTheRun",
                     .timingScripts = {ConsumeScript{.result = ERROR_NOACCESS}},
                     .stopAfterProcessing = kNever,
                     .control = {Start(kTiming), Stop(kTiming)},
                     .closes = Lines{Close(kTiming)},
                     .errors = {"ERROR [TraceSessionRunner::Consume] Processing trace session "
                                "logonmon_timing failed, err 998"}},
        RealTimeCase{.name = "SessionThatCannotBeOpenedEndsTheRun",
                     .openError = ERROR_ACCESS_DENIED,
                     .stopAfterProcessing = kNever,
                     .control = {Start(kTiming), Stop(kTiming)},
                     .closes = Lines{},
                     .errors = {"ERROR [TraceSessionRunner::Consume] Failed to open trace "
                                "session logonmon_timing, err 5"}}),
    [](const auto& info) { return std::string(info.param.name); });

constexpr uint32_t kFailingThread = 0xBAD;

// Fails the decoding of events written on one thread.
class TdhFailingOnOneThread final : public FakeTdh {
  public:
    uint32_t GetPropertySize(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                             uint32_t* size) override {
        return event.EventHeader.ThreadId == kFailingThread
                   ? ERROR_INVALID_PARAMETER
                   : FakeTdh::GetPropertySize(event, descriptor, size);
    }
};

// Alice's logon up to the shell's start, whose initialisation never comes.
std::vector<TestEvent> LogonWithoutShell(uint32_t session) {
    return {CreateSession(session, kAliceSid, kMorning),
            Login(session, kAliceSid, kMorning + kSecond),
            NotifyStart(kStartShell, session, kMorning + 20 * kSecond),
            NotifyStop(kStartShell, session, kMorning + 21 * kSecond)};
}

std::vector<TestEvent> Concat(std::vector<TestEvent> first, const std::vector<TestEvent>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

TEST_F(MonitorTest, RunFileFinishesEveryLogonOfTheTrace) {
    TdhFailingOnOneThread tdh;
    logonmon::ScopedTdhBinding failingTdh(tdh);
    accounts_.accounts[kAliceSid] = {L"CORP", L"alice"};
    TestEvent failing = SubscriberEvent(811, 1, kLogin, L"GPClient", 2, kMorning + 2 * kSecond);
    failing.thread = kFailingThread;
    const std::string summary =
        "INFO [logonmon::LogonProcessor::LogSummary] ****************** Session Summary "
        "(User=alice, sessionId=2) *****************";
    struct Case {
        const char* name;
        ConsumeScript script;
        ULONG openError;
        Lines errors;
        // In the one session log, when there is one.
        Lines sessionLines;
    };
    const std::string shellInitialized =
        "INFO [logonmon::LogonProcessor::Explorer_Initialized] Shell Initialized";
    const Case cases[] = {
        {"last logon never completes", {LogonWithoutShell(2)}, 0, {}, {summary}},
        {"event that throws is dropped alone",
         {Concat(LogonWithoutShell(2), {failing, ShellInitialized(2, kMorning + 30 * kSecond)})},
         0,
         {"ERROR [LogonMonitor::PreHandleEventRecord] Exception: GetValue failed"},
         {shellInitialized, summary}},
        {"reader out of memory",
         {LogonWithoutShell(2), false, ERROR_SUCCESS, true},
         0,
         {"ERROR [LogonMonitor::RunFile] LogonMonitor out of memory."},
         {summary}},
        {"unreadable file",
         {},
         ERROR_FILE_NOT_FOUND,
         {"ERROR [LogonMonitor::RunFile] Failed to open trace file C:\\t.etl, err 2"},
         {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (const std::wstring& name : SessionLogFiles()) {
            DeleteFileW((folder_.Path() + name).c_str());
        }
        const size_t mainLogBefore = MainLog().size();
        consume_.openError = c.openError;
        consume_.Queue(L"C:\\t.etl", c.script);

        Monitor(0)->RunFile(L"C:\\t.etl");

        const Lines mainLog = MainLog();
        EXPECT_EQ(Matching(Lines(mainLog.begin() + mainLogBefore, mainLog.end()), "ERROR"),
                  c.errors);
        const auto sessionLogs = SessionLogFiles();
        ASSERT_EQ(sessionLogs.size(), c.sessionLines.empty() ? 0u : 1u);
        for (const std::string& line : c.sessionLines) {
            EXPECT_THAT(SessionLog(sessionLogs[0]), Contains(line));
        }
    }
}

TEST_F(MonitorTest, TryGetUserTokenWaitsForTheTokenOfTheSessionsUser) {
    const std::wstring ownSid = ProcessUserSid();
    accounts_.accounts[ownSid] = {L"CORP", L"alice"};
    const std::string noToken =
        "ERROR [LogonMonitor::TryGetUserToken] Failed to get user token, ERROR_NO_TOKEN.  "
        "Timeout/retry elapsed.  sessionId=3";
    const std::string mismatch = " due to SID mismatch. sessionId=3";
    struct Case {
        const char* name;
        std::vector<DWORD> answers;
        uint32_t timeoutMs;
        std::optional<std::wstring> sessionSid;
        std::wstring userName;
        bool got;
        int sleeps;
        std::wstring userNameAfter;
        Lines errors;  // a line ending in `mismatch` stands for the SID mismatch line
    };
    const Case cases[] = {
        {"token at once", {0}, 0, ownSid, L"", true, 0, L"CORP\\alice", {}},
        {"known name kept", {0}, 0, ownSid, L"X\\bob", true, 0, L"X\\bob", {}},
        {"token on the third try",
         {ERROR_NO_TOKEN, ERROR_NO_TOKEN, 0},
         5000,
         ownSid,
         L"",
         true,
         2,
         L"CORP\\alice",
         {}},
        {"no time-out: one more try", {ERROR_NO_TOKEN}, 0, ownSid, L"", false, 1, L"", {noToken}},
        {"time-out of 5 s", {ERROR_NO_TOKEN}, 5000, ownSid, L"", false, 21, L"", {noToken}},
        {"other failure",
         {ERROR_ACCESS_DENIED},
         5000,
         ownSid,
         L"",
         false,
         0,
         L"",
         {"ERROR [LogonMonitor::TryGetUserToken] Failed to get user token, error 5.  sessionId=3",
          mismatch}},
        {"token of another user", {0}, 0, std::wstring(kAliceSid), L"", false, 0, L"", {mismatch}},
        {"session user not known yet", {0}, 0, std::nullopt, L"", false, 0, L"", {mismatch}},
    };
    const auto monitor = Monitor(0);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        tokens_.answers = c.answers;
        tokens_.queriedSessions.clear();
        tokens_.sleeps = 0;
        const size_t before = MainLog().size();
        std::wstring userName = c.userName;
        AccessToken token;
        const auto sid = c.sessionSid ? logonmon::Sid::FromString(*c.sessionSid)
                                      : std::optional<logonmon::Sid>();

        EXPECT_EQ(monitor->TryGetUserToken(3, sid, userName, token, c.timeoutMs), c.got);

        EXPECT_EQ(static_cast<bool>(token), c.got);
        EXPECT_EQ(tokens_.sleeps, c.sleeps);
        EXPECT_EQ(userName, c.userNameAfter);
        const Lines lines = MainLog();
        const Lines errors = Matching(Lines(lines.begin() + before, lines.end()), "ERROR");
        ASSERT_EQ(errors.size(), c.errors.size());
        for (size_t i = 0; i < errors.size(); ++i) {
            EXPECT_THAT(errors[i], HasSubstr(c.errors[i]));
        }
        if (c.got) {
            EXPECT_THAT(
                lines.back(),
                ::testing::StartsWith("TRACE [LogonMonitor::TryGetUserToken] Token AuthId: (0x"));
        }
    }
}

TEST_F(MonitorTest, LogFormattedMapsTraceLevelsAndPassesOthersAsMasks) {
    Settings::Instance().LogLevel = LOG_LEVEL_INFO | LOG_LEVEL_TRACE;
    const auto monitor = Monitor(0);
    const size_t before = MainLog().size();
    for (const uint32_t level : {2u, 4u, 5u, 3u, 1u, 8u, 16u}) {
        monitor->LogFormatted(level, L"f", "level %d", static_cast<int>(level));
    }
    const Lines lines = MainLog();
    EXPECT_THAT(Lines(lines.begin() + before, lines.end()),
                ElementsAreArray<std::string>({"INFO [f] level 4", "TRACE [f] level 5",
                                               "ERROR [f] level 3", "TRACE [f] level 8"}));
}

}  // namespace
}  // namespace plmx::testing
