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

constexpr wchar_t kSummaryFn[] = L"logonmon::LogonProcessor::LogSummary";
constexpr wchar_t kFixedFn[] = L"logonmon::LogonProcessor::LogSummary::<lambda_1>::operator ()";

uint64_t At(uint32_t second, uint32_t millisecond = 0) {
    return kMorning + second * kSecond + millisecond * 10'000ull;
}

// A timeline row: left-aligned at the top level, right-aligned when nested.
std::string Row(bool nested, const char* label, uint64_t start, uint64_t stop,
                const char* seconds) {
    char text[256];
    std::snprintf(text, sizeof text,
                  nested ? "%20s %s - %s (dur %s seconds)" : "%-20s %s - %s (dur %s seconds)",
                  label, logonmon::Utf8FromWide(logonmon::TimestampText(start, true)).c_str(),
                  logonmon::Utf8FromWide(logonmon::TimestampText(stop, true)).c_str(), seconds);
    return text;
}
std::string Top(const char* label, uint64_t start, uint64_t stop, const char* seconds) {
    return Row(false, label, start, stop, seconds);
}
std::string Nested(const char* label, uint64_t start, uint64_t stop, const char* seconds) {
    return Row(true, label, start, stop, seconds);
}
// A fixed-duration line, written under the lambda's name.
std::string Fixed(const std::string& text) {
    return "<lambda_1> " + text;
}

std::string Formatted(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = logonmon::FormatPrintf(format, args);
    va_end(args);
    return text;
}

std::string Header(const std::wstring& user, uint32_t sessionId) {
    return Formatted(
        "****************** Session Summary (User=%ws, sessionId=%d) *****************",
        user.c_str(), sessionId);
}

Lines PolicyBlock(int async, int sync, int failed, int changed, int totalMs) {
    return {"Group Policy Summary: ",
            "   Async. Policies: " + std::to_string(async),
            "   Sync. Policies: " + std::to_string(sync),
            "   Failed Policies: " + std::to_string(failed),
            "   Changed Policies: " + std::to_string(changed),
            "   Group Policy CSE Total Time: " + std::to_string(totalMs) + "ms"};
}

