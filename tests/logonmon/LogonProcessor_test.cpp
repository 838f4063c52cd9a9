#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <thread>

#include "logonmon/CurrentRecord.h"
#include "tests/logonmon/ProcessorHarness.h"
#include "trace/TextForms.h"

namespace plmx::testing {
namespace {

using logonmon::SESSION_CONFIG;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr wchar_t kCreateSessionFn[] = L"logonmon::LogonProcessor::Winlogon_CreateSession";
constexpr wchar_t kLoginFn[] = L"logonmon::LogonProcessor::Winlogon_Login_Started";
constexpr wchar_t kStateFn[] = L"logonmon::LogonProcessor::ProcessSessionState";

std::string Narrow(const std::wstring& text) {
    return logonmon::Utf8FromWide(text);
}

using LogonProcessorTest = ProcessorFixture;

TEST_F(LogonProcessorTest, FollowsALogonFromCreateSessionToShellInitialized) {
    accounts_.accounts[kAliceSid] = {L"CORP", L"alice"};
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(Login(2, kAliceSid, kMorning + kSecond));
    processor.Feed(SubscriberEvent(811, 1, kLogin, L"Profiles", 2, kMorning + 2 * kSecond));
    processor.Feed(SubscriberEvent(812, 2, kLogin, L"Profiles", 2, kMorning + 5 * kSecond));
    processor.Feed(NotifyStop(kLogin, 2, kMorning + 9 * kSecond));
    processor.Feed(NotifyStart(kStartShell, 2, kMorning + 10 * kSecond));
    processor.Feed(NotifyStop(kStartShell, 2, kMorning + 11 * kSecond));
    ASSERT_THAT(processor.endedSessions, IsEmpty());
    processor.Feed(ShellInitialized(2, kMorning + 15 * kSecond));

    EXPECT_THAT(processor.Texts(), ElementsAre("Session Initialized Successfully: sessionId=2",
                                               "Received User Logon Event",
                                               "SID: " + Narrow(kAliceSid) + ". sessionId=2",
                                               "LOGON: User: CORP\\alice", "Shell Initialized"));
    const auto& lines = processor.lines;
    EXPECT_EQ(lines[0].function, kCreateSessionFn);
    EXPECT_EQ(lines[0].level, 5u);
    EXPECT_EQ(lines[3].function, kLoginFn);
    EXPECT_EQ(lines[3].level, 4u);
    EXPECT_EQ(lines[4].function, L"logonmon::LogonProcessor::Explorer_Initialized");
    for (const LogLine& line : lines) {
        EXPECT_EQ(line.session, 2) << line.text;
    }

    EXPECT_THAT(processor.logonStarts, ElementsAre(2u));
    ASSERT_EQ(processor.endedSessions.size(), 1u);
    const auto& ended = processor.endedSessions[0];
    EXPECT_TRUE(ended.logonComplete);
    EXPECT_EQ(ended.userSidText, kAliceSid);
    EXPECT_EQ(ended.profileFinished, 0xFFFFFFFFu);
    EXPECT_EQ(ended.timingPoints,
              (logonmon::TimingPoints{
                  {L"Explorer_Initialized_Stop", kMorning + 15 * kSecond},
                  {L"WL_CallSubscriber_Profiles_Login_Start", kMorning + 2 * kSecond},
                  {L"WL_CallSubscriber_Profiles_Login_Stop", kMorning + 5 * kSecond},
                  {L"WL_NotifyExecute_CreateSession_Start", kMorning},
                  {L"WL_NotifyExecute_Login_Start", kMorning + kSecond},
                  {L"WL_NotifyExecute_Login_Stop", kMorning + 9 * kSecond},
                  {L"WL_NotifyExecute_StartShell_Start", kMorning + 10 * kSecond},
                  {L"WL_NotifyExecute_StartShell_Stop", kMorning + 11 * kSecond},
              }));
    EXPECT_THAT(processor.Sessions(), IsEmpty());
}

TEST_F(LogonProcessorTest, LoginWithoutCreateSessionStartsTheSession) {
    auto& processor = Processor();
    processor.Feed(Login(3, kAliceSid, kMorning));

    EXPECT_THAT(processor.Texts(),
                ElementsAre("Received User Logon Event",
                            "Session Context Not Found. Attempting To Init A New One. sessionId=3",
                            "New Session Initialized Successfully: sessionId=3",
                            "SID: " + Narrow(kAliceSid) + ". sessionId=3"));
    EXPECT_EQ(processor.lines[1].level, 2u);
    EXPECT_EQ(processor.lines[2].level, 4u);
    EXPECT_THAT(processor.logonStarts, ElementsAre(3u));
    const auto session = processor.Session(3);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->timingPoints.at(L"WL_NotifyExecute_Login_Start"), kMorning);
    // No account resolves: no LOGON line.
}

TEST_F(LogonProcessorTest, SessionsAreNotCreatedWithoutSidOrSessionId) {
    auto& processor = Processor();
    TestEvent createWithoutSid = CreateSession(5, kAliceSid, kMorning);
    createWithoutSid.sid.reset();
    TestEvent loginWithoutSid = Login(4, kAliceSid, kMorning);
    loginWithoutSid.sid.reset();
    TestEvent loginWithoutSession = Login(0, kAliceSid, kMorning);
    loginWithoutSession.session.reset();

    processor.Feed(createWithoutSid);
    processor.Feed(loginWithoutSid);
    processor.Feed(loginWithoutSession);

    EXPECT_THAT(
        processor.Texts(),
        ElementsAre("InitSession Failed, sessionId=5", "Received User Logon Event",
                    "Session Context Not Found. Attempting To Init A New One. sessionId=4",
                    "Failed Initializing Session: 0x0, sessionId=4", "Received User Logon Event",
                    "Session Context Not Found. Attempting To Init A New One. sessionId=-1",
                    "Failed Initializing Session: 0x0, sessionId=-1"));
    EXPECT_EQ(processor.lines[0].function, kCreateSessionFn);
    EXPECT_EQ(processor.lines[0].level, 2u);
    EXPECT_THAT(processor.Sessions(), IsEmpty());
    EXPECT_THAT(processor.logonStarts, IsEmpty());
}

TEST_F(LogonProcessorTest, ShellInitializedBeforeStartShellStopCompletesAtStartShellStop) {
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(ShellInitialized(2, kMorning + 5 * kSecond));
    processor.Feed(NotifyStart(kStartShell, 2, kMorning + 6 * kSecond));
    EXPECT_THAT(processor.endedSessions, IsEmpty());

    processor.Feed(NotifyStop(kStartShell, 2, kMorning + 7 * kSecond));
    ASSERT_EQ(processor.endedSessions.size(), 1u);
    EXPECT_THAT(processor.Sessions(), IsEmpty());
}

TEST_F(LogonProcessorTest, EndingNotificationsSettleAStartedShellAtOnce) {
    for (const Notification ending : {kLogoff, kEndShell, kTerminateSession}) {
        auto& processor = Processor();
        StartLogon(processor, 2, kAliceSid, kMorning);
        processor.Feed(NotifyStart(ending, 2, kMorning + 30 * kSecond));

        const auto lines = processor.LinesWith("Session is ending...");
        ASSERT_EQ(lines.size(), 1u) << ending;
        EXPECT_EQ(lines[0].level, 4u);
        EXPECT_EQ(lines[0].function, kStateFn);
        ASSERT_EQ(processor.endedSessions.size(), 1u);
        EXPECT_FALSE(processor.endedSessions[0].timingPoints.count(L"Explorer_Initialized_Stop"));
        EXPECT_THAT(processor.Sessions(), IsEmpty());
    }
}

TEST_F(LogonProcessorTest, ASessionEndingBeforeItsShellStartedIsNeverSettled) {
    auto& processor = Processor(SESSION_CONFIG{120000, false, true, false});
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(NotifyStart(kLogoff, 2, kMorning + kSecond));
    processor.Feed(NotifyStart(kTerminateSession, 2, kMorning + 2 * kSecond));
    clock_.now = kMorning + 3600 * kSecond;
    timers_.Fire();
    processor.RunSessionTimeoutCheck(true);

    EXPECT_THAT(processor.endedSessions, IsEmpty());
    EXPECT_EQ(processor.Sessions().size(), 1u);
    EXPECT_THAT(processor.LinesWith("Session is ending..."), IsEmpty());
}

TEST_F(LogonProcessorTest, TimesOutFromTheLastStartShellStop) {
    auto& processor = Processor(SESSION_CONFIG{120000, false, true, false});
    StartLogon(processor, 2, kAliceSid, kMorning);
    const uint64_t shellStarted = kMorning + 60 * kSecond;
    processor.Feed(NotifyStop(kStartShell, 2, shellStarted));

    clock_.now = shellStarted + 120 * kSecond;
    timers_.Fire();
    EXPECT_THAT(processor.endedSessions, IsEmpty());

    clock_.now = shellStarted + 121 * kSecond;
    timers_.Fire();
    const std::string expected =
        "Timed out waiting for Tessera Session Attached event.  Shell started at " +
        Narrow(logonmon::TimestampText(shellStarted, true)) + ".  Timeout " +
        Narrow(logonmon::TimestampText(shellStarted + 120 * kSecond, true)) + ".  sessionId=2";
    const auto lines = processor.LinesWith(expected);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 2u);
    EXPECT_EQ(lines[0].function, kStateFn);
    // Written with the session's last event, so it reaches the session's log.
    EXPECT_EQ(lines[0].session, 2);
    ASSERT_EQ(processor.endedSessions.size(), 1u);
    EXPECT_TRUE(processor.endedSessions[0].logonComplete);

