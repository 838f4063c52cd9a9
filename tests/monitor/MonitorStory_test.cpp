// One logon as the service sees it: events arrive on two consumer threads
// while the timer ticks, and an administrator then finds its session log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "app/LogSettings.h"
#include "tests/monitor/MonitorFixture.h"

namespace plmx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

TestEvent Event(const wchar_t* provider, uint16_t id, uint32_t second,
                std::vector<PropertyDefinition> properties, const std::wstring& sid = {}) {
    TestEvent event;
    event.provider = provider;
    event.id = id;
    event.time = kMorning + second * kSecond;
    event.session = 2;
    event.properties = std::move(properties);
    if (!sid.empty()) {  // the profile service names the user and works on its own thread
        event.sid = sid;
        event.thread = 0x300;
    }
    return event;
}

UniqueHandle NewEvent() {
    return UniqueHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

TEST_F(MonitorTest, ALogonBecomesItsOwnSessionLog) {
    const std::wstring user = ProcessUserSid();
    accounts_.accounts[user] = {L"CORP", L"alice"};
    ComputerNames::Instance().computerName = L"DESK01";
    TempFolder remote;
    const std::wstring share = L"\\\\localhost\\" + remote.Path().substr(0, 1) + L"$" +
                               remote.Path().substr(2, remote.Path().size() - 3);
    const auto monitor =
        Monitor(FLAG_ENABLE_PROCESS_TIMINGS | FLAG_ENABLE_CPU_MEMORY_TIMINGS, share);

    // Winlogon and the profile service on the timing session, which ends by
    // itself once and is restarted meanwhile; the logon script on the
    // diagnostic session; then the shell.
    const std::vector<TestEvent> untilProfile = {
        CreateSession(2, user, kMorning),
        Login(2, user, kMorning + kSecond),
        SubscriberEvent(811, 1, kLogin, L"Profiles", 2, kMorning + kSecond + kSecond / 10),
        Event(kUserProfilesGuid, 67, 4, {StringProperty(L"LocalPath", remote.Path())}, user),
        SubscriberEvent(812, 2, kLogin, L"Profiles", 2, kMorning + 5 * kSecond),
    };
    const std::vector<TestEvent> script = {
        Event(kKernelProcessGuid, 1, 9,
              {UInt32Property(L"ProcessID", 900), UInt32Property(L"ParentProcessID", 50),
               StringProperty(L"ImageName", L"\\Device\\HarddiskVolume3\\Windows\\gpscript.exe")}),
        Event(kKernelProcessGuid, 2, 12,
              {UInt32Property(L"ProcessID", 900), StringProperty(L"ImageName", L"gpscript.exe"),
               StringProperty(L"CreateTime", L"2024-03-01T08:00:09:000Z"),
               StringProperty(L"ExitTime", L"2024-03-01T08:00:12:500Z")}),
    };
    const std::vector<TestEvent> shell = {
        NotifyStop(kLogin, 2, kMorning + 13 * kSecond),
        NotifyStart(kStartShell, 2, kMorning + 20 * kSecond),
        NotifyStop(kStartShell, 2, kMorning + 21 * kSecond),
        ShellInitialized(2, kMorning + 25 * kSecond),
    };
    const UniqueHandle profileDone = NewEvent(), scriptDone = NewEvent(), stop = NewEvent();
    const auto waitFor = [](const UniqueHandle& event) {
        return [&event] { WaitForSingleObject(event.Get(), INFINITE); };
    };
    consume_.Queue(L"logonmon_timing", {untilProfile, false, 0, {}, [&] {
                                            for (int ms = 0; pdh_.collected < 3 && ms < 5000;
                                                 ++ms) {
                                                Sleep(1);
                                            }
                                            SetEvent(profileDone.Get());
                                        }});
    consume_.Queue(L"logonmon_diag_trace_rt",
                   {script, true, 0, waitFor(profileDone), [&] { SetEvent(scriptDone.Get()); }});
    consume_.Queue(L"logonmon_timing",
                   {shell, true, 0, waitFor(scriptDone), [&] { SetEvent(stop.Get()); }});

    monitor->RunRealTime(stop.Get());

    ComputerNames::Instance() = {};
    // Opened under a fresh identifier, archived under the user and the time.
    const auto files = SessionLogFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_THAT(Narrow(files[0]),
                MatchesRegex("plmx__DESK01_alice_\\d+_\\d+_\\d+__\\d+_\\d+_\\d+_\\d+\\.txt"));
    const std::string summary = "INFO [logonmon::LogonProcessor::LogSummary] ";
    const std::string fixed =
        "INFO [logonmon::LogonProcessor::LogSummary::<lambda_1>::operator ()] ";
    const Lines log = Tagged(ReadLines(folder_.Path() + files[0]));
    EXPECT_THAT(log.front(),
                MatchesRegex("INFO \\[LogonMonitor::OnLogonStart\\] Opened Session Log: .*"
                             "\\\\plmx_session_\\w+-\\w+-\\w+-\\w+-\\w+_2\\.txt"));
    const Lines expected = {
        "INFO [LogSettings] Log Level: 0x1F: Error | Info | Debug | Trace | Fatal",
        "INFO [LogSettings] Log History Depth: 10",
        "INFO [LogSettings] Flags: 0xC: PLMX_ENABLE_CPU_MEMORY_TIMINGS | "
        "PLMX_ENABLE_PROCESS_TIMINGS",
        "INFO [LogGPLogonScriptSynchronous] Group Policy Logon Scripts Are Asynchronous",
        "INFO [LogProfileSize] Profile Size: 0.00MB, Files: 0, Folders: 0. sessionId=2",
        "INFO [LogonMonitor::LogCPUUsage] Max User Cpu: 40",
        "INFO [LogonMonitor::LogMemUsage] Max Committed Bytes: 300 MBs",
        "INFO [CheckGroupPolicySettings] User: Run these programs at user logon: Not Configured",
        summary + "****************** Session Summary (User=alice, sessionId=2) *****************",
        summary +
            "TotalLogon           2024-03-01T08:00:01:000 - 2024-03-01T08:00:25:000 (dur "
            "24.00 seconds)",
        fixed + "Shell Load Time: 5.00 seconds",
        summary + "Total Group Policy Logon Script Time: 3.50 seconds",
    };
    EXPECT_THAT(log, ::testing::IsSupersetOf(expected));
    EXPECT_EQ(tokens_.queried, std::vector<ULONG>{2});
    std::vector<std::filesystem::path> copies(std::filesystem::directory_iterator(remote.Path()),
                                              {});
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_THAT(copies[0].filename().string(), MatchesRegex("DESK01_alice_2_.*\\.txt"));
    EXPECT_EQ(ReadFileBytes(copies[0].wstring()), ReadFileBytes(folder_.Path() + files[0]));

    // The main log only saw the session before its log opened (the events
    // that created it and began the logon) and after it was archived.
    for (const std::string& line : ReadLines(mainLog_.Path())) {
        if (line.find("-2) [") != std::string::npos &&
            line.find("[UploadLogFile]") == std::string::npos) {
            EXPECT_THAT(line, HasSubstr("-2) [0801] "));
        }
    }
}

}  // namespace
}  // namespace plmx::testing
