#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/logonmon/ProcessorHarness.h"

namespace plmx::testing {
namespace {

using ::testing::ElementsAre;
using EventHandlersTest = ProcessorFixture;

// Attach payloads are 132 bytes, generic ones 3092 with texts of 512
// characters at most; other lengths are said so.
TEST_F(EventHandlersTest, AgentPayloadsAreReadWithinTheirLength) {
    auto generic = [](const std::wstring& product, size_t size = 3092) {
        return AgentEvent(16, size, 2, kMorning,
                          {{20, product}, {1044, L"Agent"}, {2068, L"Logon"}});
    };
    auto& processor = Processor();
    processor.Feed({CreateSession(2, kAliceSid, kMorning)});
    processor.ClearLines();
    processor.Feed({AgentEvent(11, 131, 2, kMorning, {{4, L"APPLICATION"}}),
                    AgentEvent(11, 3, 2, kMorning), generic(L"Broker"),
                    generic(std::wstring(513, L'P')), generic(L"Broker", 3093)});
    EXPECT_FALSE(processor.Sessions().at(0).applicationSession);
    processor.Feed({AgentEvent(11, 132, 2, kMorning, {{4, L"APPLICATION"}})});
    EXPECT_TRUE(processor.Sessions().at(0).applicationSession);

    const std::string attached = "4 Tessera_SessionAttached: Tessera Session Attached";
    const std::string badAttach =
        "2 Tessera_SessionAttached: Tessera_SessionAttached event bad payload length";
    const std::string event = "4 Tessera_PLMXGeneric: Tessera Event: Product: ";
    EXPECT_THAT(
        processor.lines,
        ElementsAre(attached, badAttach, attached, badAttach,
                    event + "Broker, Component: Agent, Event: Logon",
                    event + std::string(512, 'P') + ", Component: Agent, Event: Logon",
                    "2 Tessera_PLMXGeneric: Tessera PLMX generic event has a bad payload length",
                    attached));
}

// Older providers write Booleans and milliseconds as text; an unreadable time
// counts nothing.
TEST_F(EventHandlersTest, PolicyExtensionsAreCountedWhateverTheirForm) {
    auto policy = [](uint16_t id, const wchar_t* name, PropertyDefinition a, PropertyDefinition b) {
        return TestEvent{.provider = kGroupPolicyGuid,
                         .id = id,
                         .session = 2,
                         .activity = L"6c1c5d1e-7a39-4d4c-9a0b-3a4b5c6d7e8f",
                         .properties = {StringProperty(L"CSEExtensionName", name), a, b}};
    };
    auto started = [&](const wchar_t* name, const wchar_t* async, const wchar_t* changed) {
        return policy(4016, name, StringProperty(L"IsExtensionAsyncProcessing", async),
                      StringProperty(L"IsGPOListChanged", changed));
    };
    auto finished = [&](const wchar_t* name, const wchar_t* ms, uint32_t error) {
        return policy(5016, name, StringProperty(L"CSEElaspedTimeInMilliSeconds", ms),
                      UInt32Property(L"ErrorCode", error));
    };
    auto& processor = Processor();
    processor.Feed({CreateSession(2, kAliceSid, kMorning), started(L"Registry", L"0", L"1"),
                    started(L"Scripts", L"-1", L"True"), started(L"Drive Maps", L"true", L"00"),
                    started(L"Printers", L"", L"false"), finished(L"Registry", L"1200", 0),
                    finished(L"Registry", L"34", 0), finished(L"Scripts", L"250", 0x80070005),
                    finished(L"Scripts", L"n/a", 0), finished(L"Drive Maps", L"-1", 0)});
    auto session = processor.Sessions().at(0);
    EXPECT_EQ(std::vector({session.asyncPolicies, session.syncPolicies, session.changedPolicies,
                           session.failedPolicies}),
              std::vector({2, 2, 2, 1}));
    EXPECT_EQ(session.cseDurations,
              (logonmon::NamedValues<uint32_t>{
                  {L"Drive Maps", 0}, {L"Registry", 1234}, {L"Scripts", 250}}));
    // The summary closes with the extended summary and a footer as long as its header.
    processor.ClearLines();
    processor.LogSummary(session);
    EXPECT_EQ(processor.lines.end()[-2], "4 Extended: extended 2");
    EXPECT_EQ(processor.lines.back().size(), processor.lines.front().size());
}

TestEvent Started(uint32_t session, uint32_t processId, uint32_t parentId, const wchar_t* image) {
    return {.provider = kKernelProcessGuid,
            .id = 1,
            .session = session,
            .properties = {UInt32Property(L"ParentProcessID", parentId),
                           StringProperty(L"ImageName", image),
                           UInt32Property(L"ProcessID", processId)}};
}

// Times are seconds and milliseconds of 08:00 that morning.
TestEvent Exited(uint32_t session, uint32_t processId, const std::wstring& created,
                 const std::wstring& exited) {
    return {.provider = kKernelProcessGuid,
            .id = 2,
            .session = session,
            .properties = {StringProperty(L"ImageName", L"gpscript.exe"),
                           StringProperty(L"CreateTime", L"2024-03-01T08:00:" + created),
                           StringProperty(L"ExitTime", L"2024-03-01T08:00:" + exited),
                           UInt32Property(L"ProcessID", processId)}};
}

// Hosts 100 and 400 run scripts, host 200 a PowerShell script; 800 onwards
// exit at times that cannot be read. Not timed: a host started before its
// session existed (900), one of a session nobody follows (700), and whatever
// is no tracked host (500, 600).
TEST_F(EventHandlersTest, ScriptHostsAddTheirRunTimes) {
    const wchar_t kHost[] = L"\\Device\\HarddiskVolume3\\Windows\\System32\\gpscript.exe";
    auto& processor = Processor();
    processor.Feed({Started(2, 900, 50, kHost), Started(7, 700, 50, kHost),
                    CreateSession(2, kAliceSid, kMorning), Started(2, 100, 50, kHost),
                    Started(2, 200, 50, kHost), Started(2, 300, 200, L"C:\\x\\powershell.exe"),
                    Started(2, 600, 999, L"powershell.exe"), Started(2, 500, 50, L"notepad.exe"),
                    Started(2, 400, 50, L"GPSCRIPT.EXE")});
    const std::wstring unreadable[] = {L"12:500z", L"12:50Z", L"1a:500Z", L"12:500Z x", L""};
    for (uint32_t i = 0; i < std::size(unreadable); ++i) {
        processor.Feed(
            {Started(2, 800 + i, 50, kHost), Exited(2, 800 + i, L"10:000Z", unreadable[i])});
    }
    for (const uint32_t untimed : {900, 700, 500, 600, 801}) {
        processor.Feed({Exited(untimed == 700 ? 7 : 2, untimed, L"01:000Z", L"30:000Z")});
    }
    // The provider writes the times as text or as FILETIME.
    TestEvent filetime = Exited(2, 100, L"10:000Z", L"");
    filetime.properties[2] = {L"ExitTime", logonmon::etw::kInTypeFileTime, 0,
                              UInt64Bytes(kMorning + 125 * kSecond / 10)};
    processor.Feed(
        {filetime, Exited(2, 200, L"11:000Z", L"15:250Z"), Exited(2, 400, L"05:000Z", L"09:000Z")});

    const auto session = processor.Sessions().at(0);
    EXPECT_EQ(session.namedDurations, (logonmon::NamedValues<logonmon::NamedDuration>{
                                          {L"Group Policy Logon Script Time", 6.5f},
                                          {L"Group Policy PS Logon Script Time", 4.25f},
                                          {L"Total Group Policy Logon Script Time", 10.75f}}));
    EXPECT_EQ(session.timingPoints.at(L"GP_LOGON_SCRIPT_START"), kMorning + 5 * kSecond);
    EXPECT_EQ(session.timingPoints.at(L"GP_PS_LOGON_SCRIPT_STOP"), kMorning + 152'500'000);
    EXPECT_TRUE(session.scriptHosts.empty());
    EXPECT_THAT(
        processor.lines,
        ::testing::Contains("5 Process_Exited: Group Policy Logon Script Time: 4.00 Seconds"));
}

}  // namespace
}  // namespace plmx::testing
