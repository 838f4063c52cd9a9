#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/logonmon/ProcessorHarness.h"
#include "trace/TextForms.h"

namespace plmx::testing {
namespace {

using logonmon::SESSION_CONFIG;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using EventHandlersTest = ProcessorFixture;

TestEvent ProfileService(uint16_t id, uint64_t time, std::vector<PropertyDefinition> properties,
                         const std::wstring& sid = kAliceSid) {
    TestEvent event;
    event.provider = kUserProfilesGuid;
    event.id = id;
    event.session = 0;
    event.sid = sid;
    event.thread = 0x51c;
    event.time = time;
    event.properties = std::move(properties);
    return event;
}

TestEvent Policy(uint16_t id, std::optional<uint32_t> session,
                 std::vector<PropertyDefinition> properties) {
    TestEvent event;
    event.provider = kGroupPolicyGuid;
    event.id = id;
    event.session = session;
    event.time = kMorning + 5 * kSecond;
    event.properties = std::move(properties);
    return event;
}

TestEvent Agent(uint16_t id, uint32_t headerSession, std::vector<uint8_t> payload) {
    TestEvent event;
    event.provider = kRemoteAgentGuid;
    event.id = id;
    event.session = headerSession;
    event.time = kMorning + 25 * kSecond;
    event.payload = std::move(payload);
    return event;
}

// Writes `text` as UTF-16 into a field of `units`, cut at the field's end.
void PutText(std::vector<uint8_t>& payload, size_t offset, size_t units, const std::wstring& text) {
    for (size_t i = 0; i < units && i < text.size(); ++i) {
        payload[offset + 2 * i] = static_cast<uint8_t>(text[i]);
        payload[offset + 2 * i + 1] = static_cast<uint8_t>(text[i] >> 8);
    }
}

std::vector<uint8_t> AttachPayload(uint32_t session, const std::wstring& type, size_t size = 132) {
    std::vector<uint8_t> payload(size, 0);
    const auto id = UInt32Bytes(session);
    std::copy(id.begin(), id.end(), payload.begin());
    PutText(payload, 4, (size - 4) / 2, type);
    return payload;
}

std::vector<uint8_t> GenericPayload(const std::wstring& product, const std::wstring& component,
                                    const std::wstring& event, size_t size = 3092) {
    std::vector<uint8_t> payload(size, 0);
    PutText(payload, 20, 512, product);
    PutText(payload, 1044, 512, component);
    if (size >= 2068 + 1024) {
        PutText(payload, 2068, 512, event);
    }
    return payload;
}

TEST_F(EventHandlersTest, ProfileServiceRecordsHivesSyncAndLocalPath) {
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(Login(2, kAliceSid, kMorning + 1));
    const uint64_t t = kMorning + 10 * kSecond;
    processor.Feed(ProfileService(6, t,
                                  {StringProperty(L"Source", L"\\\\fs\\profiles\\alice"),
                                   StringProperty(L"Target", L"C:\\Users\\alice")}));
    processor.Feed(ProfileService(7, t + 1, {}));
    processor.Feed(ProfileService(67, t + 2, {StringProperty(L"LocalPath", L"")}));
    processor.Feed(ProfileService(67, t + 3, {StringProperty(L"LocalPath", L"C:\\Users\\alice")}));
    processor.Feed(ProfileService(67, t + 4, {StringProperty(L"LocalPath", L"C:\\Users\\temp")}));
    // The file names are matched in their exact case.
    processor.Feed(
        ProfileService(5, t + 5, {StringProperty(L"File", L"C:\\Users\\alice\\NTUSER.DAT")}));
    processor.Feed(
        ProfileService(5, t + 6, {StringProperty(L"File", L"C:\\Users\\alice\\ntuser.dat")}));
    processor.Feed(ProfileService(
        5, t + 7,
        {StringProperty(L"File",
                        L"C:\\Users\\alice\\AppData\\Local\\Microsoft\\Windows\\UsrClass.dat")}));
    processor.Feed(ProfileService(5, t + 8, {StringProperty(L"File", L"C:\\Windows\\system.dat")}));

    const auto session = processor.Session(2);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->profileSyncSource, L"\\\\fs\\profiles\\alice");
    EXPECT_EQ(session->profileSyncTarget, L"C:\\Users\\alice");
    EXPECT_EQ(session->localProfilePath, L"C:\\Users\\alice");
    const auto& points = session->timingPoints;
    EXPECT_EQ(points.at(L"PROFILE_SYNC_START"), t);
    EXPECT_EQ(points.at(L"PROFILE_SYNC_STOP"), t + 1);
    EXPECT_EQ(points.at(L"PROFILE_HIVE_LOADED"), t + 6);
    EXPECT_EQ(points.at(L"PROFILE_CLASSES_HIVE_LOADED"), t + 7);
    EXPECT_THAT(
        processor.Texts(),
        ::testing::Not(::testing::Contains(::testing::StartsWith("Session Context Not Found"))));
}

// A session that a held-back event times out takes none of the events that
// were held back with it.
TEST_F(EventHandlersTest, ProfileEventsOfASettledSessionFindNoContext) {
    auto& processor = Processor(SESSION_CONFIG{120000, false, false, false});
    StartLogon(processor, 2, kAliceSid, kMorning);
    const uint64_t late = kMorning + 300 * kSecond;
    processor.Feed(ProfileService(1000, late, {}, kSystemSid));
    processor.Feed(ProfileService(7, late + 1, {}, kSystemSid));
    processor.Feed(
        ProfileService(67, late + 2, {StringProperty(L"LocalPath", L"C:\\Users\\alice")}));

    EXPECT_EQ(processor.endedSessions.size(), 1u);
    const auto stop = processor.LinesWith("Session Context Not Found. SID: S-1-5-18");
    ASSERT_EQ(stop.size(), 1u);
    EXPECT_EQ(stop[0].function, L"logonmon::LogonProcessor::Profiles_SyncFinished");
    EXPECT_EQ(stop[0].level, 2u);
    const auto info =
        processor.LinesWith("Session Context Not Found. SID: " + logonmon::Utf8FromWide(kAliceSid));
    ASSERT_EQ(info.size(), 1u);
    EXPECT_EQ(info[0].function, L"logonmon::LogonProcessor::Profiles_LoadedInfo");
}

TEST_F(EventHandlersTest, GroupPolicyCountsExtensionsAndSumsTheirTimes) {
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    auto started = [](const wchar_t* async, const wchar_t* changed) {
        return Policy(4016, 2,
                      {StringProperty(L"CSEExtensionName", L"Registry"),
                       StringProperty(L"DescriptionString", L"Registry"),
                       StringProperty(L"IsExtensionAsyncProcessing", async),
                       StringProperty(L"IsGPOListChanged", changed)});
    };
    auto finished = [](const wchar_t* name, const wchar_t* ms, uint32_t error) {
        return Policy(5016, 2,
                      {StringProperty(L"CSEExtensionName", name),
                       StringProperty(L"CSEElaspedTimeInMilliSeconds", ms),
                       UInt32Property(L"ErrorCode", error)});
    };
    processor.Feed(started(L"true", L"false"));
    processor.Feed(started(L"TRUE", L"True"));
    processor.Feed(started(L"false", L"true"));
    processor.Feed(started(L"", L""));
    processor.Feed(finished(L"Registry", L"1200", 0));
    processor.Feed(finished(L"Registry", L"34", 0));
    processor.Feed(finished(L"Scripts", L"250", 0x80070005));
    processor.Feed(finished(L"Scripts", L"n/a", 0));
    processor.Feed(finished(L"Drive Maps", L"-1", 0));
    processor.Feed(Policy(8001, 2, {StringProperty(L"PolicyElaspedTimeInSeconds", L"7")}));

    const auto session = processor.Session(2);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->asyncPolicies, 2);
    EXPECT_EQ(session->syncPolicies, 2);
    EXPECT_EQ(session->changedPolicies, 2);
    EXPECT_EQ(session->failedPolicies, 1);
    EXPECT_EQ(session->cseDurations,
              (std::map<std::wstring, uint32_t>{{L"Registry", 1234}, {L"Scripts", 250}}));
    EXPECT_EQ(session->namedDurations,
              (std::map<std::wstring, logonmon::NamedDuration>{{L"User Policy Time", 7}}));
}

