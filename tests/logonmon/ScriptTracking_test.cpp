#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/logonmon/ProcessorHarness.h"
#include "trace/TextForms.h"

namespace plmx::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Durations = std::map<std::wstring, logonmon::NamedDuration>;

using ScriptTrackingTest = ProcessorFixture;

constexpr wchar_t kScriptHost[] = L"\\Device\\HarddiskVolume3\\Windows\\System32\\gpscript.exe";
constexpr wchar_t kPowerShell[] =
    L"\\Device\\HarddiskVolume3\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe";

TestEvent Process(uint16_t id, uint32_t session, std::vector<PropertyDefinition> properties) {
    TestEvent event;
    event.provider = kKernelProcessGuid;
    event.id = id;
    event.session = session;
    event.time = kMorning + 30 * kSecond;
    event.properties = std::move(properties);
    return event;
}

TestEvent ProcessStart(uint32_t session, uint32_t processId, uint32_t parentId,
                       const std::wstring& image) {
    return Process(
        1, session,
        {UInt32Property(L"ProcessID", processId), UInt32Property(L"ParentProcessID", parentId),
         StringProperty(L"ImageName", image)});
}

TestEvent ProcessExit(uint32_t session, uint32_t processId, const std::wstring& created,
                      const std::wstring& exited) {
    return Process(
        2, session,
        {UInt32Property(L"ProcessID", processId), StringProperty(L"ImageName", L"gpscript.exe"),
         StringProperty(L"CreateTime", created), StringProperty(L"ExitTime", exited)});
}

uint64_t At(uint32_t second, uint32_t millisecond = 0) {
    return kMorning + second * kSecond + millisecond * 10'000ull;
}

// Hosts 100 and 400 run scripts, host 200 a PowerShell script. Not timed: a
// host started before its session existed (900), one of a session nobody
// follows (700), and whatever is no tracked host (500, 600).
TEST_F(ScriptTrackingTest, ScriptHostsAddTheirRunTimes) {
    auto& processor = Processor();
    processor.Feed(ProcessStart(2, 900, 50, kScriptHost));
    processor.Feed(ProcessStart(7, 700, 50, kScriptHost));
    processor.Feed(CreateSession(2, kAliceSid, kMorning));
    processor.Feed(ProcessStart(2, 100, 50, kScriptHost));
    processor.Feed(ProcessStart(2, 200, 50, kScriptHost));
    processor.Feed(ProcessStart(2, 300, 200, kPowerShell));
    processor.Feed(ProcessStart(2, 600, 999, kPowerShell));
    processor.Feed(ProcessStart(2, 500, 50, L"C:\\Windows\\notepad.exe"));
    processor.Feed(ProcessStart(2, 400, 50, L"GPSCRIPT.EXE"));
    for (const uint32_t untimed : {900, 700, 500, 600}) {
        processor.Feed(ProcessExit(untimed == 700 ? 7 : 2, untimed, L"2024-03-01T08:00:01:000Z",
                                   L"2024-03-01T08:00:30:000Z"));
    }
    processor.Feed(ProcessExit(2, 100, L"2024-03-01T08:00:10:000Z", L"2024-03-01T08:00:12:500Z"));
    processor.Feed(ProcessExit(2, 200, L"2024-03-01T08:00:11:000Z", L"2024-03-01T08:00:15:250Z"));
    processor.Feed(ProcessExit(2, 400, L"2024-03-01T08:00:05:000Z", L"2024-03-01T08:00:06:000Z"));

    const auto session = processor.Session(2);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->namedDurations,
              (Durations{{L"Group Policy Logon Script Time", 3.5f},
                         {L"Group Policy PS Logon Script Time", 4.25f},
                         {L"Total Group Policy Logon Script Time", 7.75f}}));
    const auto& points = session->timingPoints;
    EXPECT_EQ(points.at(L"GP_LOGON_SCRIPT_START"), At(5));
    EXPECT_EQ(points.at(L"GP_LOGON_SCRIPT_STOP"), At(12, 500));
    EXPECT_EQ(points.at(L"GP_PS_LOGON_SCRIPT_START"), At(11));
    EXPECT_EQ(points.at(L"GP_PS_LOGON_SCRIPT_STOP"), At(15, 250));
    EXPECT_THAT(session->scriptHosts, IsEmpty());

    const std::string host = "\\Device\\HarddiskVolume3\\Windows\\System32\\gpscript.exe";
    EXPECT_THAT(
        processor.Texts(),
        ElementsAre(
            "Session Initialized Successfully: sessionId=2",
            "Found Logon Script Parent: Name: " + host + ", Pid: 100, Sessiond: 2",
            "Found Logon Script Parent: Name: " + host + ", Pid: 200, Sessiond: 2",
            "Found Logon Script Parent: Name: GPSCRIPT.EXE, Pid: 400, Sessiond: 2",
            "Logon Script Process Terminated: Name: gpscript.exe, Process Id: 100, Parent Id: 50, "
            "Timestamp: 2024-03-01T08:00:12:500Z, Sessiond: 2",
            "Group Policy Logon Script Time: 2.50 Seconds",
            "Powershell Script Process Terminated: Name: gpscript.exe, Process Id: 200, Parent "
            "Id: 50, Timestamp: 2024-03-01T08:00:15:250Z, SessionID: 2",
            "Group Policy Powershell Script Time: 4.25 Seconds",
            "Logon Script Process Terminated: Name: gpscript.exe, Process Id: 400, Parent Id: 50, "
            "Timestamp: 2024-03-01T08:00:06:000Z, Sessiond: 2",
            "Group Policy Logon Script Time: 1.00 Seconds"));
    EXPECT_EQ(processor.lines[1].function, L"logonmon::LogonProcessor::Process_Started");
    EXPECT_EQ(processor.lines[4].function, L"logonmon::LogonProcessor::Process_Exited");
    EXPECT_EQ(processor.lines[4].level, 5u);
}

TEST_F(ScriptTrackingTest, ExitTimesAreReadStrictly) {
    for (const wchar_t* exited :
         {L"2024-03-01T08:00:12:500z", L"2024-03-01T08:00:12:50Z", L"2024-03-01T08:00:12:5000Z",
          L"2024-03-01T08:0a:12:500Z", L"2024-13-01T08:00:12:500Z", L"2024-02-30T08:00:12:500Z",
          L"2024-03-01 08:00:12:500Z", L""}) {
        auto& processor = Processor();
        processor.Feed(CreateSession(2, kAliceSid, kMorning));
        processor.Feed(ProcessStart(2, 100, 50, kScriptHost));
        processor.Feed(ProcessExit(2, 100, L"2024-03-01T08:00:10:000Z", exited));
        // Its exit ends its tracking, counted or not.
        processor.Feed(
            ProcessExit(2, 100, L"2024-03-01T08:00:10:000Z", L"2024-03-01T08:00:11:000Z"));

        const auto session = processor.Session(2);
        ASSERT_TRUE(session);
        EXPECT_THAT(session->namedDurations, IsEmpty()) << logonmon::Utf8FromWide(exited);
        EXPECT_FALSE(session->timingPoints.count(L"GP_LOGON_SCRIPT_STOP"));
        EXPECT_THAT(session->scriptHosts, IsEmpty());
        EXPECT_EQ(processor.lines.size(), 2u);
    }
}

}  // namespace
}  // namespace plmx::testing
