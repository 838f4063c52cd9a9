#include "tools/SampleTraces.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "trace/EtlWriter.h"
#include "trace/SessionNames.h"
#include "trace/TextForms.h"

namespace plmx::samples {

namespace {

using plmx::testing::GuidFromText;

constexpr Extension kRegistry{L"{35378EAC-683F-11D2-A89A-00C04FBBCFA2}", L"Registry"};
constexpr Extension kScripts{L"{42B5FAAE-6536-11D2-AE5A-0000F87571E3}", L"Scripts"};
constexpr Extension kFolderRedirection{L"{25537BA6-77A8-11D2-9B6C-0000F8080861}",
                                       L"Folder Redirection"};
constexpr Extension kDriveMaps{L"{5794DAFD-BE60-433F-88A2-1A31939AC01F}", L"Group Policy Drives"};
constexpr Extension kSecurity{L"{827D319E-6EAC-11D2-A4EA-00C04F79F83A}", L"Security"};

constexpr uint32_t kBadNetworkPath = 53;  // a mapped drive's share is unreachable

constexpr wchar_t kSystem32[] = L"\\Device\\HarddiskVolume3\\Windows\\System32\\";

uint64_t FileTimeOf(uint16_t year, uint16_t month, uint16_t day, uint16_t hour, uint16_t minute,
                    uint16_t second) {
    SYSTEMTIME time{};
    time.wYear = year;
    time.wMonth = month;
    time.wDay = day;
    time.wHour = hour;
    time.wMinute = minute;
    time.wSecond = second;
    uint64_t fileTime = 0;
    logonmon::SystemTimeToFileTimeValue(time, &fileTime);
    return fileTime;
}

const uint64_t kMorning = FileTimeOf(2026, 11, 16, 7, 58, 12);

struct User {
    const wchar_t* name;
    const wchar_t* rid;
    const wchar_t* address;
};

LogonIdentity Identity(const User& user, uint32_t sessionId, uint32_t pidBase,
                       const wchar_t* activity) {
    LogonIdentity logon;
    logon.sessionId = sessionId;
    logon.userSid = std::wstring(L"S-1-5-21-3623811015-3361044348-30300820-") + user.rid;
    logon.account = std::wstring(L"CONTOSO\\") + user.name;
    logon.profilePath = std::wstring(L"C:\\Users\\") + user.name;
    logon.clientAddress = user.address;
    logon.winlogonPid = pidBase;
    logon.userinitPid = pidBase + 0x5a4;
    logon.explorerPid = pidBase + 0x6e8;
    logon.policyActivity = GuidFromText(activity);
    return logon;
}

// How one scripted logon goes.
struct Script {
    bool createSession = true;
    bool roamingSync = false;
    bool slowPolicy = false;  // a slow extension and a synchronous logon script
    bool agent = false;
};

// Milliseconds after the logon's start; the slow variant shifts the later
// phases by the time policy and the script hold the logon up.
void RunLogon(LogonEvents& events, const LogonIdentity& logon, const Script& script) {
    if (script.createSession) {
        events.Notify(0, Notification::kCreateSession, Phase::kStart);
        events.Notify(180, Notification::kCreateSession, Phase::kStop);
    }
    events.Notify(1500, Notification::kLogin, Phase::kStart);
    events.SessionManagerLogon(1505);
    events.ProfileLogonNotice(1510);
    events.Subscriber(1520, Notification::kLogin, L"Profiles", Phase::kStart);
    uint32_t at = 1600;
    if (script.roamingSync) {
        events.ProfileSync(at, Phase::kStart);
        at += 2350;
        events.ProfileSync(at, Phase::kStop);
    }
    events.HiveLoaded(at + 300, logon.profilePath + L"\\ntuser.dat", logon.userSid);
    events.HiveLoaded(at + 450,
                      logon.profilePath + L"\\AppData\\Local\\Microsoft\\Windows\\UsrClass.dat",
                      logon.userSid + L"_Classes");
    events.ProfileInfo(at + 500);
    events.Subscriber(at + 550, Notification::kLogin, L"Profiles", Phase::kStop);
    at += 600;
    events.Subscriber(at, Notification::kLogin, L"GPClient", Phase::kStart);
    events.PolicyFinished(at + 40, 3, true);
    struct Run {
        Extension extension;
        uint32_t ms;
        bool changed;
        uint32_t error = 0;
    };
    std::vector<Run> runs{{kRegistry, 118, false}, {kSecurity, 260, false}};
    if (script.slowPolicy) {
        runs = {{kRegistry, 182, true},
                {kScripts, 95, true},
                {kDriveMaps, 2310, false, kBadNetworkPath},
                {kFolderRedirection, 21460, true}};
    }
    uint32_t policyStart = at + 100;
    for (const Run& run : runs) {
        events.ExtensionStarted(at + 100, run.extension, false, run.changed);
        at += 100 + run.ms;
        events.ExtensionFinished(at, run.extension, run.ms, run.error);
    }
    events.PolicyFinished(at + 60, (at + 60 - policyStart) / 1000, false);
    events.Subscriber(at + 80, Notification::kLogin, L"GPClient", Phase::kStop);
    events.Notify(at + 120, Notification::kLogin, Phase::kStop);
    at += 200;
    events.Notify(at, Notification::kStartShell, Phase::kStart);
    events.ProcessStarted(at + 90, logon.userinitPid, logon.winlogonPid,
                          std::wstring(kSystem32) + L"userinit.exe");
    events.Notify(at + 250, Notification::kStartShell, Phase::kStop);
    at += 300;
    if (script.slowPolicy) {
        const uint32_t host = logon.userinitPid + 0x2c0;
        const uint32_t shell = host + 0x134;
        events.ProcessStarted(at, host, logon.userinitPid,
                              std::wstring(kSystem32) + L"gpscript.exe");
        events.ProcessStarted(at + 210, shell, host,
                              std::wstring(kSystem32) + L"WindowsPowerShell\\v1.0\\powershell.exe");
        events.ProcessExited(at + 11940, shell, at + 210, "powershell.exe");
        events.ProcessExited(at + 12100, host, at, "gpscript.exe");
        at += 12200;
    }
    events.ShellCommandsRun(at + 100);
    events.ProcessStarted(at + 150, logon.explorerPid, logon.userinitPid,
                          L"\\Device\\HarddiskVolume3\\Windows\\explorer.exe");
    if (script.agent) {
        events.AgentAttached(at + 900, L"DESKTOP");
        events.AgentEvent(at + 950, L"Tessera Agent", L"Display", L"Monitors configured: 2");
    }
    events.ShellInitialized(at + 2300);
}

void RunLogoff(LogonEvents& events, uint32_t ms) {
    events.Notify(ms, Notification::kLogoff, Phase::kStart);
    events.Notify(ms + 1800, Notification::kLogoff, Phase::kStop);
    events.Notify(ms + 2100, Notification::kTerminateSession, Phase::kStart);
    events.Notify(ms + 2600, Notification::kTerminateSession, Phase::kStop);
}

constexpr User kAlice{L"alice", L"1013", L"10.20.30.41"};
constexpr User kBob{L"bob", L"1107", L"10.20.31.17"};
constexpr User kCarol{L"carol", L"1121", L"10.20.30.88"};

uint64_t At(uint32_t seconds) {
    return kMorning + uint64_t{seconds} * 10'000'000;
}

}  // namespace

const std::vector<SampleTrace>& SampleTraces() {
    static const std::vector<SampleTrace> samples{
        {"fast_logon.etl",
         [](const LogonEvents::Sink& sink) {
             const LogonIdentity logon =
                 Identity(kAlice, 2, 0x1a4c, L"{6F1D0B4E-2C51-4E8A-9B3D-0A7C5E4F1201}");
             LogonEvents events(sink, {}, logon, At(0));
             RunLogon(events, logon, Script{true, false, false, true});
         }},
        {"group_policy_slow_logon.etl",
         [](const LogonEvents::Sink& sink) {
             const LogonIdentity logon =
                 Identity(kBob, 3, 0x2284, L"{A3C27F90-5D14-4B6E-8E21-77D0C9B4E302}");
             LogonEvents events(sink, {}, logon, At(0));
             RunLogon(events, logon, Script{true, true, true, false});
         }},
        {"missed_create_session.etl",
         [](const LogonEvents::Sink& sink) {
             const LogonIdentity logon =
                 Identity(kCarol, 4, 0x0f10, L"{0B6E4D21-93A7-4F2C-A5D8-3E19C7F06403}");
             LogonEvents events(sink, {}, logon, At(0));
             RunLogon(events, logon, Script{false, false, false, false});
         }},
        // Alice's session 2 logs off; Bob gets session 2 again while Carol logs
        // on to session 3 at the same time.
        {"concurrent_reused_sessions.etl",
         [](const LogonEvents::Sink& sink) {
             const LogonIdentity first =
                 Identity(kAlice, 2, 0x1a4c, L"{6F1D0B4E-2C51-4E8A-9B3D-0A7C5E4F1204}");
             LogonEvents alice(sink, {}, first, At(0));
             RunLogon(alice, first, Script{});
             RunLogoff(alice, 60'000);
             const LogonIdentity second =
                 Identity(kBob, 2, 0x2e08, L"{A3C27F90-5D14-4B6E-8E21-77D0C9B4E305}");
             LogonEvents bob(sink, {}, second, At(90));
             RunLogon(bob, second, Script{true, true, false, false});
             const LogonIdentity third =
                 Identity(kCarol, 3, 0x31c4, L"{0B6E4D21-93A7-4F2C-A5D8-3E19C7F06406}");
             LogonEvents carol(sink, {}, third, At(91) + 2'500'000);
             RunLogon(carol, third, Script{});
         }},
    };
    return samples;
}

// Scripts write logon by logon; a trace holds the events in time order.
std::vector<std::unique_ptr<plmx::testing::EventBuilder>> ScriptedEvents(
    const SampleTrace& sample) {
    std::vector<std::unique_ptr<plmx::testing::EventBuilder>> events;
    sample.script([&events](std::unique_ptr<plmx::testing::EventBuilder> event) {
        events.push_back(std::move(event));
    });
    std::stable_sort(events.begin(), events.end(), [](const auto& left, const auto& right) {
        return left->Record().EventHeader.TimeStamp.QuadPart <
               right->Record().EventHeader.TimeStamp.QuadPart;
    });
    return events;
}

bool WriteSampleTrace(const SampleTrace& sample, std::ostream& out) {
    const std::wstring logger = logonmon::kFileSessionName;
    EtlWriter writer(out, EtlWriterOptions{8 * 1024, std::u16string(logger.begin(), logger.end()),
                                           u"C:\\Traces\\logon.etl"});
    for (const auto& event : ScriptedEvents(sample)) {
        writer.Write(event->Record());
    }
    return writer.Finish();
}

}  // namespace plmx::samples