TEST_F(EventHandlersTest, MachinePolicyTimeGoesToEveryOpenSession) {
    auto& processor = Processor();
    const TestEvent machine =
        Policy(8004, std::nullopt, {StringProperty(L"PolicyElaspedTimeInSeconds", L"3")});
    processor.Feed(machine);
    EXPECT_THAT(processor.lines, IsEmpty());

    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(CreateSession(3, kBobSid, kMorning));
    processor.Feed(machine);
    processor.Feed(
        Policy(8004, std::nullopt, {StringProperty(L"PolicyElaspedTimeInSeconds", L"x")}));

    const auto sessions = processor.Sessions();
    ASSERT_EQ(sessions.size(), 2u);
    for (const auto& session : sessions) {
        EXPECT_EQ(session.namedDurations,
                  (std::map<std::wstring, logonmon::NamedDuration>{{L"Machine Policy Time", 3}}));
    }
}

TEST_F(EventHandlersTest, SessionManagerNamesTheClient) {
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    auto logon = [](const wchar_t* session) {
        TestEvent event;
        event.provider = kSessionManagerGuid;
        event.id = 21;
        event.session = 0;
        event.time = kMorning + kSecond;
        event.properties = {StringProperty(L"User", L"CORP\\alice"),
                            StringProperty(L"SessionID", session),
                            StringProperty(L"Address", L"10.1.2.3")};
        return event;
    };
    processor.Feed(logon(L"2"));
    processor.Feed(logon(L"6"));

    const auto session = processor.Session(2);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->clientUser, L"CORP\\alice");
    EXPECT_EQ(session->clientAddress, L"10.1.2.3");
    const auto notFound = processor.LinesWith("Session Context Not Found. sessionId=6");
    ASSERT_EQ(notFound.size(), 1u);
    EXPECT_EQ(notFound[0].function, L"logonmon::LogonProcessor::TS_LSM_Logon");
}

