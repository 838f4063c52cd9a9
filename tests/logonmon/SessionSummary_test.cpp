#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <sstream>

#include "logonmon/PrintfFormat.h"
#include "logonmon/SessionTimeline.h"
#include "tests/logonmon/ProcessorHarness.h"
#include "trace/TextForms.h"

namespace plmx::testing {
namespace {

using logonmon::SESSION_CONTEXT;
using logonmon::TimingPoints;
using ::testing::ElementsAreArray;
using Lines = std::vector<std::string>;

uint64_t At(uint32_t second, uint32_t millisecond = 0) {
    return kMorning + second * kSecond + millisecond * 10'000ull;
}

// A timeline row: left-aligned at the top level, right-aligned when nested.
std::string Row(const char* label, uint64_t start, uint64_t stop, const char* seconds,
                bool nested = false) {
    char text[256];
    std::snprintf(text, sizeof text,
                  nested ? "%20s %s - %s (dur %s seconds)" : "%-20s %s - %s (dur %s seconds)",
                  label, logonmon::Utf8FromWide(logonmon::TimestampText(start, true)).c_str(),
                  logonmon::Utf8FromWide(logonmon::TimestampText(stop, true)).c_str(), seconds);
    return text;
}

// Summary lines as Logged() shows them.
std::string Sum(const std::string& text) {
    return "4 LogSummary: " + text;
}
std::string Fixed(const std::string& text) {
    return "4 LogSummary::<lambda_1>::operator (): " + text;
}
Lines Sums(const Lines& texts) {
    Lines lines;
    for (const std::string& text : texts) {
        lines.push_back(Sum(text));
    }
    return lines;
}
// As the log writes it: the Windows C runtime converts wide text through the
// C locale.
std::string Formatted(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = logonmon::FormatPrintf(format, args);
    va_end(args);
    return text;
}
Lines Concat(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}
Lines PolicyBlock(int async, int sync, int failed, int changed, int totalMs) {
    return Sums({"Group Policy Summary: ", "   Async. Policies: " + std::to_string(async),
                 "   Sync. Policies: " + std::to_string(sync),
                 "   Failed Policies: " + std::to_string(failed),
                 "   Changed Policies: " + std::to_string(changed),
                 "   Group Policy CSE Total Time: " + std::to_string(totalMs) + "ms"});
}
Lines Footer(uint32_t sessionId, size_t headerSize) {
    return {"4 Extended: extended " + std::to_string(sessionId), Sum(std::string(headerSize, '*'))};
}

using SessionSummaryTest = ProcessorFixture;

// The summary's lines for `session`, as a fresh processor writes them.
Lines Summary(RecordingProcessor& processor, SESSION_CONTEXT& session) {
    processor.lines.clear();
    processor.LogSummary(session);
    return processor.Logged();
}

TestEvent Event(const wchar_t* provider, uint16_t id, uint64_t time,
                std::vector<PropertyDefinition> properties, std::optional<uint32_t> session = 2) {
    TestEvent event;
    event.provider = provider;
    event.id = id;
    event.time = time;
    event.session = session;
    event.properties = std::move(properties);
    return event;
}

// One logon as Windows reports it, from CreateSession to the shell, with
// profile, policy, logon script, session manager and agent events between.
TEST_F(SessionSummaryTest, ALogonBecomesItsLogLinesAndSummary) {
    using namespace logonmon::etw;
    accounts_.accounts[kAliceSid] = {L"CORP", L"alice"};
    auto profile = [](uint16_t id, uint64_t time, std::vector<PropertyDefinition> properties) {
        TestEvent event = Event(kUserProfilesGuid, id, time, std::move(properties), 0);
        event.sid = kAliceSid;
        event.thread = 0x300;
        return event;
    };
    const std::wstring userPolicy = L"6c1c5d1e-7a39-4d4c-9a0b-3a4b5c6d7e8f";
    auto policy = [&userPolicy](uint16_t id, std::vector<PropertyDefinition> properties,
                                std::optional<uint32_t> session = std::nullopt) {
        TestEvent event = Event(kGroupPolicyGuid, id, At(6), std::move(properties), session);
        event.activity = userPolicy;
        return event;
    };
    auto started = [&policy](const wchar_t* name, PropertyDefinition async,
                             PropertyDefinition changed) {
        return policy(4016, {StringProperty(L"CSEExtensionName", name), async, changed}, 2);
    };
    auto finished = [&policy](const wchar_t* name, PropertyDefinition ms, uint32_t error) {
        return policy(5016, {StringProperty(L"CSEExtensionName", name), ms,
                             UInt32Property(L"ErrorCode", error)});
    };
    auto boolean = [](const wchar_t* name, uint32_t value) {
        return PropertyDefinition{name, kInTypeBoolean, 0, UInt32Bytes(value)};
    };
    auto text = [](const wchar_t* name, const std::wstring& value) {
        return StringProperty(name, value);
    };
    auto host = [](uint16_t id, uint32_t pid, std::vector<PropertyDefinition> more) {
        more.insert(more.begin(), UInt32Property(L"ProcessID", pid));
        return Event(kKernelProcessGuid, id, At(9), std::move(more));
    };
    auto fileTime = [](const wchar_t* name, uint64_t value) {
        return PropertyDefinition{name, kInTypeFileTime, 0, UInt64Bytes(value)};
    };
    const std::wstring gpscript = L"\\Device\\HarddiskVolume3\\Windows\\System32\\gpscript.exe";
    const std::wstring powershell = L"C:\\Windows\\System32\\powershell.exe";
    const std::wstring folder = L"C:\\Users\\alice\\";
    // A Winlogon event of another kind that names a notification is no phase.
    TestEvent otherWinlogon = NotifyStop(kLogin, 2, At(30));
    otherWinlogon.id = 803;
    // Machine policy runs under an activity of its own and reaches every open
    // session.
    TestEvent machinePolicy =
        Event(kGroupPolicyGuid, 8004, At(17), {UInt32Property(L"PolicyElaspedTimeInSeconds", 9)});
    machinePolicy.activity = L"0f0e0d0c-0b0a-0908-0706-050403020100";
    TestEvent userinit = Event(kWinlogonGuid, 10, At(15), {});

    auto& processor = Processor();
    processor.Feed({
        CreateSession(2, kAliceSid, At(0)),
        NotifyStop(kCreateSession, 2, At(0, 300)),
        Login(2, kAliceSid, At(1)),
        SubscriberEvent(811, 1, kLogin, L"Profiles", 2, At(1, 100)),
        profile(6, At(1, 500), {text(L"Source", L"\\\\fs\\p\\alice"), text(L"Target", folder)}),
        profile(7, At(4, 250), {}),
        // The profile service names the hives in exactly this case.
        profile(5, At(4, 500), {text(L"File", folder + L"ntuser.dat")}),
        profile(5, At(4, 600), {text(L"File", folder + L"NTUSER.DAT")}),
        profile(5, At(4, 700), {text(L"File", folder + L"UsrClass.dat")}),
        profile(5, At(4, 900), {text(L"File", folder + L"USRCLASS.DAT")}),
        profile(67, At(4, 950), {text(L"LocalPath", L"C:\\Users\\alice")}),
        profile(67, At(4, 960), {text(L"LocalPath", L"C:\\Users\\TEMP")}),
        SubscriberEvent(812, 2, kLogin, L"Profiles", 2, At(5)),
        SubscriberEvent(811, 1, kLogin, L"GPClient", 2, At(5, 10)),
        // Policy Booleans as numbers, as text from older providers.
        started(L"Registry", boolean(L"IsExtensionAsyncProcessing", 0),
                boolean(L"IsGPOListChanged", 1)),
        started(L"Scripts", text(L"IsExtensionAsyncProcessing", L"-1"),
                text(L"IsGPOListChanged", L"True")),
        started(L"Drive Maps", text(L"IsExtensionAsyncProcessing", L"true"),
                text(L"IsGPOListChanged", L"00")),
        started(L"Printers", text(L"IsExtensionAsyncProcessing", L""),
                text(L"IsGPOListChanged", L"false")),
        finished(L"Registry", UInt32Property(L"CSEElaspedTimeInMilliSeconds", 1200), 0),
        finished(L"Registry", text(L"CSEElaspedTimeInMilliSeconds", L"34"), 0),
        finished(L"Scripts", text(L"CSEElaspedTimeInMilliSeconds", L"250"), 0x80070005),
        finished(L"Scripts", text(L"CSEElaspedTimeInMilliSeconds", L"n/a"), 0),
        finished(L"Drive Maps", text(L"CSEElaspedTimeInMilliSeconds", L"-1"), 0),
        policy(8001, {UInt32Property(L"PolicyElaspedTimeInSeconds", 7)}),
        host(1, 100, {UInt32Property(L"ParentProcessID", 50), text(L"ImageName", gpscript)}),
        host(1, 200, {UInt32Property(L"ParentProcessID", 50), text(L"ImageName", L"GPSCRIPT.EXE")}),
        host(1, 300, {UInt32Property(L"ParentProcessID", 200), text(L"ImageName", powershell)}),
        host(2, 100,
             {text(L"ImageName", L"gpscript.exe"), fileTime(L"CreateTime", At(9)),
              fileTime(L"ExitTime", At(11, 500))}),
        host(2, 200,
             {text(L"ImageName", L"gpscript.exe"), text(L"CreateTime", L"2024-03-01T08:00:10:000Z"),
              text(L"ExitTime", L"2024-03-01T08:00:14:250Z")}),
        SubscriberEvent(812, 2, kLogin, L"GPClient", 2, At(12)),
        NotifyStop(kLogin, 2, At(12, 500)),
        otherWinlogon,
        Event(kSessionManagerGuid, 21, At(12, 600),
              {text(L"User", L"CORP\\alice"), text(L"SessionID", L"2"),
               text(L"Address", L"10.1.2.3")},
              0),
        NotifyStart(kStartShell, 2, At(13)),
        NotifyStop(kStartShell, 2, At(14)),
        userinit,
        AgentEvent(11, 132, 2, At(16)),
        machinePolicy,
        // Other shell events do not tell that the shell is up.
        {.provider = kShellCoreGuid, .id = 9601, .opcode = 2, .time = At(18), .session = 2},
        {.provider = kShellCoreGuid, .id = 9602, .opcode = 1, .time = At(19), .session = 2},
        ShellInitialized(2, At(20)),
    });

    const std::string host100 = "Name: " + logonmon::Utf8FromWide(gpscript) + ", Pid: 100";
    // FILETIME properties are written in local time.
    const std::string local = logonmon::Utf8FromWide(logonmon::TimestampText(At(11, 500), true));
    EXPECT_THAT(
        processor.Logged(),
        ElementsAreArray(Lines{
            "5 Winlogon_CreateSession: Session Initialized Successfully: sessionId=2",
            "5 Winlogon_Login_Started: Received User Logon Event",
            "5 Winlogon_Login_Started: SID: " + logonmon::Utf8FromWide(kAliceSid) + ". sessionId=2",
            "4 Winlogon_Login_Started: LOGON: User: CORP\\alice",
            "5 Process_Started: Found Logon Script Parent: " + host100 + ", Sessiond: 2",
            "5 Process_Started: Found Logon Script Parent: Name: GPSCRIPT.EXE, Pid: 200, "
            "Sessiond: 2",
            "5 Process_Exited: Logon Script Process Terminated: Name: gpscript.exe, "
            "Process Id: 100, Parent Id: 50, Timestamp: " +
                local +
                ", "
                "Sessiond: 2",
            "5 Process_Exited: Group Policy Logon Script Time: 2.50 Seconds",
            "5 Process_Exited: Powershell Script Process Terminated: Name: gpscript.exe, "
            "Process Id: 200, Parent Id: 50, Timestamp: 2024-03-01T08:00:14:250Z, "
            "SessionID: 2",
            "5 Process_Exited: Group Policy Powershell Script Time: 4.25 Seconds",
            "4 Tessera_SessionAttached: Tessera Session Attached",
            "4 Explorer_Initialized: Shell Initialized",
        }));
    EXPECT_EQ(processor.logonStarts, (std::vector<uint32_t>{2}));
    ASSERT_EQ(processor.endedSessions.size(), 1u);
    SESSION_CONTEXT& ended = processor.endedSessions[0];
    EXPECT_EQ(ended.profileFinished, 0xFFFFFFFFu);
    EXPECT_EQ(ended.profileSyncSource + L"|" + ended.profileSyncTarget + L"|" +
                  ended.localProfilePath + L"|" + ended.clientUser + L"|" + ended.clientAddress,
              L"\\\\fs\\p\\alice|" + folder + L"|C:\\Users\\alice|CORP\\alice|10.1.2.3");

    const std::string header =
        "****************** Session Summary (User=alice, sessionId=2) "
        "*****************";
    EXPECT_THAT(
        Summary(processor, ended),
        ElementsAreArray(Concat({
            Sums({header, Row("CreateSession", At(0), At(0, 300), "0.30"),
                  Row("Login", At(1), At(12, 500), "11.50"),
                  // In the order they ran.
                  Row("Profiles", At(1, 100), At(5), "3.90", true),
                  Row("GPClient", At(5, 10), At(12), "6.99", true),
                  Row("StartShell", At(13), At(14), "1.00"),
                  Row("ProfileSync", At(1, 500), At(4, 250), "2.75"),
                  Row("UserHiveLoad", At(4, 250), At(4, 700), "0.45"),
                  Row("ShellInit", At(15), At(20), "5.00"),
                  Row("TotalLogon", At(1), At(20), "19.00")}),
            {Fixed("Profile Sync Time: 2.75 seconds"),
             Fixed("Logon Start To User Hive Loaded Time: 3.50 seconds"),
             Fixed("Logon Start To User Classes Hive Loaded Time: 3.70 seconds"),
             Fixed("Shell Load Time: 7.00 seconds")},
            Sums({"Group Policy Logon Script Time: 2.50 seconds",
                  "Group Policy PS Logon Script Time: 4.25 seconds", "Machine Policy Time: 9ms",
                  "Total Group Policy Logon Script Time: 6.75 seconds", "User Policy Time: 7ms"}),
            PolicyBlock(2, 2, 1, 2, 1484),
            Sums({"     CSE: 'Drive Maps' Duration: 0ms", "     CSE: 'Registry' Duration: 1234ms",
                  "     CSE: 'Scripts' Duration: 250ms"}),
            Footer(2, header.size()),
        })));
}

// Unfinished phases are left out; the footer is as long as the header in
// characters. A name is looked up from the SID only when there is none.
TEST_F(SessionSummaryTest, BareSessionsKeepThePolicyBlockAndAMatchingFooter) {
    accounts_.accounts[kBobSid] = {L"CORP", L"bob"};
    const struct {
        std::wstring name;
        uint32_t sessionId;
        const wchar_t* sid;
        std::wstring shown;
    } users[] = {{L"", 0, kAliceSid, L""},
                 {L"a.very.long.account.name.of.someone", 65535, kBobSid,
                  L"a.very.long.account.name.of.someone"},
                 {L"\u00c5sa \u00d6berg", 12, nullptr, L"\u00c5sa \u00d6berg"},
                 {L"", 7, kBobSid, L"bob"}};
    for (const auto& [name, sessionId, sid, shown] : users) {
        SESSION_CONTEXT session;
        session.sessionId = sessionId;
        session.userName = name;
        if (sid != nullptr) {
            session.userSid = logonmon::Sid::FromString(sid);
        }
        session.timingPoints = {{L"WL_NotifyExecute_Login_Start", At(1)},
                                {L"PROFILE_SYNC_START", At(2)},
                                {L"WL_NotifyExecute_StartShell_Start", At(3)}};
        const std::wstring header = L"****************** Session Summary (User=" + shown +
                                    L", sessionId=" + std::to_wstring(sessionId) +
                                    L") *****************";
        EXPECT_THAT(Summary(Processor(), session),
                    ElementsAreArray(Concat({{Sum(Formatted("%ws", header.c_str()))},
                                             PolicyBlock(0, 0, 0, 0, 0),
                                             Footer(sessionId, header.size())})));
    }
}

Lines TimelineLines(const TimingPoints& points) {
    std::istringstream text(logonmon::Utf8FromWide(
        logonmon::FormatSessionTimeline(logonmon::BuildSessionTimeline(points))));
    Lines lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(SessionTimelineTest, RowsAndFixedPhases) {
    struct Case {
        const char* name;
        TimingPoints points;
        Lines rows;
    };
    const Case cases[] = {
        {"unfinished pairs and other names left out",
         {{L"WL_NotifyExecute_Login_Start", At(2)},
          {L"WL_CallSubscriber_Sens_Login_Start", At(3)},
          {L"WL_CallSubscriber_Login_Stop", At(4)},
          {L"WL_CallSubscriber__Login_Start", At(4)},
          {L"WL_CallSubscriber__Login_Stop", At(5)},
          {L"WL_NotifyExecute_Login_Stop", At(13)},
          {L"WL_NotifyExecute_Logoff_Start", At(40)},
          {L"WL_CallSubscriber_Profiles_Logoff_Start", At(40)},
          {L"WL_CallSubscriber_Profiles_Logoff_Stop", At(41)},
          {L"WL_NotifyExecute_Logoff_Stopped", At(42)}},
         {Row("Login", At(2), At(13), "11.00")}},
        {"no profile sync: the hive load starts with the Profiles subscriber; subscriber names "
         "may hold \"_\"",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"WL_CallSubscriber_Profiles_Login_Start", At(2)},
          {L"WL_CallSubscriber_App_X_Login_Start", At(3)},
          {L"WL_CallSubscriber_App_X_Login_Stop", At(4)},
          {L"WL_NotifyExecute_Login_Stop", At(4)},
          {L"PROFILE_HIVE_LOADED", At(5)},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)}},
         {Row("Login", At(1), At(4), "3.00"), Row("App_X", At(3), At(4), "1.00", true),
          Row("UserHiveLoad", At(2), At(5), "3.00"), Row("TotalLogon", At(1), At(21), "20.00")}},
        {"zero points count as missing",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"PROFILE_SYNC_START", 0},
          {L"PROFILE_SYNC_STOP", At(4)},
          {L"WL_USERINIT_STOP", 0},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)},
          {L"Explorer_Initialized_Stop", 0}},
         {Row("TotalLogon", At(1), At(21), "20.00")}},
        {"the agent attaches after the shell: the user waited for it",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)},
          {L"Explorer_Initialized_Stop", At(30)},
          {L"TX_ATTACHED", At(33)}},
         {Row("ShellInit", At(21), At(30), "9.00"), Row("TotalLogon", At(1), At(33), "32.00")}},
        {"the agent attaches before the shell is up",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"TX_ATTACHED", At(25)},
          {L"Explorer_Initialized_Stop", At(30)}},
         {Row("TotalLogon", At(1), At(30), "29.00")}},
        {"application session without a shell",
         {{L"WL_NotifyExecute_Login_Start", At(1)}, {L"TX_ATTACHED", At(26)}},
         {Row("TotalLogon", At(1), At(26), "25.00")}},
        {"a stop before its start wraps round; no handler sets folder redirection",
         {{L"PROFILE_SYNC_START", At(10)},
          {L"PROFILE_SYNC_STOP", At(9)},
          {L"WFR_APPLY_START", At(30)},
          {L"WFR_APPLY_STOP", At(30, 450)}},
         {Row("ProfileSync", At(10), At(9), "1844674428928.00"),
          Row("FolderRedirection", At(30), At(30, 450), "0.45")}},
        {"nothing", {}, {}},
    };
    for (const Case& c : cases) {
        EXPECT_THAT(TimelineLines(c.points), ElementsAreArray(c.rows)) << c.name;
    }
}

}  // namespace
}  // namespace plmx::testing
