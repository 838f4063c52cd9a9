#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <stdexcept>

#include "logonmon/CurrentRecord.h"
#include "tests/logonmon/ProcessorHarness.h"
#include "trace/TextForms.h"

namespace plmx::testing {
namespace {

using logonmon::SESSION_CONFIG;
using logonmon::TimingPoints;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr wchar_t kLoginFn[] = L"logonmon::LogonProcessor::Winlogon_Login_Started";
constexpr wchar_t kStateFn[] = L"logonmon::LogonProcessor::ProcessSessionState";
constexpr SESSION_CONFIG kLogEvents{0, false, false, true};

std::string Narrow(const std::wstring& text) {
    return logonmon::Utf8FromWide(text);
}

TestEvent Without(TestEvent event, bool sid, bool session) {
    if (sid) {
        event.sid.reset();
    }
    if (session) {
        event.session.reset();
    }
    return event;
}

TestEvent WithSessionProperty(TestEvent event) {
    event.properties.push_back(StringProperty(L"SessionID", L"5"));
    return event;
}

// What LogEventAsString wrote for events whose message starts with `prefix`,
// with the session each was handled for.
using Handling = std::pair<std::string, int64_t>;
std::vector<Handling> Handled(const RecordingProcessor& processor, const std::string& prefix) {
    std::vector<Handling> handled;
    for (const ProcessorLogLine& line : processor.lines) {
        if (line.function == L"logonmon::LogonProcessor::LogEventAsString" &&
            line.text.rfind(prefix, 0) == 0) {
            handled.emplace_back(line.text, line.session);
        }
    }
    return handled;
}

TestEvent Tagged(const wchar_t* provider, const std::wstring& message, uint64_t time) {
    TestEvent event;
    event.provider = provider;
    event.id = 1000;
    event.session = 0;
    event.time = time;
    event.message = message;
    return event;
}

TestEvent ProfileEvent(const std::wstring& text, uint32_t thread, const std::wstring& sid,
                       uint64_t time) {
    TestEvent event = Tagged(kUserProfilesGuid, L"profile " + text, time);
    event.sid = sid;
    event.thread = thread;
    return event;
}

using LogonProcessorTest = ProcessorFixture;

TEST_F(LogonProcessorTest, FollowsALogonFromCreateSessionToShellInitialized) {
    accounts_.accounts[kAliceSid] = {L"CORP", L"alice"};
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(Login(2, kAliceSid, kMorning + kSecond));
    processor.Feed(SubscriberEvent(811, 1, kLogin, L"Profiles", 2, kMorning + 2 * kSecond));
    processor.Feed(SubscriberEvent(812, 2, kLogin, L"Profiles", 2, kMorning + 5 * kSecond));
    // A subscriber event without its name, an opcode known only by name, the
    // user initialisation, and a notification event without "Event".
    TestEvent unnamed = SubscriberEvent(811, 1, kLogin, L"", 2, kMorning + 6 * kSecond);
    unnamed.properties.pop_back();
    processor.Feed(unnamed);
    TestEvent info = SubscriberEvent(811, 0, kLogin, L"Sens", 2, kMorning + 7 * kSecond);
    info.opcodeName = L" Info ";
    processor.Feed(info);
    TestEvent userinit = Tagged(kWinlogonGuid, L"", kMorning + 8 * kSecond);
    userinit.id = 10;
    userinit.session = 2;
    processor.Feed(userinit);
    TestEvent noNotification = NotifyStart(kLogin, 2, kMorning + 9 * kSecond);
    noNotification.properties.clear();
    processor.Feed(noNotification);
    processor.Feed(NotifyStart(kStartShell, 2, kMorning + 10 * kSecond));
    processor.Feed(NotifyStop(kStartShell, 2, kMorning + 11 * kSecond));
    ASSERT_THAT(processor.endedSessions, IsEmpty());
    processor.Feed(ShellInitialized(2, kMorning + 15 * kSecond));

    EXPECT_THAT(processor.Texts(), ElementsAre("Session Initialized Successfully: sessionId=2",
                                               "Received User Logon Event",
                                               "SID: " + Narrow(kAliceSid) + ". sessionId=2",
                                               "LOGON: User: CORP\\alice", "Shell Initialized"));
    const auto& lines = processor.lines;
    EXPECT_EQ(lines[0].function, L"logonmon::LogonProcessor::Winlogon_CreateSession");
    EXPECT_EQ(lines[0].level, 5u);
    EXPECT_EQ(lines[3].function, kLoginFn);
    EXPECT_EQ(lines[3].level, 4u);
    for (const ProcessorLogLine& line : lines) {
        EXPECT_EQ(line.session, 2) << line.text;
    }
    EXPECT_THAT(processor.logonStarts, ElementsAre(2u));
    ASSERT_EQ(processor.endedSessions.size(), 1u);
    EXPECT_EQ(processor.endedSessions[0].profileFinished, 0xFFFFFFFFu);
    EXPECT_EQ(processor.endedSessions[0].timingPoints,
              (TimingPoints{{L"Explorer_Initialized_Stop", kMorning + 15 * kSecond},
                            {L"WL_CallSubscriber_Login_Start", kMorning + 6 * kSecond},
                            {L"WL_CallSubscriber_Profiles_Login_Start", kMorning + 2 * kSecond},
                            {L"WL_CallSubscriber_Profiles_Login_Stop", kMorning + 5 * kSecond},
                            {L"WL_CallSubscriber_Sens_Login_Info", kMorning + 7 * kSecond},
                            {L"WL_NotifyExecute_CreateSession_Start", kMorning},
                            {L"WL_NotifyExecute_Login_Start", kMorning + kSecond},
                            {L"WL_NotifyExecute_StartShell_Start", kMorning + 10 * kSecond},
                            {L"WL_NotifyExecute_StartShell_Stop", kMorning + 11 * kSecond},
                            {L"WL_USERINIT_STOP", kMorning + 8 * kSecond}}));
    EXPECT_THAT(processor.Sessions(), IsEmpty());
}

TEST_F(LogonProcessorTest, SessionCreation) {
    const std::string notFound = "Session Context Not Found. Attempting To Init A New One. ";
    struct Case {
        TestEvent event;
        std::vector<std::pair<uint32_t, std::string>> lines;
    };
    const Case cases[] = {
        {Login(3, kAliceSid, kMorning),
         {{5, "Received User Logon Event"},
          {2, notFound + "sessionId=3"},
          {4, "New Session Initialized Successfully: sessionId=3"},
          {5, "SID: " + Narrow(kAliceSid) + ". sessionId=3"}}},
        {Without(CreateSession(5, kAliceSid, kMorning), true, false),
         {{2, "InitSession Failed, sessionId=5"}}},
        // Winlogon's header names the session, not a property.
        {WithSessionProperty(Without(CreateSession(5, kAliceSid, kMorning), false, true)),
         {{2, "InitSession Failed, sessionId=-1"}}},
        {Without(Login(4, kAliceSid, kMorning), true, false),
         {{5, "Received User Logon Event"},
          {2, notFound + "sessionId=4"},
          {2, "Failed Initializing Session: 0x0, sessionId=4"}}},
        {Without(Login(4, kAliceSid, kMorning), false, true),
         {{5, "Received User Logon Event"},
          {2, notFound + "sessionId=-1"},
          {2, "Failed Initializing Session: 0x0, sessionId=-1"}}},
    };
    for (const Case& c : cases) {
        auto& processor = Processor();
        processor.Feed(c.event);
        std::vector<std::pair<uint32_t, std::string>> lines;
        for (const ProcessorLogLine& line : processor.lines) {
            lines.emplace_back(line.level, line.text);
        }
        EXPECT_EQ(lines, c.lines);
        // Only the Login with its SID and session makes a session.
        const bool created = c.lines.size() == 4;
        EXPECT_EQ(processor.logonStarts.size(), created ? 1u : 0u);
        const auto sessions = processor.Sessions();
        ASSERT_EQ(sessions.size(), created ? 1u : 0u);
        if (created) {
            EXPECT_EQ(sessions[0].timingPoints.at(L"WL_NotifyExecute_Login_Start"), kMorning);
        }
    }
}

// Nothing is decided before the shell started; after it, the shell, an
// ending notification or an overdue event settles the logon.
TEST_F(LogonProcessorTest, CompletionRule) {
    struct Case {
        const char* name;
        std::vector<TestEvent> events;
        bool settled;
        bool ending = false;
        bool waitForAttach = false;
    };
    const uint64_t t = kMorning;
    const TestEvent shellStopped = NotifyStop(kStartShell, 2, t + 7);
    const TestEvent shellReady = ShellInitialized(2, t + 9);
    const Case cases[] = {
        {"shell initialised before StartShell_Stop",
         {ShellInitialized(2, t + 5 * kSecond), NotifyStart(kStartShell, 2, t + 6 * kSecond)},
         false,
         false},
        {"then StartShell_Stop",
         {ShellInitialized(2, t + 5 * kSecond), NotifyStop(kStartShell, 2, t + 7 * kSecond)},
         true,
         false},
        {"logoff", {NotifyStop(kStartShell, 2, t + 7), NotifyStart(kLogoff, 2, t + 8)}, true, true},
        {"end shell",
         {NotifyStop(kStartShell, 2, t + 7), NotifyStart(kEndShell, 2, t + 8)},
         true,
         true},
        {"terminate",
         {NotifyStop(kStartShell, 2, t + 7), NotifyStart(kTerminateSession, 2, t + 8)},
         true,
         true},
        {"ending before the shell",
         {NotifyStart(kLogoff, 2, t + 8), NotifyStart(kTerminateSession, 2, t + 9)},
         false,
         false},
        {"an event after the deadline",
         {NotifyStop(kStartShell, 2, t + 7), NotifyStart(kLogin, 2, t + 200 * kSecond)},
         true,
         false},
        // Waiting for the agent: an application session needs no shell, a
        // desktop needs both.
        {"application", {shellStopped, Attach(L"APPLICATION", t + 8)}, true, false, true},
        {"shell only", {shellStopped, shellReady}, false, false, true},
        {"desktop", {shellStopped, Attach(L"DESKTOP", t + 8), shellReady}, true, false, true},
    };
    for (const Case& c : cases) {
        auto& processor = Processor(SESSION_CONFIG{120000, c.waitForAttach, false, false});
        processor.Feed(CreateSession(2, kAliceSid, t));
        for (const TestEvent& event : c.events) {
            processor.Feed(event);
        }
        EXPECT_EQ(processor.endedSessions.size(), c.settled ? 1u : 0u) << c.name;
        EXPECT_EQ(processor.Sessions().size(), c.settled ? 0u : 1u) << c.name;
        const auto ending = processor.LinesWith("Session is ending...");
        ASSERT_EQ(ending.size(), c.ending ? 1u : 0u) << c.name;
        if (c.ending) {
            EXPECT_EQ(ending[0].level, 4u);
            EXPECT_EQ(ending[0].function, kStateFn);
        }
    }
}

// The line names what is missing: the agent's attach, or, once it attached,
// the shell (whether or not the processor waits for the agent).
TEST_F(LogonProcessorTest, TimesOutFromTheLastStartShellStop) {
    for (const bool attached : {false, true}) {
        auto& processor = Processor(SESSION_CONFIG{120000, false, true, false});
        StartLogon(processor, 2, kAliceSid, kMorning);
        const uint64_t shellStarted = kMorning + 60 * kSecond;
        processor.Feed(NotifyStop(kStartShell, 2, shellStarted));
        if (attached) {
            processor.Feed(Attach(L"DESKTOP", shellStarted));
        }
        clock_.now = shellStarted + 120 * kSecond;
        timers_.Fire();
        EXPECT_THAT(processor.endedSessions, IsEmpty());

        clock_.now += kSecond;
        timers_.Fire();
        timers_.Fire();
        const auto lines = processor.LinesWith(
            std::string("Timed out waiting for ") +
            (attached ? "ShellInitialized" : "Tessera Session Attached") +
            " event.  Shell started at " + Narrow(logonmon::TimestampText(shellStarted, true)) +
            ".  Timeout " + Narrow(logonmon::TimestampText(shellStarted + 120 * kSecond, true)) +
            ".  sessionId=2");
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, 2u);
        EXPECT_EQ(lines[0].function, kStateFn);
        // Written with the session's last event, so it reaches the session's log.
        EXPECT_EQ(lines[0].session, 2);
        ASSERT_EQ(processor.endedSessions.size(), 1u);
        EXPECT_TRUE(processor.endedSessions[0].logonComplete);
        // The last session settled: no more ticks, no more samples.
        EXPECT_FALSE(timers_.Running());
        EXPECT_EQ(processor.sampling, (std::vector<bool>{true, false}));
    }
}

TEST_F(LogonProcessorTest, WithoutTimeoutOnlyAForcedCheckSettlesAStartedShell) {
    auto& processor = Processor(SESSION_CONFIG{0, false, true, false});
    StartLogon(processor, 2, kAliceSid, kMorning);
    clock_.now = kMorning + 7 * 24 * 3600 * kSecond;
    timers_.Fire();
    processor.Feed(NotifyStop(kLogin, 2, clock_.now));
    EXPECT_THAT(processor.endedSessions, IsEmpty());

    processor.RunSessionTimeoutCheck(true);
    EXPECT_EQ(processor.endedSessions.size(), 1u);
    EXPECT_EQ(processor.Texts().size(), 3u);  // no timeout line
}

TEST_F(LogonProcessorTest, TimerRunsWhileSessionsAreOpenInRealTimeOnly) {
    struct Case {
        uint32_t timeoutMs;
        bool realTime;
        std::vector<uint32_t> periods;
    };
    for (const Case& c : {Case{120000, true, {5000}}, Case{1000, true, {1000}},
                          Case{0, true, {5000}}, Case{120000, false, {}}}) {
        timers_.periods.clear();
        auto& processor = Processor(SESSION_CONFIG{c.timeoutMs, false, c.realTime, false});
        StartLogon(processor, 2, kAliceSid, kMorning);
        EXPECT_EQ(timers_.Running(), c.realTime);
        processor.Feed(ShellInitialized(2, kMorning + 30 * kSecond));

        EXPECT_EQ(timers_.periods, c.periods) << c.timeoutMs;
        EXPECT_FALSE(timers_.Running());
        EXPECT_EQ(processor.sampling,
                  (c.realTime ? std::vector<bool>{true, false} : std::vector<bool>{}));
    }
}

TEST_F(LogonProcessorTest, ReusedSessionIdsKeepTheirLogonsApart) {
    auto& processor = Processor();
    // The first logon of session 2 never reaches its shell and stays open.
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    const uint64_t second = kMorning + 600 * kSecond;
    processor.Feed(CreateSession(2, kBobSid, second));
    // Late, and before either logon.
    processor.Feed(NotifyStop(kLogin, 2, kMorning + 9 * kSecond));
    processor.Feed(NotifyStop(kLogin, 2, second + 9 * kSecond));
    processor.Feed(NotifyStart(kStartShell, 2, kMorning - kSecond));

    const auto sessions = processor.Sessions();
    ASSERT_EQ(sessions.size(), 2u);
    EXPECT_EQ(sessions[0].userSidText, kAliceSid);
    EXPECT_EQ(sessions[0].timingPoints,
              (TimingPoints{{L"WL_NotifyExecute_CreateSession_Start", kMorning},
                            {L"WL_NotifyExecute_Login_Stop", kMorning + 9 * kSecond}}));
    EXPECT_EQ(sessions[1].userSidText, kBobSid);
    EXPECT_EQ(sessions[1].timingPoints,
              (TimingPoints{{L"WL_NotifyExecute_CreateSession_Start", second},
                            {L"WL_NotifyExecute_Login_Stop", second + 9 * kSecond}}));
}

TEST_F(LogonProcessorTest, ServicesNameTheSessionInAProperty) {
    struct Case {
        std::optional<uint32_t> header;
        std::wstring property;
        std::wstring value;
        int64_t session;
    };
    for (const Case& c : {Case{0, L"SessionID", L"2", 2}, Case{0, L"Session", L"2", 2},
                          Case{std::nullopt, L"Session", L"2", 2}, Case{2, L"Session", L"7", 2},
                          Case{0, L"SessionID", L"2x", -1}, Case{0, L"SessionID", L"", -1},
                          Case{0, L"SessionID", L"99999999999", -1}}) {
        auto& processor = Processor(kLogEvents);
        processor.Feed(CreateSession(2, kAliceSid, kMorning));
        TestEvent event = Tagged(kSessionManagerGuid, L"session manager", kMorning + kSecond);
        event.session = c.header;
        event.properties.push_back(StringProperty(c.property, c.value));
        processor.Feed(event);

        EXPECT_THAT(Handled(processor, "session manager"),
                    ElementsAre(Handling{"session manager", c.session}))
            << Narrow(c.property + L"=" + c.value);
        EXPECT_EQ(processor.Session(2)->timingPoints.size(), 1u);
    }
}

TEST_F(LogonProcessorTest, ProfileEventsWaitForTheSessionOfTheirThread) {
    auto& processor = Processor(kLogEvents);
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(ProfileEvent(L"held 1", 77, kSystemSid, kMorning + 1));
    processor.Feed(ProfileEvent(L"other thread", 78, kSystemSid, kMorning + 2));
    processor.Feed(ProfileEvent(L"held 2", 77, kSystemSid, kMorning + 3));
    TestEvent first = ProfileEvent(L"event 1", 77, kSystemSid, kMorning + 4);
    first.id = 1;
    processor.Feed(first);
    EXPECT_THAT(Handled(processor, "profile"), ElementsAre(Handling{"profile event 1", -1}));

    // Found by its SID, this event ties thread 77 to session 2. A failing
    // held-back event costs none of the others.
    processor.throwOnText = "profile held 1";
    EXPECT_THROW(processor.Feed(ProfileEvent(L"by SID", 77, kAliceSid, kMorning + 5)),
                 std::runtime_error);
    processor.Feed(ProfileEvent(L"same thread", 77, kSystemSid, kMorning + 6));

    EXPECT_THAT(Handled(processor, "profile"),
                ElementsAre(Handling{"profile event 1", -1}, Handling{"profile held 1", 2},
                            Handling{"profile held 2", 2}, Handling{"profile by SID", 2},
                            Handling{"profile same thread", 2}));
}

TEST_F(LogonProcessorTest, HeldBackEventsAreBoundedByAgeAndCount) {
    auto& processor = Processor(kLogEvents);
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(ProfileEvent(L"stale", 77, kSystemSid, kMorning));
    const uint64_t later = kMorning + 11 * 60 * kSecond;
    for (int i = 0; i < 1001; ++i) {
        processor.Feed(ProfileEvent(L"held", 77, kSystemSid, later + i));
    }
    processor.Feed(ProfileEvent(L"by SID", 77, kAliceSid, later + 2000));

    const auto handled = Handled(processor, "profile");
    ASSERT_EQ(handled.size(), 1001u);
    EXPECT_EQ(handled.front(), (Handling{"profile held", 2}));
    EXPECT_EQ(handled.back(), (Handling{"profile by SID", 2}));
}

TEST_F(LogonProcessorTest, PolicyEventsFindTheirSessionThroughTheirActivity) {
    auto policy = [](const std::wstring& text, const wchar_t* activity,
                     std::optional<uint32_t> session, uint64_t time) {
        TestEvent event = Tagged(kGroupPolicyGuid, L"policy " + text, time);
        event.session = session;
        event.activity = activity;
        return event;
    };
    constexpr wchar_t kUserPolicy[] = L"6c1c5d1e-7a39-4d4c-9a0b-3a4b5c6d7e8f";
    auto& processor = Processor(kLogEvents);
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(policy(L"earlier", kUserPolicy, std::nullopt, kMorning + 1));
    processor.Feed(
        policy(L"unclaimed", L"0f0e0d0c-0b0a-0908-0706-050403020100", std::nullopt, kMorning + 2));
    processor.Feed(policy(L"with session", kUserPolicy, 2, kMorning + 3));
    processor.Feed(policy(L"later", kUserPolicy, std::nullopt, kMorning + 4));
    processor.Feed(policy(L"no activity", L"00000000-0000-0000-0000-000000000000", std::nullopt,
                          kMorning + 5));

    EXPECT_THAT(Handled(processor, "policy"),
                ElementsAre(Handling{"policy earlier", 2}, Handling{"policy with session", 2},
                            Handling{"policy later", 2}, Handling{"policy no activity", -1}));
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
        processor.Feed(NotifyStop(kStartShell, 2, kMorning + 2 * kSecond));
        processor.Feed(ShellInitialized(2, kMorning + 3 * kSecond));
    }).get();
    EXPECT_EQ(processor.endedSessions.size(), 1u);
}

}  // namespace
}  // namespace plmx::testing