TEST_F(EventHandlersTest, AgentAttachMarksApplicationSessions) {
    struct Case {
        std::vector<uint8_t> payload;
        bool application;
        bool badLength;
    };
    const std::vector<Case> cases = {
        {AttachPayload(2, L"Application"), true, false},
        {AttachPayload(2, L"DESKTOP"), false, false},
        {AttachPayload(2, L"APPLICATION", 131), false, true},
        {AttachPayload(2, L"APPLICATION", 133), false, true},
        {{2, 0, 0}, false, true},
    };
    for (const Case& c : cases) {
        auto& processor = Processor();
        processor.Feed(CreateSession(2, kAliceSid, kMorning));
        processor.Feed(Agent(11, 2, c.payload));

        const auto session = processor.Session(2);
        ASSERT_TRUE(session);
        EXPECT_EQ(session->timingPoints.at(L"TX_ATTACHED"), kMorning + 25 * kSecond);
        EXPECT_EQ(session->applicationSession, c.application) << c.payload.size();
        std::vector<std::string> expected = {"Session Initialized Successfully: sessionId=2",
                                             "Tessera Session Attached"};
        if (c.badLength) {
            expected.push_back("Tessera_SessionAttached event bad payload length");
        }
        EXPECT_EQ(processor.Texts(), expected) << c.payload.size();
    }
}

TEST_F(EventHandlersTest, AgentAttachFindsItsSessionByThePayload) {
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(Agent(11, 2, AttachPayload(5, L"DESKTOP")));

    EXPECT_FALSE(processor.Session(2)->timingPoints.count(L"TX_ATTACHED"));
    const auto notFound = processor.LinesWith("Session Context Not Found. sessionId=5");
    ASSERT_EQ(notFound.size(), 1u);
    EXPECT_EQ(notFound[0].function, L"logonmon::LogonProcessor::Tessera_SessionAttached");
}

TEST_F(EventHandlersTest, WaitingForTheAgent) {
    // An application session needs no shell.
    {
        auto& processor = Processor(SESSION_CONFIG{120000, true, false, false});
        StartLogon(processor, 2, kAliceSid, kMorning);
        EXPECT_THAT(processor.endedSessions, IsEmpty());
        processor.Feed(Agent(11, 2, AttachPayload(2, L"APPLICATION")));
        EXPECT_EQ(processor.endedSessions.size(), 1u);
    }
    // A desktop needs both, in either order.
    {
        auto& processor = Processor(SESSION_CONFIG{120000, true, false, false});
        StartLogon(processor, 2, kAliceSid, kMorning);
        processor.Feed(ShellInitialized(2, kMorning + 22 * kSecond));
        EXPECT_THAT(processor.endedSessions, IsEmpty());
        processor.Feed(Agent(11, 2, AttachPayload(2, L"DESKTOP")));
        EXPECT_EQ(processor.endedSessions.size(), 1u);
    }
    // Attached but the shell never initialised: the timeout names the shell.
    {
        auto& processor = Processor(SESSION_CONFIG{120000, true, true, false});
        StartLogon(processor, 2, kAliceSid, kMorning);
        processor.Feed(Agent(11, 2, AttachPayload(2, L"DESKTOP")));
        clock_.now = kMorning + 600 * kSecond;
        timers_.Fire();
        const auto texts = processor.Texts();
        ASSERT_FALSE(texts.empty());
        EXPECT_THAT(texts.back(),
                    ::testing::StartsWith("Timed out waiting for ShellInitialized event.  Shell "
                                          "started at "));
        EXPECT_EQ(processor.endedSessions.size(), 1u);
    }
}

TEST_F(EventHandlersTest, AgentGenericEventReadsEachTextWithinItsField) {
    auto& processor = Processor();
    const std::wstring unterminated(512, L'P');
    processor.Feed(Agent(16, 2, GenericPayload(L"Broker", L"Agent", L"Logon")));
    processor.Feed(Agent(16, 2, GenericPayload(unterminated, L"C", L"E")));
    processor.Feed(Agent(16, 2, GenericPayload(L"Broker", L"Agent", L"Logon", 3091)));
    processor.Feed(Agent(16, 2, GenericPayload(L"Broker", L"Agent", L"Logon", 3093)));

    EXPECT_THAT(
        processor.Texts(),
        ElementsAre("Tessera Event: Product: Broker, Component: Agent, Event: Logon",
                    "Tessera Event: Product: " + std::string(512, 'P') + ", Component: C, Event: E",
                    "Tessera PLMX generic event has a bad payload length",
                    "Tessera PLMX generic event has a bad payload length"));
    EXPECT_EQ(processor.lines[0].level, 4u);
    EXPECT_EQ(processor.lines[0].function, L"logonmon::LogonProcessor::Tessera_PLMXGeneric");
    EXPECT_EQ(processor.lines[2].level, 2u);
}

}  // namespace
}  // namespace plmx::testing
