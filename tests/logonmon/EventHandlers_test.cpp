#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/logonmon/ProcessorHarness.h"
#include "trace/TextForms.h"

namespace plmx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Durations = std::map<std::wstring, logonmon::NamedDuration>;

using EventHandlersTest = ProcessorFixture;

TEST_F(EventHandlersTest, AgentPayloadsOfTheWrongLengthAreSaidSo) {
    const std::string attached = "4 Tessera_SessionAttached: Tessera Session Attached";
    const std::string badAttach =
        "2 Tessera_SessionAttached: Tessera_SessionAttached event bad payload length";
    const struct {
        size_t size;
        bool application;
        std::vector<std::string> lines;
    } cases[] = {
        {132, true, {attached}},
        {131, false, {attached, badAttach}},
        {133, false, {attached, badAttach}},
        {3, false, {attached, badAttach}},
    };
    for (const auto& c : cases) {
        auto& processor = Processor();
        processor.Feed(CreateSession(2, kAliceSid, kMorning));
        processor.lines.clear();
        processor.Feed(AgentEvent(11, c.size, 2, kMorning, {{4, L"APPLICATION"}}));
        EXPECT_EQ(processor.Sessions().at(0).applicationSession, c.application) << c.size;
        EXPECT_EQ(processor.Logged(), c.lines) << c.size;
    }
}

TEST_F(EventHandlersTest, AgentGenericEventReadsEachTextWithinItsField) {
    auto generic = [](const std::wstring& product, size_t size = 3092) {
        return AgentEvent(16, size, 2, kMorning,
                          {{20, product}, {1044, L"Agent"}, {2068, L"Logon"}});
    };
    auto& processor = Processor();
    processor.Feed({generic(L"Broker"),
                    // Not terminated inside its field: ends there, not in the next field.
                    generic(std::wstring(513, L'P')), generic(L"Broker", 3091),
                    generic(L"Broker", 3093)});

    const std::string bad =
        "2 Tessera_PLMXGeneric: Tessera PLMX generic event has a bad payload "
        "length";
    EXPECT_THAT(processor.Logged(),
                ElementsAre("4 Tessera_PLMXGeneric: Tessera Event: Product: Broker, Component: "
                            "Agent, Event: Logon",
                            "4 Tessera_PLMXGeneric: Tessera Event: Product: " +
                                std::string(512, 'P') + ", Component: Agent, Event: Logon",
                            bad, bad));
}

constexpr wchar_t kScriptHost[] = L"\\Device\\HarddiskVolume3\\Windows\\System32\\gpscript.exe";
constexpr wchar_t kPowerShell[] =
    L"\\Device\\HarddiskVolume3\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe";

TestEvent Process(uint16_t id, uint32_t session, uint32_t processId,
                  std::vector<PropertyDefinition> properties) {
    TestEvent event;
    event.provider = kKernelProcessGuid;
    event.id = id;
    event.session = session;
    event.time = kMorning + 30 * kSecond;
    event.properties = std::move(properties);
    event.properties.push_back(UInt32Property(L"ProcessID", processId));
    return event;
}

TestEvent Started(uint32_t session, uint32_t processId, uint32_t parentId,
                  const std::wstring& image) {
    return Process(
        1, session, processId,
        {UInt32Property(L"ParentProcessID", parentId), StringProperty(L"ImageName", image)});
}

// Times are seconds and milliseconds of 08:00 that morning.
TestEvent Exited(uint32_t session, uint32_t processId, const std::wstring& created,
                 const std::wstring& exited) {
    return Process(2, session, processId,
                   {StringProperty(L"ImageName", L"gpscript.exe"),
                    StringProperty(L"CreateTime", L"2024-03-01T08:00:" + created),
                    StringProperty(L"ExitTime", exited)});
}

std::wstring Exit(const std::wstring& secondsAndMilliseconds) {
    return L"2024-03-01T08:00:" + secondsAndMilliseconds;
}

uint64_t At(uint32_t second, uint32_t millisecond = 0) {
    return kMorning + second * kSecond + millisecond * 10'000ull;
}

// Hosts 100 and 400 run scripts, host 200 a PowerShell script; 800 onwards
// exit at times that cannot be read. Not timed: a host started before its
// session existed (900), one of a session nobody follows (700), and whatever
// is no tracked host (500, 600).
TEST_F(EventHandlersTest, ScriptHostsAddTheirRunTimes) {
    auto& processor = Processor();
    processor.Feed({Started(2, 900, 50, kScriptHost), Started(7, 700, 50, kScriptHost),
                    CreateSession(2, kAliceSid, kMorning), Started(2, 100, 50, kScriptHost),
                    Started(2, 200, 50, kScriptHost), Started(2, 300, 200, kPowerShell),
                    Started(2, 600, 999, kPowerShell), Started(2, 500, 50, L"notepad.exe"),
                    Started(2, 400, 50, L"GPSCRIPT.EXE")});
    const std::wstring unreadable[] = {Exit(L"12:500z"),
                                       Exit(L"12:50Z"),
                                       Exit(L"12:5000Z"),
                                       Exit(L"1a:500Z"),
                                       L"2024-13-01T08:00:12:500Z",
                                       L"2024-02-30T08:00:12:500Z",
                                       L"2024-03-01 08:00:12:500Z",
                                       L""};
    for (uint32_t i = 0; i < std::size(unreadable); ++i) {
        processor.Feed(
            {Started(2, 800 + i, 50, kScriptHost), Exited(2, 800 + i, L"10:000Z", unreadable[i])});
    }
    for (const uint32_t untimed : {900, 700, 500, 600, 801}) {
        processor.Feed(Exited(untimed == 700 ? 7 : 2, untimed, L"01:000Z", Exit(L"30:000Z")));
    }
    processor.Feed({Exited(2, 100, L"10:000Z", Exit(L"12:500Z")),
                    Exited(2, 200, L"11:000Z", Exit(L"15:250Z")),
                    Exited(2, 400, L"05:000Z", Exit(L"09:000Z"))});

    const auto session = processor.Sessions().at(0);
    EXPECT_EQ(session.namedDurations,
              (Durations{{L"Group Policy Logon Script Time", 6.5f},
                         {L"Group Policy PS Logon Script Time", 4.25f},
                         {L"Total Group Policy Logon Script Time", 10.75f}}));
    const auto& points = session.timingPoints;
    EXPECT_EQ(points.at(L"GP_LOGON_SCRIPT_START"), At(5));
    EXPECT_EQ(points.at(L"GP_LOGON_SCRIPT_STOP"), At(12, 500));
    EXPECT_EQ(points.at(L"GP_PS_LOGON_SCRIPT_START"), At(11));
    EXPECT_EQ(points.at(L"GP_PS_LOGON_SCRIPT_STOP"), At(15, 250));
    EXPECT_THAT(session.scriptHosts, IsEmpty());
}

}  // namespace
}  // namespace plmx::testing
