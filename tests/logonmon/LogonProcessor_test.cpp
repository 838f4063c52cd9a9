#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <tuple>

#include "tests/logonmon/ProcessorHarness.h"

namespace plmx::testing {
namespace {

using logonmon::SESSION_CONFIG;
using ::testing::ElementsAre;
using Lines = std::vector<std::string>;

std::string Stamp(uint64_t time) {
    return logonmon::Utf8FromWide(logonmon::TimestampText(time, true));
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
    return {.provider = provider, .id = 1000, .time = time, .session = session, .message = message};
}

// A profile service event on `thread`, reported as "<text>".
TestEvent Profile(const std::wstring& text, const wchar_t* sid, uint64_t time = kMorning,
                  uint32_t thread = 77, uint16_t id = 1000) {
    TestEvent event = Tagged(kUserProfilesGuid, text, time);
    std::tie(event.sid, event.thread, event.id) = std::tuple(sid, thread, id);
    return event;
}

Lines Handled(const RecordingProcessor& processor) {
    static const std::string kPrefix = "5 LogEventAsString: ";
    Lines handled;
    for (size_t i = 0; i < processor.lines.size(); ++i) {
        const std::string& line = processor.lines[i];
        if (line.starts_with(kPrefix) && line.size() > kPrefix.size()) {
            handled.push_back(line.substr(kPrefix.size()) + " @" +
                              std::to_string(processor.lineSessions[i]));
        }
    }
    return handled;
}

using LogonProcessorTest = ProcessorFixture;

// What events that find no session write, after the logon of session 2.
TEST_F(LogonProcessorTest, EventsWithoutTheirSessionSaySo) {
    TestEvent noSid = Login(4, kBobSid, kMorning);
    noSid.sid.reset();
    TestEvent byProperty = CreateSession(5, kAliceSid, kMorning);
    byProperty.session.reset();
    byProperty.properties.push_back(StringProperty(L"SessionID", L"5"));
    TestEvent sessionManager = Tagged(kSessionManagerGuid, L"", kMorning);
    sessionManager.id = 21;
    sessionManager.properties.push_back(StringProperty(L"SessionID", L"6"));
    auto& processor = Processor(SESSION_CONFIG{120000, false, false, false});
    processor.Feed(Logon(2, kAliceSid, kMorning));
    processor.ClearLines();
    processor.Feed({noSid, byProperty, SubscriberEvent(812, 2, kLogin, L"Profiles", 9, kMorning),
                    SubscriberEvent(811, 1, kLogin, L"Profiles", 9, kMorning),
                    SubscriberEvent(812, 2, kLogoff, L"Profiles", 9, kMorning), sessionManager,
                    AgentEvent(11, 132, 5, kMorning)});
    EXPECT_THAT(
        processor.lines,
        ElementsAre("5 Winlogon_Login_Started: Received User Logon Event",
                    "2 Winlogon_Login_Started: Session Context Not Found. Attempting To "
                    "Init A New One. sessionId=4",
                    "2 Winlogon_Login_Started: Failed Initializing Session: 0x0, sessionId=4",
                    // Winlogon's header names the session, not a property.
                    "2 Winlogon_CreateSession: InitSession Failed, sessionId=-1",
                    "2 Profiles_Finished: Session Context Not Found. sessionId=9",
                    "2 TS_LSM_Logon: Session Context Not Found. sessionId=6",
                    // The payload names the session, not the header.
                    "2 Tessera_SessionAttached: Session Context Not Found. sessionId=5"));
}

// Nothing is decided before the shell started; after it, the shell, an
// ending notification or an overdue event settles the logon.
TEST_F(LogonProcessorTest, CompletionRule) {
    const uint64_t t = kMorning;
    auto attach = [](const wchar_t* type) { return AgentEvent(11, 132, 2, t + 8, {{4, type}}); };
    auto shell = [](uint16_t id, uint8_t opcode) {
        return TestEvent{.provider = kShellCoreGuid, .id = id, .opcode = opcode, .session = 2};
    };
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
        {"other shell events", {shell(9601, 2), shell(9602, 1), shellStopped}, false},
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
        // desktop needs both.
        {"application", {shellStopped, attach(L"Application")}, true, false, true},
        {"shell only", {shellStopped, shellReady}, false, false, true},
        {"desktop", {shellStopped, attach(L"DESKTOP"), shellReady}, true, false, true},
    };
    for (const auto& c : cases) {
        auto& processor = Processor(SESSION_CONFIG{120000, c.waitForAttach, false, false});
        processor.Feed({CreateSession(2, kAliceSid, t)});
        processor.Feed(c.events);
        EXPECT_EQ(processor.endedSessions.size(), c.settled ? 1u : 0u) << c.name;
        EXPECT_EQ(processor.Sessions().size(), c.settled ? 0u : 1u) << c.name;
        const Lines logged = processor.lines;
        EXPECT_EQ(
            std::count(logged.begin(), logged.end(), "4 ProcessSessionState: Session is ending..."),
            c.ending ? 1 : 0)
            << c.name;
    }
}

// The timer runs while sessions are open, every five seconds or at a shorter
// timeout. Its line names what is missing: the agent's attach, or, once it
// attached, the shell; it goes to the session's log.
TEST_F(LogonProcessorTest, TheTimerTimesOutFromTheLastStartShellStop) {
    for (const bool attached : {false, true}) {
        auto& processor = Processor(SESSION_CONFIG{120000, false, true, false});
        processor.Feed(Logon(2, kAliceSid, kMorning));
        const uint64_t shellStarted = kMorning + 60 * kSecond;
        processor.Feed({NotifyStop(kStartShell, 2, shellStarted)});
        if (attached) {
            processor.Feed({AgentEvent(11, 132, 2, shellStarted)});
        }
        clock_.now = shellStarted + 120 * kSecond;
        timers_.Fire();
        EXPECT_TRUE(processor.endedSessions.empty());
        clock_.now += kSecond;
        timers_.Fire();
        timers_.Fire();
        ASSERT_EQ(processor.endedSessions.size(), 1u);
        EXPECT_EQ(processor.lineSessions.back(), 2);
        EXPECT_EQ(processor.lines.back(),
                  std::string("2 ProcessSessionState: Timed out waiting for ") +
                      (attached ? "ShellInitialized" : "Tessera Session Attached") +
                      " event.  Shell started at " + Stamp(shellStarted) + ".  Timeout " +
                      Stamp(shellStarted + 120 * kSecond) + ".  sessionId=2");
        EXPECT_FALSE(timers_.Running());
        EXPECT_EQ(processor.sampling, (std::vector<bool>{true, false}));
    }
    Processor(SESSION_CONFIG{1000, false, true, false}).Feed(Logon(2, kAliceSid, kMorning));
    EXPECT_EQ(timers_.periods, (std::vector<uint32_t>{5000, 5000, 1000}));
}

// Services name the session in a property; the profile service's events wait
// for the session of their thread, Group Policy's for that of their activity.
// All happen at the instant the sessions were created, the newer another user's.
TEST_F(LogonProcessorTest, EventsFindTheirSession) {
    auto& processor = Processor(SESSION_CONFIG{0, false, false, true});
    processor.Feed({CreateSession(2, kAliceSid, kMorning), CreateSession(3, kBobSid, kMorning)});
    processor.ClearLines();
    auto named = [](const std::wstring& property, const std::wstring& value,
                    std::optional<uint32_t> header = 0) {
        TestEvent event =
            Tagged(kSessionManagerGuid, L"sm " + property + L"=" + value, kMorning, header);
        event.properties.push_back(StringProperty(property, value));
        return event;
    };
    constexpr wchar_t kUserPolicy[] = L"6c1c5d1e-7a39-4d4c-9a0b-3a4b5c6d7e8f";
    auto policy = [](const std::wstring& text, const wchar_t* activity,
                     std::optional<uint32_t> session = std::nullopt) {
        TestEvent event = Tagged(kGroupPolicyGuid, L"policy " + text, kMorning, session);
        event.activity = activity;
        return event;
    };
    processor.Feed({named(L"SessionID", L"2"), named(L"Session", L"3"),
                    named(L"Session", L"2", std::nullopt), named(L"Session", L"7", 3),
                    named(L"SessionID", L"2x"), named(L"SessionID", L"99999999999"),
                    Profile(L"profile held 1", kSystemSid),
                    Profile(L"profile other thread", kSystemSid, kMorning, 78),
                    Profile(L"profile held 2", kSystemSid),
                    Profile(L"profile event 1", kSystemSid, kMorning, 77, 1)});
    // A failing held-back event costs none of the others.
    processor.throwOnText = "profile held 1";
    EXPECT_THROW(processor.Feed({Profile(L"profile by SID", kAliceSid)}), std::runtime_error);
    processor.Feed({Profile(L"profile same thread", kSystemSid), policy(L"earlier", kUserPolicy),
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
    const uint64_t later = kMorning + 10 * 60 * kSecond;
    for (const size_t held : {1, 1000}) {
        auto& processor = Processor(SESSION_CONFIG{0, false, false, true});
        processor.Feed({CreateSession(2, kAliceSid, kMorning)});
        processor.ClearLines();
        processor.Feed(
            {Profile(L"stale", kSystemSid, kMorning - 1), Profile(L"aged", kSystemSid, kMorning)});
        processor.Feed(std::vector<TestEvent>(held, Profile(L"held", kSystemSid, later)));
        processor.Feed({Profile(L"by SID", kAliceSid, later)});
        const Lines handled = Handled(processor);
        EXPECT_EQ(handled.front(), held == 1 ? "aged @2" : "held @2");
        EXPECT_EQ(handled.size(), std::min<size_t>(held + 1, 1000) + 1);
    }
}

// A held-back event can settle its session when it is replayed: the event
// that claimed it then finds no session, and the logon ends once.
TEST_F(LogonProcessorTest, AReplayedEventThatSettlesTheSessionEndsItOnce) {
    auto& processor = Processor(SESSION_CONFIG{1000, false, false, true});
    processor.Feed(Logon(2, kAliceSid, kMorning));
    processor.ClearLines();
    const uint64_t late = kMorning + 60 * kSecond;
    processor.Feed({Profile(L"held", kSystemSid, late), Profile(L"by SID", kAliceSid, late)});
    EXPECT_EQ(processor.endedSessions.size(), 1u);
    EXPECT_THAT(Handled(processor), ElementsAre("held @2", "by SID @-1"));
}

TEST_F(LogonProcessorTest, AFailingHandlerLeavesTheProcessorUsable) {
    auto& processor = Processor();
    processor.Feed({CreateSession(2, kAliceSid, kMorning)});
    processor.throwOnText = "Received User Logon Event";
    EXPECT_THROW(processor.Feed({Login(2, kAliceSid, kMorning + kSecond)}), std::runtime_error);
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
