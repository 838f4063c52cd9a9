#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "log/LogWriter.h"
#include "tests/monitor/MonitorFixture.h"

namespace plmx::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

constexpr int kNever = -1;
constexpr ULONG kIdle = ~0u;

struct RealTimeCase {
    const char* name;
    uint32_t flags;
    ULONG startResult;     // of every StartTrace
    size_t failingEnable;  // index of the EnableTraceEx2 call that fails
    ULONG openError;
    ULONG firstProcessing;  // the timing consumer's first ProcessTrace result; kIdle waits
    int stopAfter;          // ProcessTrace calls before the stop: 0 before the run
    const char* control;    // session starts and stops; T timing, D diagnostic
    size_t enables;
    const char* error;  // the one error line of the run
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
    if (c.firstProcessing != kIdle) {
        consume_.Queue(L"logonmon_timing", {.result = c.firstProcessing});
    }
    const UniqueHandle stop(CreateEventW(nullptr, TRUE, c.stopAfter == 0, nullptr));
    consume_.onProcessing = [&](int processing) {
        if (processing == c.stopAfter) {
            SetEvent(stop.Get());
        }
    };

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
    EXPECT_EQ(consume_.OpenHandles(), 0u);
    const Lines errors = Matching(MainLog(), "ERROR");
    EXPECT_EQ(errors, *c.error ? Lines{c.error} : Lines{});
}

constexpr char kStartFailed[] =
    "ERROR [LogonMonitor::RunRealTime] Failed to start timing trace session, err 5";
constexpr size_t kNone = SIZE_MAX;

INSTANTIATE_TEST_SUITE_P(
    Cases, RunRealTimeTest,
    ::testing::Values(
        RealTimeCase{"TimingOnly", 0, 0, kNone, 0, kIdle, 1, "Start T|Stop T", 7, ""},
        // With the agent integration, the timing session outlives the monitor.
        RealTimeCase{"AgentIntegration", FLAG_ENABLE_LOOM_INTEGRATION, 0, kNone, 0, kIdle, 1,
                     "Start T", 7, ""},
        RealTimeCase{"ProcessTimings", FLAG_ENABLE_PROCESS_TIMINGS, 0, kNone, 0, kIdle, 2,
                     "Start T|Start D|Stop T|Stop D", 7 + 1, ""},
        RealTimeCase{"DiagnosticTrace", FLAG_DIAGNOSTIC_SESSION, 0, kNone, 0, kIdle, 2,
                     "Start T|Start D|Stop T|Stop D", 7 + 15, ""},
        RealTimeCase{"ExistingSessionReused", 0, ERROR_ALREADY_EXISTS, kNone, 0, kIdle, 1,
                     "Start T|Stop T", 0, ""},
        RealTimeCase{"StopBeforeAnyEvent", 0, 0, kNone, 0, kIdle, 0, "Start T|Stop T", 7, ""},
        RealTimeCase{"TimingCannotStart", 0, ERROR_ACCESS_DENIED, kNone, 0, kIdle, kNever,
                     "Start T", 0, kStartFailed},
        // The timing runner is stopped and joined before the run returns.
        RealTimeCase{"DiagnosticCannotStart", FLAG_ENABLE_PROCESS_TIMINGS, 0, 7, 0, kIdle, kNever,
                     "Start T|Start D|Stop D|Stop T", 8, kStartFailed},
        RealTimeCase{"SessionEndedByItselfIsRestarted", 0, 0, kNone, 0, ERROR_SUCCESS, 2,
                     "Start T|Start T|Stop T", 14, ""},
        RealTimeCase{"ConsumerFailureEndsTheRun", 0, 0, kNone, 0, ERROR_NOACCESS, kNever,
                     "Start T|Stop T", 7,
                     "ERROR [TraceSessionRunner::Consume] Processing trace session "
                     "logonmon_timing failed, err 998"},
        RealTimeCase{"SessionThatCannotBeOpenedEndsTheRun", 0, 0, kNone, ERROR_ACCESS_DENIED, kIdle,
                     kNever, "Start T|Stop T", 7,
                     "ERROR [TraceSessionRunner::Consume] Failed to open trace session "
                     "logonmon_timing, err 5"}),
    [](const auto& info) { return std::string(info.param.name); });

constexpr uint32_t kFailingThread = 0xBAD;

// Fails the decoding of the events written on one thread.
class TdhFailingOnOneThread final : public FakeTdh {
  public:
    uint32_t GetPropertySize(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                             uint32_t* size) override {
        return event.EventHeader.ThreadId == kFailingThread
                   ? ERROR_INVALID_PARAMETER
                   : FakeTdh::GetPropertySize(event, descriptor, size);
    }
};