    timers_.Fire();
    EXPECT_EQ(processor.endedSessions.size(), 1u);
}

TEST_F(LogonProcessorTest, ALateEventOfAnOverdueSessionTimesItOut) {
    auto& processor = Processor(SESSION_CONFIG{120000, false, false, false});
    StartLogon(processor, 2, kAliceSid, kMorning);
    processor.Feed(NotifyStart(kLogin, 2, kMorning + 200 * kSecond));
    EXPECT_EQ(processor.endedSessions.size(), 1u);
    EXPECT_EQ(processor.LinesWith("Shell Initialized").size(), 0u);
}

TEST_F(LogonProcessorTest, WithoutTimeoutOnlyAForcedCheckSettlesAStartedShell) {
    auto& processor = Processor(SESSION_CONFIG{0, false, true, false});
    StartLogon(processor, 2, kAliceSid, kMorning);
    clock_.now = kMorning + 7 * 24 * 3600 * kSecond;
    timers_.Fire();
    processor.Feed(NotifyStart(kLogin, 2, clock_.now));
    EXPECT_THAT(processor.endedSessions, IsEmpty());

    processor.RunSessionTimeoutCheck(true);
    ASSERT_EQ(processor.endedSessions.size(), 1u);
    EXPECT_TRUE(processor.endedSessions[0].logonComplete);
    EXPECT_THAT(processor.Texts(),
                ::testing::Not(::testing::Contains(::testing::StartsWith("Timed out"))));
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
        const std::vector<bool> sampling =
            c.realTime ? std::vector<bool>{true, false} : std::vector<bool>{};
        EXPECT_EQ(processor.sampling, sampling);
    }
}

