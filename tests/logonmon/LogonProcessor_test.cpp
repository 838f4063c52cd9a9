#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <tuple>

#include "logonmon/CurrentRecord.h"
#include "tests/logonmon/ProcessorHarness.h"
#include "trace/TextForms.h"

namespace plmx::testing {
namespace {

using logonmon::SESSION_CONFIG;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using Lines = std::vector<std::string>;

std::string Narrow(const std::wstring& text) {
    return logonmon::Utf8FromWide(text);
}

std::string Stamp(uint64_t time) {
    return Narrow(logonmon::TimestampText(time, true));
}

// CreateSession, Login and the shell's start, as Winlogon reports them.
std::vector<TestEvent> Logon(uint32_t session, const std::wstring& sid, uint64_t start) {
    return {CreateSession(session, sid, start), Login(session, sid, start + kSecond),
            NotifyStart(kStartShell, session, start + 20 * kSecond),
            NotifyStop(kStartShell, session, start + 21 * kSecond)};
}

// An event that only logEveryEvent reports, as "<message> @<session>".
TestEvent Tagged(const wchar_t* provider, const std::wstring& message, uint64_t time,
                 std::optional<uint32_t> session = 0) {
    TestEvent event;
    event.provider = provider;
    event.id = 1000;
    event.session = session;
    event.time = time;
    event.message = message;
    return event;
}

Lines Handled(const RecordingProcessor& processor) {
    Lines handled;
    for (const ProcessorLogLine& line : processor.lines) {
        if (line.function == L"logonmon::LogonProcessor::LogEventAsString" && !line.text.empty()) {
            handled.push_back(line.text + " @" + std::to_string(line.session));
        }
    }
    return handled;
}

Lines LinesFrom(const RecordingProcessor& processor, size_t first) {
    const Lines logged = processor.Logged();
    return Lines(logged.begin() + static_cast<std::ptrdiff_t>(first), logged.end());
}

using LogonProcessorTest = ProcessorFixture;

// What events that find no session write, after the logon of session 2.
TEST_F(LogonProcessorTest, EventsWithoutTheirSessionSaySo) {
    const std::string login = "5 Winlogon_Login_Started: Received User Logon Event";
    const std::string notFound =
        "2 Winlogon_Login_Started: Session Context Not Found. Attempting To Init A New One. ";
    auto without = [](TestEvent event, bool sid, bool session) {
        if (sid) {
            event.sid.reset();
        }
        if (session) {
            event.session.reset();
        }
        return event;
    };
    TestEvent byProperty = without(CreateSession(5, kAliceSid, kMorning), false, true);
    byProperty.properties.push_back(StringProperty(L"SessionID", L"5"));
    TestEvent sessionManager = Tagged(kSessionManagerGuid, L"", kMorning);
    sessionManager.id = 21;
    sessionManager.properties.push_back(StringProperty(L"SessionID", L"6"));
    // Held back on thread 77 until Alice's SID claims it, after her logon
    // timed out: Bob's events then have no session.
    auto onThread77 = [](uint16_t id, const wchar_t* sid, uint64_t second) {
        TestEvent event = Tagged(kUserProfilesGuid, L"", kMorning + second * kSecond);
        event.id = id;
        event.sid = sid;
        event.thread = 77;
        return event;
    };
    const std::string bySid = ": Session Context Not Found. SID: " + Narrow(kBobSid);
    const struct {
        std::vector<TestEvent> events;
        Lines lines;
    } cases[] = {
        {{Login(3, kBobSid, kMorning)},
         {login, notFound + "sessionId=3",
          "4 Winlogon_Login_Started: New Session Initialized Successfully: sessionId=3",
          "5 Winlogon_Login_Started: SID: " + Narrow(kBobSid) + ". sessionId=3"}},
        {{without(Login(4, kBobSid, kMorning), true, false)},
         {login, notFound + "sessionId=4",
          "2 Winlogon_Login_Started: Failed Initializing Session: 0x0, sessionId=4"}},
        {{without(Login(4, kBobSid, kMorning), false, true)},
         {login, notFound + "sessionId=-1",
          "2 Winlogon_Login_Started: Failed Initializing Session: 0x0, sessionId=-1"}},
        {{without(CreateSession(5, kAliceSid, kMorning), true, false)},
         {"2 Winlogon_CreateSession: InitSession Failed, sessionId=5"}},
        // Winlogon's header names the session, not a property.
        {{byProperty}, {"2 Winlogon_CreateSession: InitSession Failed, sessionId=-1"}},
        {{ShellInitialized(7, kMorning)},
         {"2 Explorer_Initialized: Session Context Not Found. sessionId=7"}},
        {{without(ShellInitialized(7, kMorning), false, true)},
         {"2 Explorer_Initialized: Session Context Not Found. sessionId=-1"}},
        {{SubscriberEvent(812, 2, kLogin, L"Profiles", 9, kMorning),
          SubscriberEvent(811, 1, kLogin, L"Profiles", 9, kMorning),
          SubscriberEvent(812, 2, kLogoff, L"Profiles", 9, kMorning)},
         {"2 Profiles_Finished: Session Context Not Found. sessionId=9"}},
        {{sessionManager}, {"2 TS_LSM_Logon: Session Context Not Found. sessionId=6"}},
        // The payload names the session, not the header.
        {{AgentEvent(11, 132, 5, kMorning)},
         {"2 Tessera_SessionAttached: Session Context Not Found. sessionId=5"}},
        {{onThread77(1000, kSystemSid, 300), onThread77(6, kBobSid, 301),
          onThread77(7, kBobSid, 302), onThread77(67, kBobSid, 303), onThread77(5, kBobSid, 304),
          onThread77(1000, kAliceSid, 305)},
         {"2 ProcessSessionState: Timed out waiting for Tessera Session Attached event.  Shell "
          "started at " +
              Stamp(kMorning + 21 * kSecond) + ".  Timeout " + Stamp(kMorning + 141 * kSecond) +
              ".  sessionId=2",
          "2 Profiles_SyncStarted" + bySid, "2 Profiles_SyncFinished" + bySid,
          "2 Profiles_LoadedInfo" + bySid}},
    };
    for (const auto& c : cases) {
        auto& processor = Processor(SESSION_CONFIG{120000, false, false, false});
        processor.Feed(Logon(2, kAliceSid, kMorning));
        const size_t before = processor.lines.size();
        processor.Feed(c.events);
        EXPECT_THAT(LinesFrom(processor, before), ElementsAreArray(c.lines))
            << (c.lines.empty() ? "" : c.lines[0]);
    }
}

// Nothing is decided before the shell started; after it, the shell, an
// ending notification or an overdue event settles the logon.
TEST_F(LogonProcessorTest, CompletionRule) {
    const uint64_t t = kMorning;
    auto attach = [](const wchar_t* type) { return AgentEvent(11, 132, 2, t + 8, {{4, type}}); };
    const TestEvent shellStopped = NotifyStop(kStartShell, 2, t + 7);
    const TestEvent shellReady = ShellInitialized(2, t + 9);
    const struct {
        const char* name;
        std::vector<TestEvent> events;
        bool settled;
        bool ending = false;
        bool waitForAttach = false;
    } cases[] = {
        {"shell initialised before StartShell_Stop",
         {ShellInitialized(2, t + 5), NotifyStart(kStartShell, 2, t + 6)},
         false},
        {"then StartShell_Stop", {ShellInitialized(2, t + 5), shellStopped}, true},
        {"logoff", {shellStopped, NotifyStart(kLogoff, 2, t + 8)}, true, true},
        {"end shell", {shellStopped, NotifyStart(kEndShell, 2, t + 8)}, true, true},
        {"terminate", {shellStopped, NotifyStart(kTerminateSession, 2, t + 8)}, true, true},
        {"ending before the shell",
         {NotifyStart(kLogoff, 2, t + 8), NotifyStart(kTerminateSession, 2, t + 9)},
         false},
        {"an event after the deadline",
         {shellStopped, NotifyStart(kLogin, 2, t + 7 + 120 * kSecond + 1)},
         true},
        {"an event at the deadline",
         {shellStopped, NotifyStart(kLogin, 2, t + 7 + 120 * kSecond)},
         false},
        // Waiting for the agent: an application session needs no shell, a
        // desktop needs both; a payload of the wrong length names no type.
        {"application", {shellStopped, attach(L"Application")}, true, false, true},
        {"shell only", {shellStopped, shellReady}, false, false, true},
        {"desktop", {shellStopped, attach(L"DESKTOP"), shellReady}, true, false, true},
        {"desktop, no shell", {shellStopped, attach(L"DESKTOP")}, false, false, true},
    };
    for (const auto& c : cases) {
        auto& processor = Processor(SESSION_CONFIG{120000, c.waitForAttach, false, false});
        processor.Feed(CreateSession(2, kAliceSid, t));
        processor.Feed(c.events);
        EXPECT_EQ(processor.endedSessions.size(), c.settled ? 1u : 0u) << c.name;
        EXPECT_EQ(processor.Sessions().size(), c.settled ? 0u : 1u) << c.name;
        const Lines logged = processor.Logged();
        EXPECT_EQ(
            std::count(logged.begin(), logged.end(), "4 ProcessSessionState: Session is ending..."),
            c.ending ? 1 : 0)
            << c.name;
    }
}

TEST_F(LogonProcessorTest, TimerRunsWhileSessionsAreOpenInRealTimeOnly) {
    const struct {
        uint32_t timeoutMs;
        bool realTime;
        std::vector<uint32_t> periods;
    } cases[] = {{120000, true, {5000}}, {1000, true, {1000}}, {0, true, {5000}}, {1, false, {}}};
    for (const auto& c : cases) {
        timers_.periods.clear();
        auto& processor = Processor(SESSION_CONFIG{c.timeoutMs, false, c.realTime, false});
        processor.Feed(Logon(2, kAliceSid, kMorning));
        EXPECT_EQ(timers_.Running(), c.realTime);
        processor.Feed(ShellInitialized(2, kMorning + 30 * kSecond));
        EXPECT_EQ(timers_.periods, c.periods) << c.timeoutMs;
        EXPECT_FALSE(timers_.Running());
        EXPECT_EQ(processor.sampling,
                  (c.realTime ? std::vector<bool>{true, false} : std::vector<bool>{}));
    }
}

// The line names what is missing: the agent's attach, or, once it attached,
// the shell; it goes to the session's log with the session's last event.
TEST_F(LogonProcessorTest, TheTimerTimesOutFromTheLastStartShellStop) {
    for (const bool attached : {false, true}) {
        auto& processor = Processor(SESSION_CONFIG{120000, false, true, false});
        processor.Feed(Logon(2, kAliceSid, kMorning));
        const uint64_t shellStarted = kMorning + 60 * kSecond;
        processor.Feed(NotifyStop(kStartShell, 2, shellStarted));
        if (attached) {
            processor.Feed(AgentEvent(11, 132, 2, shellStarted));
        }
        clock_.now = shellStarted + 120 * kSecond;
        timers_.Fire();
        EXPECT_THAT(processor.endedSessions, IsEmpty());
        clock_.now += kSecond;
        timers_.Fire();
        timers_.Fire();
        ASSERT_EQ(processor.endedSessions.size(), 1u);
        EXPECT_TRUE(processor.endedSessions[0].logonComplete);
        const ProcessorLogLine& line = processor.lines.back();
        EXPECT_EQ(line.session, 2);
        EXPECT_EQ(processor.Logged().back(),
                  std::string("2 ProcessSessionState: Timed out waiting for ") +
                      (attached ? "ShellInitialized" : "Tessera Session Attached") +
                      " event.  Shell started at " + Stamp(shellStarted) + ".  Timeout " +
                      Stamp(shellStarted + 120 * kSecond) + ".  sessionId=2");
        // The last session settled: no more ticks, no more samples.
        EXPECT_FALSE(timers_.Running());
        EXPECT_EQ(processor.sampling, (std::vector<bool>{true, false}));
    }
}

TEST_F(LogonProcessorTest, WithoutTimeoutOnlyAForcedCheckSettlesAStartedShell) {
    auto& processor = Processor(SESSION_CONFIG{0, false, true, false});
    processor.Feed(Logon(2, kAliceSid, kMorning));
    processor.Feed(CreateSession(3, kBobSid, kMorning));
    clock_.now = kMorning + 7 * 24 * 3600 * kSecond;
    timers_.Fire();
    processor.Feed(NotifyStop(kLogin, 2, clock_.now));
    EXPECT_THAT(processor.endedSessions, IsEmpty());

    processor.RunSessionTimeoutCheck(true);
    ASSERT_EQ(processor.endedSessions.size(), 1u);
    EXPECT_EQ(processor.Sessions().at(0).sessionId, 3u);
    EXPECT_EQ(processor.lines.size(), 4u);  // no timeout line
}

// Services name the session in a property; the profile service's events wait
// for the session of their thread, Group Policy's for that of their activity.
TEST_F(LogonProcessorTest, EventsFindTheirSession) {
    auto& processor = Processor(SESSION_CONFIG{0, false, false, true});
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(CreateSession(3, kBobSid, kMorning));  // newer, another user
    processor.lines.clear();
    auto named = [](const std::wstring& property, const std::wstring& value,
                    std::optional<uint32_t> header = 0) {
        TestEvent event = Tagged(kSessionManagerGuid, L"sm " + property + L"=" + value,
                                 kMorning + kSecond, header);
        event.properties.push_back(StringProperty(property, value));
        return event;
    };
    auto profile = [](const std::wstring& text, uint32_t thread, const wchar_t* sid,
                      uint16_t id = 1000) {
        TestEvent event = Tagged(kUserProfilesGuid, L"profile " + text, kMorning + kSecond);
        event.id = id;
        event.sid = sid;
        event.thread = thread;
        return event;
    };
    constexpr wchar_t kUserPolicy[] = L"6c1c5d1e-7a39-4d4c-9a0b-3a4b5c6d7e8f";
    auto policy = [](const std::wstring& text, const wchar_t* activity,
                     std::optional<uint32_t> session = std::nullopt) {
        TestEvent event = Tagged(kGroupPolicyGuid, L"policy " + text, kMorning + kSecond, session);
        event.activity = activity;
        return event;
    };
    processor.Feed({named(L"SessionID", L"2"), named(L"Session", L"3"),
                    named(L"Session", L"2", std::nullopt), named(L"Session", L"7", 3),
                    named(L"SessionID", L"2x"), named(L"SessionID", L"99999999999"),
                    profile(L"held 1", 77, kSystemSid), profile(L"other thread", 78, kSystemSid),
                    profile(L"held 2", 77, kSystemSid), profile(L"event 1", 77, kSystemSid, 1)});
    // A failing held-back event costs none of the others.
    processor.throwOnText = "profile held 1";
    EXPECT_THROW(processor.Feed(profile(L"by SID", 77, kAliceSid)), std::runtime_error);
    processor.Feed({profile(L"same thread", 77, kSystemSid), policy(L"earlier", kUserPolicy),
                    policy(L"unclaimed", L"0f0e0d0c-0b0a-0908-0706-050403020100"),
                    policy(L"with session", kUserPolicy, 2), policy(L"later", kUserPolicy),
                    policy(L"no activity", L"00000000-0000-0000-0000-000000000000")});

    EXPECT_THAT(
        Handled(processor),
        ElementsAre("sm SessionID=2 @2", "sm Session=3 @3", "sm Session=2 @2", "sm Session=7 @3",
                    "sm SessionID=2x @-1", "sm SessionID=99999999999 @-1", "profile event 1 @-1",
                    "profile held 1 @2", "profile held 2 @2", "profile by SID @2",
                    "profile same thread @2", "policy earlier @2", "policy with session @2",
                    "policy later @2", "policy no activity @-1"));
}

// Events held back more than ten minutes of event time before the newest,
// or beyond the newest thousand, are dropped.
TEST_F(LogonProcessorTest, HeldBackEventsAreBoundedByAgeAndCount) {
    auto profile = [](const wchar_t* text, const wchar_t* sid, uint64_t time) {
        TestEvent event = Tagged(kUserProfilesGuid, text, time);
        event.sid = sid;
        event.thread = 77;
        return event;
    };
    const uint64_t later = kMorning + 10 * 60 * kSecond;
    for (const size_t held : {1, 1000}) {
        auto& processor = Processor(SESSION_CONFIG{0, false, false, true});
        processor.Feed(CreateSession(2, kAliceSid, kMorning));
        processor.lines.clear();
        processor.Feed(
            {profile(L"stale", kSystemSid, kMorning - 1), profile(L"aged", kSystemSid, kMorning)});
        for (size_t i = 0; i < held; ++i) {
            processor.Feed(profile(L"held", kSystemSid, later));
        }
        processor.Feed(profile(L"by SID", kAliceSid, later));
        const Lines handled = Handled(processor);
        EXPECT_EQ(handled.front(), held == 1 ? "aged @2" : "held @2");
        EXPECT_EQ(handled.size(), std::min<size_t>(held + 1, 1000) + 1);
    }
}

TEST_F(LogonProcessorTest, ReusedSessionIdsKeepTheirLogonsApart) {
    auto& processor = Processor();
    // The first logon of session 2 never reaches its shell and stays open.
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    const uint64_t second = kMorning + 600 * kSecond;
    processor.Feed({CreateSession(2, kBobSid, second),
                    // Late, and before either logon.
                    NotifyStop(kLogin, 2, kMorning + 9 * kSecond),
                    NotifyStop(kLogin, 2, second + 9 * kSecond),
                    NotifyStart(kStartShell, 2, kMorning - kSecond)});

    const auto sessions = processor.Sessions();
    ASSERT_EQ(sessions.size(), 2u);
    for (const auto& [session, sid, start] :
         {std::tuple{sessions[0], kAliceSid, kMorning}, std::tuple{sessions[1], kBobSid, second}}) {
        EXPECT_EQ(session.userSidText, sid);
        EXPECT_EQ(session.timingPoints,
                  (logonmon::TimingPoints{{L"WL_NotifyExecute_CreateSession_Start", start},
                                          {L"WL_NotifyExecute_Login_Stop", start + 9 * kSecond}}));
    }
}

TEST_F(LogonProcessorTest, AFailingHandlerLeavesTheProcessorUsable) {
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.throwOnText = "Received User Logon Event";
    EXPECT_THROW(processor.Feed(Login(2, kAliceSid, kMorning + kSecond)), std::runtime_error);
    EXPECT_EQ(logonmon::CurrentRecord(), nullptr);
    processor.throwOnText.clear();

    // Another thread gets the lock and finishes the logon.
    std::async(std::launch::async, [&processor] {
        processor.Feed({NotifyStop(kStartShell, 2, kMorning + 2 * kSecond),
                        ShellInitialized(2, kMorning + 3 * kSecond)});
    }).get();
    EXPECT_EQ(processor.endedSessions.size(), 1u);
}

}  // namespace
}  // namespace plmx::testing