TEST_F(MonitorTest, RunFileFinishesEveryLogonOfTheTrace) {
    TdhFailingOnOneThread tdh;
    logonmon::ScopedTdhBinding failingTdh(tdh);
    accounts_.accounts[kAliceSid] = {L"CORP", L"alice"};
    // Alice's logon up to the shell's start, whose initialisation never comes.
    const std::vector<TestEvent> noShell = {CreateSession(2, kAliceSid, kMorning),
                                            Login(2, kAliceSid, kMorning + kSecond),
                                            NotifyStart(kStartShell, 2, kMorning + 20 * kSecond),
                                            NotifyStop(kStartShell, 2, kMorning + 21 * kSecond)};
    std::vector<TestEvent> failingOne = noShell;
    failingOne.push_back(SubscriberEvent(811, 1, kLogin, L"GPClient", 2, kMorning + 22 * kSecond));
    failingOne.back().thread = kFailingThread;
    failingOne.push_back(ShellInitialized(2, kMorning + 30 * kSecond));
    const std::string summary =
        "INFO [logonmon::LogonProcessor::LogSummary] ****************** Session Summary "
        "(User=alice, sessionId=2) *****************";
    struct Case {
        ConsumeScript script;
        ULONG openError;
        std::string error;
        Lines sessionLog;  // lines of the one session log, if any
        std::wstring file = L"C:\\t.etl";
    } cases[] = {
        {{noShell}, 0, "", {summary}},
        {{failingOne},
         0,
         "ERROR [LogonMonitor::PreHandleEventRecord] Exception: GetValue failed",
         {"INFO [logonmon::LogonProcessor::Explorer_Initialized] Shell Initialized", summary}},
        {{noShell, false, 0, true},
         0,
         "ERROR [LogonMonitor::RunFile] LogonMonitor out of memory.",
         {summary}},
        {{},
         ERROR_FILE_NOT_FOUND,
         "ERROR [LogonMonitor::RunFile] Failed to read trace file C:\\t.etl: cannot open C:\\t.etl",
         {}},
        // A trace the system cannot open is read by the built-in reader.
        {{},
         ERROR_ACCESS_DENIED,
         "",
         {"INFO [Microsoft-Windows-Shell-Core] ****************** Session Summary (User=, "
          "sessionId=2) *****************"},
         PLMX_SAMPLES_DIR L"/fast_logon.etl"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.error);
        for (const std::wstring& name : SessionLogFiles()) {
            DeleteFileW((folder_.Path() + name).c_str());
        }
        const size_t before = MainLog().size();
        consume_.openError = c.openError;
        consume_.Queue(c.file, c.script);

        Monitor(0)->RunFile(c.file);

        EXPECT_EQ(Matching(MainLog(), "ERROR", before), c.error.empty() ? Lines{} : Lines{c.error});
        const auto files = SessionLogFiles();
        ASSERT_EQ(files.size(), c.sessionLog.empty() ? 0u : 1u);
        for (const std::string& line : c.sessionLog) {
            EXPECT_THAT(SessionLog(files[0]), Contains(line));
        }
    }
}

TEST_F(MonitorTest, TryGetUserTokenWaitsForTheTokenOfTheSessionsUser) {
    const std::wstring ownSid = ProcessUserSid();
    accounts_.accounts[ownSid] = {L"CORP", L"alice"};
    const std::string noToken = "ERROR_NO_TOKEN.  Timeout/retry elapsed.  sessionId=3";
    const std::string mismatch = " due to SID mismatch. sessionId=3";
    struct Case {
        std::vector<DWORD> answers;
        uint32_t timeoutMs;
        std::optional<std::wstring> sessionSid;
        std::wstring userName, userNameAfter;
        int sleeps;
        Lines errors;  // parts of the error lines; none when the token is had
    } cases[] = {
        {{0}, 0, ownSid, L"", L"CORP\\alice", 0, {}},
        {{0}, 0, ownSid, L"X\\bob", L"X\\bob", 0, {}},
        {{ERROR_NO_TOKEN, ERROR_NO_TOKEN, 0}, 5000, ownSid, L"", L"CORP\\alice", 2, {}},
        // Without a time-out, one more try only.
        {{ERROR_NO_TOKEN}, 0, ownSid, L"", L"", 1, {noToken}},
        {{ERROR_NO_TOKEN}, 5000, ownSid, L"", L"", 21, {noToken}},
        {{ERROR_ACCESS_DENIED},
         5000,
         ownSid,
         L"",
         L"",
         0,
         {"Failed to get user token, error 5.  sessionId=3", mismatch}},
        {{0}, 0, std::wstring(kAliceSid), L"", L"", 0, {mismatch}},
        {{0}, 0, std::nullopt, L"", L"", 0, {mismatch}},
    };
    const auto monitor = Monitor(0);
    for (const Case& c : cases) {
        tokens_.answers = c.answers;
        tokens_.sleeps = 0;
        tokens_.queried.clear();
        const size_t before = MainLog().size();
        std::wstring userName = c.userName;
        AccessToken token;
        const auto sid = c.sessionSid ? logonmon::Sid::FromString(*c.sessionSid) : std::nullopt;

        EXPECT_EQ(monitor->TryGetUserToken(3, sid, userName, token, c.timeoutMs), c.errors.empty());

        EXPECT_EQ(static_cast<bool>(token), c.errors.empty());
        EXPECT_EQ(tokens_.sleeps, c.sleeps);
        EXPECT_EQ(userName, c.userNameAfter);
        const Lines lines = MainLog();
        const Lines errors = Matching(lines, "ERROR [LogonMonitor::TryGetUserToken] ", before);
        ASSERT_EQ(errors.size(), c.errors.size());
        for (size_t i = 0; i < errors.size(); ++i) {
            EXPECT_THAT(errors[i], HasSubstr(c.errors[i]));
        }
        if (c.errors.empty()) {
            EXPECT_THAT(lines.back(), HasSubstr("[LogonMonitor::TryGetUserToken] Token AuthId: ("));
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