Lines Concat(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// Marks where the extended summary goes.
class SummaryProcessor : public RecordingProcessor {
  public:
    using RecordingProcessor::RecordingProcessor;

    void LogExtendedSummary(SESSION_CONTEXT& session) override {
        LogFormatted(4, L"Extended", "extended %d", session.sessionId);
    }
};

class SessionSummaryTest : public ::testing::Test {
  protected:
    // The summary's lines, all at level 4, as a fresh processor writes them.
    Lines Summary(SESSION_CONTEXT& session) {
        SummaryProcessor processor(logonmon::SESSION_CONFIG{},
                                   logonmon::ProcessorServices{&timers_, &clock_, &accounts_});
        processor.LogSummary(session);
        Lines summary;
        for (const ProcessorLogLine& line : processor.lines) {
            EXPECT_EQ(line.level, 4u) << line.text;
            summary.push_back(line.function == kSummaryFn ? line.text
                              : line.function == kFixedFn ? Fixed(line.text)
                                                          : "[Extended] " + line.text);
        }
        return summary;
    }

    ScopedFakeTdh tdh_;
    ManualTimerService timers_;
    FakeClock clock_;
    FakeAccounts accounts_;
};

TEST_F(SessionSummaryTest, SummarisesACompleteLogon) {
    SESSION_CONTEXT session;
    session.sessionId = 2;
    session.userName = L"alice";
    session.timingPoints = {
        {L"WL_NotifyExecute_CreateSession_Start", At(0)},
        {L"WL_NotifyExecute_CreateSession_Stop", At(0, 300)},
        {L"WL_NotifyExecute_Login_Start", At(1)},
        {L"WL_CallSubscriber_Profiles_Login_Start", At(1, 100)},
        {L"PROFILE_SYNC_START", At(1, 500)},
        {L"PROFILE_SYNC_STOP", At(4, 250)},
        {L"PROFILE_HIVE_LOADED", At(4, 600)},
        {L"PROFILE_CLASSES_HIVE_LOADED", At(4, 900)},
        {L"WL_CallSubscriber_Profiles_Login_Stop", At(5)},
        {L"WL_CallSubscriber_GPClient_Login_Start", At(5, 10)},
        {L"WL_CallSubscriber_GPClient_Login_Stop", At(12)},
        {L"WL_NotifyExecute_Login_Stop", At(12, 500)},
        {L"WL_NotifyExecute_StartShell_Start", At(13)},
        {L"WL_NotifyExecute_StartShell_Stop", At(14)},
        {L"WL_USERINIT_STOP", At(15)},
        {L"Explorer_Initialized_Stop", At(20)},
    };
    session.namedDurations = {{L"User Policy Time", int32_t{7}},
                              {L"Group Policy Logon Script Time", 2.5f}};
    session.asyncPolicies = 1;
    session.syncPolicies = 2;
    session.changedPolicies = 1;
    session.failedPolicies = 3;
    session.cseDurations = {{L"Registry", 1200}, {L"Scripts", 250}};

    const std::string header = Header(L"alice", 2);
    EXPECT_THAT(
        Summary(session),
        ElementsAreArray(Concat({
            {header, Top("CreateSession", At(0), At(0, 300), "0.30"),
             Top("Login", At(1), At(12, 500), "11.50"),
             // In the order they ran.
             Nested("Profiles", At(1, 100), At(5), "3.90"),
             Nested("GPClient", At(5, 10), At(12), "6.99"),
             Top("StartShell", At(13), At(14), "1.00"),
             Top("ProfileSync", At(1, 500), At(4, 250), "2.75"),
             Top("UserHiveLoad", At(4, 250), At(4, 900), "0.65"),
             Top("ShellInit", At(15), At(20), "5.00"), Top("TotalLogon", At(1), At(20), "19.00"),
             Fixed("Profile Sync Time: 2.75 seconds"),
             Fixed("Logon Start To User Hive Loaded Time: 3.60 seconds"),
             Fixed("Logon Start To User Classes Hive Loaded Time: 3.90 seconds"),
             Fixed("Shell Load Time: 7.00 seconds"), "Group Policy Logon Script Time: 2.50 seconds",
             "User Policy Time: 7ms"},
            PolicyBlock(1, 2, 3, 1, 1450),
            {"     CSE: 'Registry' Duration: 1200ms", "     CSE: 'Scripts' Duration: 250ms",
             "[Extended] extended 2", std::string(header.size(), '*')},
        })));
}

// As Windows reports them: policy Booleans, the script host's FILETIMEs and
// machine policy under an activity of its own all reach the summary.
TEST_F(SessionSummaryTest, ALogonAsWindowsReportsItShowsPolicyAndScriptFigures) {
    using namespace logonmon::etw;
    auto event = [](const wchar_t* provider, uint16_t id, std::optional<uint32_t> session,
                    std::optional<std::wstring> activity, std::vector<PropertyDefinition> values) {
        TestEvent e;
        e.provider = provider;
        e.id = id;
        e.session = session;
        e.activity = std::move(activity);
        e.properties = std::move(values);
        return e;
    };
    auto typed = [](const wchar_t* name, uint16_t inType, std::vector<uint8_t> value) {
        return PropertyDefinition{name, inType, 0, std::move(value)};
    };
    const std::wstring userPolicy = L"6c1c5d1e-7a39-4d4c-9a0b-3a4b5c6d7e8f";
    const std::vector<PropertyDefinition> host = {UInt32Property(L"ProcessID", 300),
                                                  StringProperty(L"ImageName", L"gpscript.exe")};
    SummaryProcessor processor(logonmon::SESSION_CONFIG{},
                               logonmon::ProcessorServices{&timers_, &clock_, &accounts_});
    for (const TestEvent& e :
         {CreateSession(2, kAliceSid, At(0)),
          event(kGroupPolicyGuid, 4016, 2, userPolicy,
                {StringProperty(L"CSEExtensionName", L"Scripts"),
                 typed(L"IsExtensionAsyncProcessing", kInTypeBoolean, UInt32Bytes(0)),
                 typed(L"IsGPOListChanged", kInTypeBoolean, UInt32Bytes(1))}),
          event(kKernelProcessGuid, 1, 2, std::nullopt, host),
          event(kKernelProcessGuid, 2, 2, std::nullopt,
                {host[0], typed(L"CreateTime", kInTypeFileTime, UInt64Bytes(At(2))),
                 typed(L"ExitTime", kInTypeFileTime, UInt64Bytes(At(4, 500)))}),
          event(kGroupPolicyGuid, 5016, std::nullopt, userPolicy,
                {StringProperty(L"CSEExtensionName", L"Scripts"),
                 UInt32Property(L"CSEElaspedTimeInMilliSeconds", 2600)}),
          event(kGroupPolicyGuid, 8004, std::nullopt, L"0f0e0d0c-0b0a-0908-0706-050403020100",
                {UInt32Property(L"PolicyElaspedTimeInSeconds", 9)}),
          NotifyStop(kStartShell, 2, At(8)), ShellInitialized(2, At(10))}) {
        processor.Feed(e);
    }
    ASSERT_EQ(processor.endedSessions.size(), 1u);
    EXPECT_THAT(Summary(processor.endedSessions[0]),
                ::testing::IsSupersetOf(Concat(
                    {{"Group Policy Logon Script Time: 2.50 seconds", "Machine Policy Time: 9ms"},
                     PolicyBlock(0, 1, 0, 1, 2600),
                     {"     CSE: 'Scripts' Duration: 2600ms"}})));
}

TEST_F(SessionSummaryTest, DurationsInSinglePrecisionAndNamedDurationsInBothKinds) {
    SESSION_CONTEXT session;
    session.sessionId = 3;
    session.userName = L"carol";
    session.timingPoints = {
        // Stopped before it started: the unsigned difference wraps.
        {L"PROFILE_SYNC_START", At(10)},
        {L"PROFILE_SYNC_STOP", At(9)},
        {L"WL_NotifyExecute_Login_Start", At(1)},
        {L"PROFILE_HIVE_LOADED", At(1) + 1'234'567'890},
        // A zero point counts as missing.
        {L"PROFILE_CLASSES_HIVE_LOADED", 0},
        {L"WFR_APPLY_START", At(30)},
        {L"WFR_APPLY_STOP", At(30, 450)},
    };
    session.namedDurations = {{L"Machine Policy Time", int32_t{3}},
                              {L"Group Policy PS Logon Script Time", 4.25f},
                              {L"User Policy Time", int32_t{-1}}};
    session.cseDurations = {{L"Scripts", 250}, {L"Drive Maps", 4000}};

    const std::string header = Header(L"carol", 3);
    EXPECT_THAT(
        Summary(session),
        ElementsAreArray(Concat({
            {header, Top("ProfileSync", At(10), At(9), "1844674428928.00"),
             Top("UserHiveLoad", At(9), At(1) + 1'234'567'890, "115.46"),
             Top("FolderRedirection", At(30), At(30, 450), "0.45"),
             Fixed("Profile Sync Time: 1844674428928.00 seconds"),
             Fixed("Logon Start To User Hive Loaded Time: 123.46 seconds"),
             Fixed("Windows Folder Redirection Apply Time: 0.45 seconds"),
             "Group Policy PS Logon Script Time: 4.25 seconds", "Machine Policy Time: 3ms",
             "User Policy Time: -1ms"},
            PolicyBlock(0, 0, 0, 0, 4250),
            {"     CSE: 'Drive Maps' Duration: 4000ms", "     CSE: 'Scripts' Duration: 250ms",
             "[Extended] extended 3", std::string(header.size(), '*')},
        })));
}

TEST_F(SessionSummaryTest, BareSessionKeepsThePolicyBlockAndAFooterAsLongAsTheHeader) {
    // Without the Login event the name is looked up from the SID.
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
        // Phases that started and never ended.
        session.timingPoints = {{L"WL_NotifyExecute_Login_Start", At(1)},
                                {L"PROFILE_SYNC_START", At(2)},
                                {L"WL_NotifyExecute_StartShell_Start", At(3)}};
        const std::string header = Header(shown, sessionId);
        const size_t wideLength = Formatted("%ws", shown.c_str()).size() - shown.size();
        EXPECT_THAT(Summary(session),
                    ElementsAreArray(Concat({{header},
                                             PolicyBlock(0, 0, 0, 0, 0),
                                             {"[Extended] extended " + std::to_string(sessionId),
                                              std::string(header.size() - wideLength, '*')}})));
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
          {L"WL_NotifyExecute_Login_Stop", At(13)},
          {L"WL_NotifyExecute_Logoff_Start", At(40)},
          {L"WL_CallSubscriber_Profiles_Logoff_Start", At(40)},
          {L"WL_CallSubscriber_Profiles_Logoff_Stop", At(41)},
          {L"WL_NotifyExecute_Logoff_Stopped", At(42)}},
         {Top("Login", At(2), At(13), "11.00")}},
        {"no profile sync: the hive load starts with the Profiles subscriber",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"WL_CallSubscriber_Profiles_Login_Start", At(2)},
          {L"PROFILE_HIVE_LOADED", At(5)},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)}},
         {Top("UserHiveLoad", At(2), At(5), "3.00"), Top("TotalLogon", At(1), At(21), "20.00")}},
        {"zero points count as missing",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"PROFILE_SYNC_START", 0},
          {L"PROFILE_SYNC_STOP", At(4)},
          {L"WL_USERINIT_STOP", 0},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)},
          {L"Explorer_Initialized_Stop", 0}},
         {Top("TotalLogon", At(1), At(21), "20.00")}},
        {"the agent attaches after the shell: the user waited for it",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)},
          {L"Explorer_Initialized_Stop", At(30)},
          {L"TX_ATTACHED", At(33)}},
         {Top("ShellInit", At(21), At(30), "9.00"), Top("TotalLogon", At(1), At(33), "32.00")}},
        {"the agent attaches before the shell is up",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"TX_ATTACHED", At(25)},
          {L"Explorer_Initialized_Stop", At(30)}},
         {Top("TotalLogon", At(1), At(30), "29.00")}},
        {"application session without a shell",
         {{L"WL_NotifyExecute_Login_Start", At(1)}, {L"TX_ATTACHED", At(26)}},
         {Top("TotalLogon", At(1), At(26), "25.00")}},
        {"nothing", {}, {}},
    };
    for (const Case& c : cases) {
        EXPECT_THAT(TimelineLines(c.points), ElementsAreArray(c.rows)) << c.name;
    }
}

}  // namespace
}  // namespace plmx::testing