TEST_F(LogonProcessorTest, ReusedSessionIdsKeepTheirLogonsApart) {
    auto& processor = Processor();
    // The first logon of session 2 never reaches its shell and stays open.
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(Login(2, kAliceSid, kMorning + kSecond));
    const uint64_t second = kMorning + 600 * kSecond;
    processor.Feed(CreateSession(2, kBobSid, second));
    processor.Feed(Login(2, kBobSid, second + kSecond));
    // A late event of the first logon.
    processor.Feed(NotifyStop(kLogin, 2, kMorning + 9 * kSecond));
    processor.Feed(NotifyStop(kLogin, 2, second + 9 * kSecond));
    // Before either logon: belongs to neither.
    processor.Feed(NotifyStart(kStartShell, 2, kMorning - kSecond));

    const auto sessions = processor.Sessions();
    ASSERT_EQ(sessions.size(), 2u);
    EXPECT_EQ(sessions[0].userSidText, kAliceSid);
    EXPECT_EQ(sessions[0].timingPoints.at(L"WL_NotifyExecute_Login_Start"), kMorning + kSecond);
    EXPECT_EQ(sessions[0].timingPoints.at(L"WL_NotifyExecute_Login_Stop"), kMorning + 9 * kSecond);
    EXPECT_EQ(sessions[1].userSidText, kBobSid);
    EXPECT_EQ(sessions[1].timingPoints.at(L"WL_NotifyExecute_Login_Start"), second + kSecond);
    EXPECT_EQ(sessions[1].timingPoints.at(L"WL_NotifyExecute_Login_Stop"), second + 9 * kSecond);
    EXPECT_FALSE(sessions[0].timingPoints.count(L"WL_NotifyExecute_StartShell_Start"));
    EXPECT_FALSE(sessions[1].timingPoints.count(L"WL_NotifyExecute_StartShell_Start"));
}

