#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/logonmon/ProcessorHarness.h"
#include "trace/TextForms.h"

namespace plmx::testing {
namespace {

using logonmon::SESSION_CONFIG;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Durations = std::map<std::wstring, logonmon::NamedDuration>;

using EventHandlersTest = ProcessorFixture;

TestEvent Event(const wchar_t* provider, uint16_t id, std::optional<uint32_t> session,
                std::vector<PropertyDefinition> properties = {}) {
    TestEvent event;
    event.provider = provider;
    event.id = id;
    event.session = session;
    event.time = kMorning + 10 * kSecond;
    event.properties = std::move(properties);
    return event;
}

TestEvent ProfileService(uint16_t id, std::vector<PropertyDefinition> properties,
                         const std::wstring& sid = kAliceSid) {
    TestEvent event = Event(kUserProfilesGuid, id, 0, std::move(properties));
    event.sid = sid;
    return event;
}

TestEvent Agent(uint16_t id, std::vector<uint8_t> payload) {
    TestEvent event = Event(kRemoteAgentGuid, id, 2);
    event.payload = std::move(payload);
    return event;
}

constexpr uint64_t kAttachTime = kMorning + 10 * kSecond;

TEST_F(EventHandlersTest, ProfileServiceAndSessionManagerFillTheRecord) {
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    const std::vector<TestEvent> events = {
        ProfileService(6, {StringProperty(L"Source", L"\\\\fs\\p\\alice"),
                           StringProperty(L"Target", L"C:\\Users\\alice")}),
        ProfileService(7, {}),
        ProfileService(67, {StringProperty(L"LocalPath", L"")}),
        ProfileService(67, {StringProperty(L"LocalPath", L"C:\\Users\\alice")}),
        ProfileService(67, {StringProperty(L"LocalPath", L"C:\\Users\\temp")}),
        // The file names are matched in their exact case.
        ProfileService(5, {StringProperty(L"File", L"C:\\Users\\alice\\NTUSER.DAT")}),
        ProfileService(5, {StringProperty(L"File", L"C:\\Users\\alice\\ntuser.dat")}),
        ProfileService(5, {StringProperty(L"File", L"C:\\Users\\alice\\UsrClass.dat")}),
        ProfileService(5, {StringProperty(L"File", L"C:\\Users\\alice\\USRCLASS.DAT")}),
        Event(kSessionManagerGuid, 21, 0,
              {StringProperty(L"User", L"CORP\\alice"), StringProperty(L"SessionID", L"2"),
               StringProperty(L"Address", L"10.1.2.3")}),
    };
    for (size_t i = 0; i < events.size(); ++i) {
        TestEvent event = events[i];
        event.time += i;
        processor.Feed(event);
    }

    const auto session = processor.Session(2);
    EXPECT_EQ(session->profileSyncSource, L"\\\\fs\\p\\alice");
    EXPECT_EQ(session->profileSyncTarget, L"C:\\Users\\alice");
    EXPECT_EQ(session->localProfilePath, L"C:\\Users\\alice");
    EXPECT_EQ(session->clientUser, L"CORP\\alice");
    EXPECT_EQ(session->clientAddress, L"10.1.2.3");
    const uint64_t t = kMorning + 10 * kSecond;
    EXPECT_EQ(session->timingPoints,
              (logonmon::TimingPoints{{L"PROFILE_CLASSES_HIVE_LOADED", t + 7},
                                      {L"PROFILE_HIVE_LOADED", t + 6},
                                      {L"PROFILE_SYNC_START", t},
                                      {L"PROFILE_SYNC_STOP", t + 1},
                                      {L"WL_NotifyExecute_CreateSession_Start", kMorning}}));
    EXPECT_EQ(processor.lines.size(), 1u);
}

// A profile event reaches its handler without a session only when it was held
// back for a session that the event replayed before it timed out.
std::vector<TestEvent> HeldBackPastTimeout(TestEvent event) {
    auto onThread77 = [](TestEvent e, const wchar_t* sid, uint64_t time) {
        e.thread = 77;
        e.sid = sid;
        e.time = time;
        return e;
    };
    const TestEvent unrouted = ProfileService(1000, {});
    const uint64_t late = kMorning + 300 * kSecond;
    return {onThread77(unrouted, kSystemSid, late), onThread77(event, kBobSid, late + 1),
            onThread77(unrouted, kAliceSid, late + 2)};
}

TEST_F(EventHandlersTest, EventsWithoutTheirSessionOnlySaySo) {
    const std::string bySid = "Session Context Not Found. SID: " + logonmon::Utf8FromWide(kBobSid);
    TestEvent anonymous = ShellInitialized(7, kMorning + kSecond);
    anonymous.session.reset();
    struct Case {
        std::vector<TestEvent> events;
        std::string text;
        const wchar_t* function;
    };
    const Case cases[] = {
        {{ShellInitialized(7, kMorning + kSecond)},
         "Session Context Not Found. sessionId=7",
         L"Explorer_Initialized"},
        {{anonymous}, "Session Context Not Found. sessionId=-1", L"Explorer_Initialized"},
        {{SubscriberEvent(812, 2, kLogin, L"Profiles", 9, kMorning)},
         "Session Context Not Found. sessionId=9",
         L"Profiles_Finished"},
        {{Event(kSessionManagerGuid, 21, 0, {StringProperty(L"SessionID", L"6")})},
         "Session Context Not Found. sessionId=6",
         L"TS_LSM_Logon"},
        // The attach event's payload names the session, not its header.
        {{Attach(L"DESKTOP", kAttachTime, 132, 5)},
         "Session Context Not Found. sessionId=5",
         L"Tessera_SessionAttached"},
        {HeldBackPastTimeout(ProfileService(6, {})), bySid, L"Profiles_SyncStarted"},
        {HeldBackPastTimeout(ProfileService(7, {})), bySid, L"Profiles_SyncFinished"},
        {HeldBackPastTimeout(ProfileService(67, {})), bySid, L"Profiles_LoadedInfo"},
    };
    for (const Case& c : cases) {
        auto& processor = Processor(SESSION_CONFIG{120000, false, false, false});
        StartLogon(processor, 2, kAliceSid, kMorning);
        const auto before = processor.Session(2)->timingPoints;
        for (const TestEvent& event : c.events) {
            processor.Feed(event);
        }
        const auto lines = processor.LinesWith(c.text);
        ASSERT_EQ(lines.size(), 1u) << c.text;
        EXPECT_EQ(lines[0].level, 2u);
        EXPECT_EQ(lines[0].function, std::wstring(L"logonmon::LogonProcessor::") + c.function);
        const auto session = processor.Session(2);
        EXPECT_EQ(session ? session->timingPoints : processor.endedSessions.at(0).timingPoints,
                  before);
    }
}

TEST_F(EventHandlersTest, GroupPolicyCountsExtensionsAndSumsTheirTimes) {
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    auto started = [](const wchar_t* async, const wchar_t* changed) {
        return Event(kGroupPolicyGuid, 4016, 2,
                     {StringProperty(L"CSEExtensionName", L"Registry"),
                      StringProperty(L"IsExtensionAsyncProcessing", async),
                      StringProperty(L"IsGPOListChanged", changed)});
    };
    auto finished = [](const wchar_t* name, const wchar_t* ms, uint32_t error) {
        return Event(kGroupPolicyGuid, 5016, 2,
                     {StringProperty(L"CSEExtensionName", name),
                      StringProperty(L"CSEElaspedTimeInMilliSeconds", ms),
                      UInt32Property(L"ErrorCode", error)});
    };
    for (const TestEvent& event :
         {started(L"1", L"0"), started(L"-1", L"True"), started(L"false", L"true"),
          started(L"", L"00"), finished(L"Registry", L"1200", 0), finished(L"Registry", L"34", 0),
          finished(L"Scripts", L"250", 0x80070005), finished(L"Scripts", L"n/a", 0),
          finished(L"Drive Maps", L"-1", 0),
          Event(kGroupPolicyGuid, 8001, 2,
                {StringProperty(L"PolicyElaspedTimeInSeconds", L"7")})}) {
        processor.Feed(event);
    }

    const auto session = processor.Session(2);
    EXPECT_EQ(session->asyncPolicies, 2);
    EXPECT_EQ(session->syncPolicies, 2);
    EXPECT_EQ(session->changedPolicies, 2);
    EXPECT_EQ(session->failedPolicies, 1);
    EXPECT_EQ(session->cseDurations,
              (std::map<std::wstring, uint32_t>{
                  {L"Drive Maps", 0}, {L"Registry", 1234}, {L"Scripts", 250}}));
    EXPECT_EQ(session->namedDurations, (Durations{{L"User Policy Time", 7}}));
}

TEST_F(EventHandlersTest, MachinePolicyTimeGoesToEveryOpenSession) {
    auto machine = [](const wchar_t* seconds) {
        return Event(kGroupPolicyGuid, 8004, std::nullopt,
                     {StringProperty(L"PolicyElaspedTimeInSeconds", seconds)});
    };
    auto& processor = Processor();
    processor.Feed(machine(L"3"));
    EXPECT_THAT(processor.lines, IsEmpty());

    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(CreateSession(3, kBobSid, kMorning));
    processor.Feed(machine(L"3"));
    processor.Feed(machine(L"x"));
    const auto sessions = processor.Sessions();
    ASSERT_EQ(sessions.size(), 2u);
    for (const auto& session : sessions) {
        EXPECT_EQ(session.namedDurations, (Durations{{L"Machine Policy Time", 3}}));
    }
}

TEST_F(EventHandlersTest, AgentAttachMarksApplicationSessions) {
    struct Case {
        TestEvent event;
        bool application;
        bool badLength;
    };
    const Case cases[] = {
        {Attach(L"Application", kAttachTime), true, false},
        {Attach(L"DESKTOP", kAttachTime), false, false},
        {Attach(L"APPLICATION", kAttachTime, 131), false, true},
        {Attach(L"APPLICATION", kAttachTime, 133), false, true},
        {Agent(11, {2, 0, 0}), false, true},
    };
    for (const Case& c : cases) {
        auto& processor = Processor();
        processor.Feed(CreateSession(2, kAliceSid, kMorning));
        processor.Feed(c.event);

        const auto session = processor.Session(2);
        EXPECT_EQ(session->timingPoints.at(L"TX_ATTACHED"), kAttachTime);
        EXPECT_EQ(session->applicationSession, c.application) << c.event.payload->size();
        std::vector<std::string> expected = {"Session Initialized Successfully: sessionId=2",
                                             "Tessera Session Attached"};
        if (c.badLength) {
            expected.push_back("Tessera_SessionAttached event bad payload length");
        }
        EXPECT_EQ(processor.Texts(), expected) << c.event.payload->size();
    }
}

TEST_F(EventHandlersTest, AgentGenericEventReadsEachTextWithinItsField) {
    auto generic = [](const std::wstring& product, size_t size = 3092) {
        return Agent(16,
                     AgentPayload(size, 2, {{20, product}, {1044, L"Agent"}, {2068, L"Logon"}}));
    };
    auto& processor = Processor();
    processor.Feed(generic(L"Broker"));
    // Not terminated inside its field: ends there, not in the next field.
    processor.Feed(generic(std::wstring(513, L'P')));
    processor.Feed(generic(L"Broker", 3091));
    processor.Feed(generic(L"Broker", 3093));

    EXPECT_THAT(processor.Texts(),
                ElementsAre("Tessera Event: Product: Broker, Component: Agent, Event: Logon",
                            "Tessera Event: Product: " + std::string(512, 'P') +
                                ", Component: Agent, Event: Logon",
                            "Tessera PLMX generic event has a bad payload length",
                            "Tessera PLMX generic event has a bad payload length"));
    EXPECT_EQ(processor.lines[0].level, 4u);
    EXPECT_EQ(processor.lines[0].function, L"logonmon::LogonProcessor::Tessera_PLMXGeneric");
    EXPECT_EQ(processor.lines[2].level, 2u);
}

}  // namespace
}  // namespace plmx::testing
