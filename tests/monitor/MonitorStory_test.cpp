// One logon as the service sees it: events arrive on two consumer threads
// while the timer ticks, and an administrator then finds its session log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "app/Settings.h"
#include "tests/monitor/MonitorFixture.h"
#include "trace/UniqueHandle.h"

namespace plmx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

uint64_t At(uint32_t second, uint32_t millisecond = 0) {
    return kMorning + second * kSecond + millisecond * 10'000ull;
}

TestEvent OnSession(TestEvent event, const wchar_t* provider, uint16_t id, uint32_t second,
                    std::vector<PropertyDefinition> properties) {
    event.provider = provider;
    event.id = id;
    event.session = 2;
    event.time = At(second);
    event.properties = std::move(properties);
    return event;
}
TestEvent Event(const wchar_t* provider, uint16_t id, uint32_t second,
                std::vector<PropertyDefinition> properties = {}) {
    return OnSession({}, provider, id, second, std::move(properties));
}

class Signal {
  public:
    void Set() { SetEvent(event_.Get()); }
    void Wait() { WaitForSingleObject(event_.Get(), INFINITE); }
    HANDLE Get() const { return event_.Get(); }

  private:
    UniqueHandle event_{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

TEST_F(MonitorTest, ALogonBecomesItsOwnSessionLog) {
    const std::wstring user = ProcessUserSid();
    accounts_.accounts[user] = {L"CORP", L"alice"};
    TempFolder remote;
    const auto monitor = Monitor(FLAG_ENABLE_PROCESS_TIMINGS, remote.Path());

    // Winlogon, the profile service and Group Policy on the timing session;
    // the session ends by itself once and is restarted meanwhile.
    TestEvent profileEvent;
    profileEvent.sid = user;
    profileEvent.thread = 0x300;
    const std::vector<TestEvent> untilPolicy = {
        CreateSession(2, user, At(0)),
        Login(2, user, At(1)),
        SubscriberEvent(811, 1, kLogin, L"Profiles", 2, At(1, 100)),
        OnSession(profileEvent, kUserProfilesGuid, 6, 2,
                  {StringProperty(L"Source", L"\\\\fs\\profiles\\alice"),
                   StringProperty(L"Target", L"C:\\Users\\alice")}),
        OnSession(profileEvent, kUserProfilesGuid, 7, 3, {}),
        OnSession(profileEvent, kUserProfilesGuid, 5, 4,
                  {StringProperty(L"File", L"C:\\Users\\alice\\NTUSER.DAT")}),
        OnSession(profileEvent, kUserProfilesGuid, 67, 4,
                  {StringProperty(L"LocalPath", L"C:\\Users\\alice")}),
        SubscriberEvent(812, 2, kLogin, L"Profiles", 2, At(5)),
        Event(kGroupPolicyGuid, 4016, 6,
              {StringProperty(L"CSEExtensionName", L"Registry"),
               StringProperty(L"IsExtensionAsyncProcessing", L"false"),
               StringProperty(L"IsGPOListChanged", L"true")}),
        Event(kGroupPolicyGuid, 5016, 7,
              {StringProperty(L"CSEExtensionName", L"Registry"),
               StringProperty(L"CSEElaspedTimeInMilliSeconds", L"1200"),
               UInt32Property(L"ErrorCode", 0)}),
        Event(kGroupPolicyGuid, 8001, 8, {StringProperty(L"PolicyElaspedTimeInSeconds", L"2")}),
    };
    // The logon script, on the diagnostic session's thread.
    const std::vector<TestEvent> script = {
        Event(kKernelProcessGuid, 1, 9,
              {UInt32Property(L"ProcessID", 900), UInt32Property(L"ParentProcessID", 50),
               StringProperty(L"ImageName",
                              L"\\Device\\HarddiskVolume3\\Windows\\System32\\gpscript.exe")}),
        Event(kKernelProcessGuid, 2, 12,
              {UInt32Property(L"ProcessID", 900), StringProperty(L"ImageName", L"gpscript.exe"),
               StringProperty(L"CreateTime", L"2024-03-01T08:00:09:000Z"),
               StringProperty(L"ExitTime", L"2024-03-01T08:00:12:500Z")}),
    };
    const std::vector<TestEvent> shell = {
        NotifyStop(kLogin, 2, At(13)),
        NotifyStart(kStartShell, 2, At(20)),
        NotifyStop(kStartShell, 2, At(21)),
        ShellInitialized(2, At(25)),
    };
    Signal policyDone, scriptDone, stop;
    consume_.Queue(L"logonmon_timing",
                   {.events = untilPolicy, .afterEvents = [&] { policyDone.Set(); }});
    consume_.Queue(L"logonmon_diag_trace_rt", {.events = script,
                                               .untilClosed = true,
                                               .beforeEvents = [&] { policyDone.Wait(); },
                                               .afterEvents = [&] { scriptDone.Set(); }});
    consume_.Queue(L"logonmon_timing", {.events = shell,
                                        .untilClosed = true,
                                        .beforeEvents = [&] { scriptDone.Wait(); },
                                        .afterEvents = [&] { stop.Set(); }});

    monitor->RunRealTime(stop.Get());

    // Its own log, named by a fresh identifier and the session.
    const auto files = SessionLogFiles();
    ASSERT_EQ(files.size(), 1u);
    const std::string name = Narrow(files[0]);
    EXPECT_THAT(name, MatchesRegex("plmx_session_\\w+-\\w+-\\w+-\\w+-\\w+_2\\.txt"));
    EXPECT_EQ(name.size(), std::string("plmx_session__2.txt").size() + 36);
    const std::string prefix = "INFO [logonmon::LogonProcessor::LogSummary] ";
    const std::string fixed =
        "INFO [logonmon::LogonProcessor::LogSummary::<lambda_1>::operator ()] ";
    const std::vector<std::string> expected = {
        "INFO [LogonMonitor::OnLogonStart] Opened Session Log: " +
            Narrow(Settings::Instance().LogPath) + name,
        // The settings block, then what the monitor leaves out.
        "INFO [LogSettings] Log History Depth: 10",
        "INFO [LogonMonitor::OnLogonStart] Process CPU/memory sampling disabled",
        prefix + "****************** Session Summary (User=alice, sessionId=2) *****************",
        prefix +
            "TotalLogon           2024-03-01T08:00:01:000 - 2024-03-01T08:00:25:000 (dur "
            "24.00 seconds)",
        fixed + "Profile Sync Time: 1.00 seconds",
        fixed + "Shell Load Time: 5.00 seconds",
        prefix + "Total Group Policy Logon Script Time: 3.50 seconds",
        prefix + "     CSE: 'Registry' Duration: 1200ms",
    };
    const auto log = SessionLog(files[0]);
    auto previous = log.begin();
    for (const std::string& line : expected) {
        const auto found = std::find(previous, log.end(), line);
        EXPECT_NE(found, log.end()) << "missing or out of order: " << line;
        previous = found == log.end() ? previous : found;
    }
    EXPECT_EQ(tokens_.queriedSessions, std::vector<ULONG>{2});

    // The main log only saw the session before its log opened: the events
    // that created it and began the logon.
    for (const std::string& line : ReadLines(mainLog_.Path())) {
        if (line.find("-2) [") != std::string::npos) {
            EXPECT_THAT(line, HasSubstr("-2) [0801] ")) << line;
        }
    }
}

}  // namespace
}  // namespace plmx::testing