TEST_F(LogonProcessorTest, WinlogonTimingPointNames) {
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    TestEvent withoutSubscriber = SubscriberEvent(811, 1, kLogin, L"", 2, kMorning + 1);
    withoutSubscriber.properties.pop_back();
    processor.Feed(withoutSubscriber);
    TestEvent infoOpcode = SubscriberEvent(811, 0, kLogin, L"Sens", 2, kMorning + 2);
    infoOpcode.opcodeName = L" Info ";
    processor.Feed(infoOpcode);
    TestEvent userinit;
    userinit.provider = kWinlogonGuid;
    userinit.id = 10;
    userinit.session = 2;
    userinit.time = kMorning + 3;
    processor.Feed(userinit);
    TestEvent noNotification = NotifyStart(kLogin, 2, kMorning + 4);
    noNotification.properties.clear();
    noNotification.message = L"malformed";
    processor.Feed(noNotification);

    const auto session = processor.Session(2);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->timingPoints,
              (logonmon::TimingPoints{{L"WL_CallSubscriber_Login_Start", kMorning + 1},
                                      {L"WL_CallSubscriber_Sens_Login_Info", kMorning + 2},
                                      {L"WL_NotifyExecute_CreateSession_Start", kMorning},
                                      {L"WL_USERINIT_STOP", kMorning + 3}}));
}

TEST_F(LogonProcessorTest, EventsWithoutTheirSessionChangeNothingElse) {
    auto& processor = Processor(SESSION_CONFIG{0, false, false, true});
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    const auto before = processor.Session(2)->timingPoints;

    processor.Feed(ShellInitialized(7, kMorning + kSecond));
    TestEvent anonymous = ShellInitialized(0, kMorning + kSecond);
    anonymous.session.reset();
    processor.Feed(anonymous);
    TestEvent profilesFinished = SubscriberEvent(812, 2, kLogin, L"Profiles", 9, kMorning);
    processor.Feed(profilesFinished);
    TestEvent unknown;
    unknown.provider = L"11111111-2222-3333-4444-555555555555";
    unknown.id = 801;
    unknown.session = 2;
    unknown.message = L"someone else's";
    processor.Feed(unknown);

    const auto notFound = [&](const char* text) { return processor.LinesWith(text); };
    ASSERT_EQ(notFound("Session Context Not Found. sessionId=7").size(), 1u);
    EXPECT_EQ(notFound("Session Context Not Found. sessionId=7")[0].level, 2u);
    EXPECT_EQ(notFound("Session Context Not Found. sessionId=7")[0].function,
              L"logonmon::LogonProcessor::Explorer_Initialized");
    EXPECT_EQ(notFound("Session Context Not Found. sessionId=-1").size(), 1u);
    ASSERT_EQ(notFound("Session Context Not Found. sessionId=9").size(), 1u);
    EXPECT_EQ(notFound("Session Context Not Found. sessionId=9")[0].function,
              L"logonmon::LogonProcessor::Profiles_Finished");
    // The unknown provider's event is only logged, bound to its session.
    const auto logged = processor.LinesWith("someone else's");
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].session, 2);
    EXPECT_EQ(logged[0].function, L"logonmon::LogonProcessor::LogEventAsString");
    EXPECT_EQ(processor.Session(2)->timingPoints, before);
}

TEST_F(LogonProcessorTest, ServicesNameTheSessionInAProperty) {
    struct Case {
        std::wstring property;
        std::wstring value;
        int64_t session;
    };
    for (const Case& c :
         {Case{L"SessionID", L"2", 2}, Case{L"Session", L"2", 2}, Case{L"SessionID", L"2x", -1},
          Case{L"SessionID", L"", -1}, Case{L"SessionID", L"99999999999", -1}}) {
        auto& processor = Processor(SESSION_CONFIG{0, false, false, true});
        processor.Feed(CreateSession(2, kAliceSid, kMorning));
        TestEvent event;
        event.provider = kSessionManagerGuid;
        event.id = 40;
        event.session = 0;  // written in the services' session
        event.time = kMorning + kSecond;
        event.message = L"session manager";
        event.properties.push_back(StringProperty(c.property, c.value));
        processor.Feed(event);

        const auto lines = processor.LinesWith("session manager");
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].session, c.session) << Narrow(c.property + L"=" + c.value);
    }
}

// What LogEventAsString wrote for the events whose text starts with `prefix`,
// with the session each was handled for, in order.
std::vector<std::pair<std::string, int64_t>> Handled(const RecordingProcessor& processor,
                                                     const std::string& prefix) {
    std::vector<std::pair<std::string, int64_t>> handled;
    for (const LogLine& line : processor.lines) {
        if (line.function == L"logonmon::LogonProcessor::LogEventAsString" &&
            line.text.rfind(prefix, 0) == 0) {
            handled.emplace_back(line.text, line.session);
        }
    }
    return handled;
}

using Handling = std::pair<std::string, int64_t>;

TestEvent ProfileEvent(const std::wstring& text, uint32_t thread, const std::wstring& sid,
                       uint64_t time, uint16_t id = 1000) {
    TestEvent event;
    event.provider = kUserProfilesGuid;
    event.id = id;
    event.session = 0;
    event.sid = sid;
    event.thread = thread;
    event.time = time;
    event.message = L"profile " + text;
    return event;
}

TEST_F(LogonProcessorTest, ProfileEventsWaitForTheSessionOfTheirThread) {
    auto& processor = Processor(SESSION_CONFIG{0, false, false, true});
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(ProfileEvent(L"held 1", 77, kSystemSid, kMorning + 1));
    processor.Feed(ProfileEvent(L"other thread", 78, kSystemSid, kMorning + 2));
    processor.Feed(ProfileEvent(L"held 2", 77, kSystemSid, kMorning + 3));
    processor.Feed(ProfileEvent(L"event 1", 77, kSystemSid, kMorning + 4, 1));
    EXPECT_THAT(Handled(processor, "profile"), ElementsAre(Handling{"profile event 1", -1}));

    // Found by its SID, this event ties thread 77 to session 2.
    processor.Feed(ProfileEvent(L"by SID", 77, kAliceSid, kMorning + 5));
    processor.Feed(ProfileEvent(L"same thread", 77, kSystemSid, kMorning + 6));

    EXPECT_THAT(Handled(processor, "profile"),
                ElementsAre(Handling{"profile event 1", -1}, Handling{"profile held 1", 2},
                            Handling{"profile held 2", 2}, Handling{"profile by SID", 2},
                            Handling{"profile same thread", 2}));
}

TEST_F(LogonProcessorTest, HeldBackEventsAreBoundedByAgeAndCount) {
    auto& processor = Processor(SESSION_CONFIG{0, false, false, true});
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

TestEvent PolicyEvent(const std::wstring& text, const std::wstring& activity,
                      std::optional<uint32_t> session, uint64_t time) {
    TestEvent event;
    event.provider = kGroupPolicyGuid;
    event.id = 5312;
    event.session = session;
    event.activity = activity;
    event.time = time;
    event.message = L"policy " + text;
    return event;
}

TEST_F(LogonProcessorTest, PolicyEventsFindTheirSessionThroughTheirActivity) {
    constexpr wchar_t kUserPolicy[] = L"6c1c5d1e-7a39-4d4c-9a0b-3a4b5c6d7e8f";
    constexpr wchar_t kOtherPolicy[] = L"0f0e0d0c-0b0a-0908-0706-050403020100";
    auto& processor = Processor(SESSION_CONFIG{0, false, false, true});
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(PolicyEvent(L"earlier", kUserPolicy, std::nullopt, kMorning + 1));
    processor.Feed(PolicyEvent(L"unclaimed", kOtherPolicy, std::nullopt, kMorning + 2));
    processor.Feed(PolicyEvent(L"with session", kUserPolicy, 2, kMorning + 3));
    processor.Feed(PolicyEvent(L"later", kUserPolicy, std::nullopt, kMorning + 4));
    processor.Feed(PolicyEvent(L"no activity", L"00000000-0000-0000-0000-000000000000",
                               std::nullopt, kMorning + 5));

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
    auto other = std::async(std::launch::async, [&processor] {
        processor.Feed(NotifyStop(kStartShell, 2, kMorning + 2 * kSecond));
        processor.Feed(ShellInitialized(2, kMorning + 3 * kSecond));
    });
    ASSERT_EQ(other.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    other.get();
    EXPECT_EQ(processor.endedSessions.size(), 1u);
}

}  // namespace
}  // namespace plmx::testing
