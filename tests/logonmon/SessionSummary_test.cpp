#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>

#include "logonmon/PrintfFormat.h"
#include "tests/logonmon/ProcessorHarness.h"
#include "trace/TextForms.h"

namespace plmx::testing {
namespace {

using logonmon::SESSION_CONTEXT;
using ::testing::ElementsAreArray;

constexpr wchar_t kSummaryFn[] = L"logonmon::LogonProcessor::LogSummary";
constexpr wchar_t kFixedFn[] = L"logonmon::LogonProcessor::LogSummary::<lambda_1>::operator ()";
constexpr wchar_t kExtendedFn[] = L"SummaryProcessor::LogExtendedSummary";

// Writes the summary when a logon settles, as the monitor does, and marks
// where the extended summary goes.
class SummaryProcessor : public RecordingProcessor {
  public:
    using RecordingProcessor::RecordingProcessor;

    void OnLogonEnd(SESSION_CONTEXT& session) override {
        RecordingProcessor::OnLogonEnd(session);
        LogSummary(session);
    }
    void LogExtendedSummary(SESSION_CONTEXT& session) override {
        LogFormatted(4, kExtendedFn, "Extended summary of session %d", session.sessionId);
    }
};

struct Line {
    std::wstring function;
    std::string text;

    bool operator==(const Line&) const = default;
};

void PrintTo(const Line& line, std::ostream* out) {
    *out << logonmon::Utf8FromWide(line.function) << ": " << line.text;
}

class SessionSummaryTest : public ::testing::Test {
  protected:
    SummaryProcessor& Processor() {
        processor_ = std::make_unique<SummaryProcessor>(
            logonmon::SESSION_CONFIG{}, logonmon::ProcessorServices{&timers_, &clock_, &accounts_});
        return *processor_;
    }

    // The lines from the summary's header on; every one at level 4.
    std::vector<Line> SummaryLines() const {
        std::vector<Line> summary;
        bool inSummary = false;
        for (const LogLine& line : processor_->lines) {
            inSummary = inSummary || line.function == kSummaryFn;
            if (inSummary) {
                EXPECT_EQ(line.level, 4u) << line.text;
                summary.push_back({line.function, line.text});
            }
        }
        return summary;
    }

    ScopedFakeTdh tdh_;
    ManualTimerService timers_;
    FakeClock clock_;
    FakeAccounts accounts_;
    std::unique_ptr<SummaryProcessor> processor_;
};

uint64_t At(uint32_t second, uint32_t millisecond = 0) {
    return kMorning + second * kSecond + millisecond * 10'000ull;
}

std::string Time(uint64_t fileTime) {
    return logonmon::Utf8FromWide(logonmon::TimestampText(fileTime, true));
}

// A timeline line; the duration is given as text.
Line Phase(const char* format, const char* label, uint64_t start, uint64_t stop,
           const char* seconds) {
    char text[256];
    std::snprintf(text, sizeof text, format, label, Time(start).c_str(), Time(stop).c_str(),
                  seconds);
    return {kSummaryFn, text};
}

Line Top(const char* label, uint64_t start, uint64_t stop, const char* seconds) {
    return Phase("%-20s %s - %s (dur %s seconds)", label, start, stop, seconds);
}

Line Nested(const char* label, uint64_t start, uint64_t stop, const char* seconds) {
    return Phase("%20s %s - %s (dur %s seconds)", label, start, stop, seconds);
}

Line Summary(const std::string& text) {
    return {kSummaryFn, text};
}

Line Fixed(const std::string& text) {
    return {kFixedFn, text};
}

Line Stars(size_t count) {
    return {kSummaryFn, std::string(count, '*')};
}

TestEvent ProfileService(uint16_t id, uint64_t time, std::vector<PropertyDefinition> properties = {}) {
    TestEvent event;
    event.provider = kUserProfilesGuid;
    event.id = id;
    event.session = 0;
    event.sid = kAliceSid;
    event.thread = 0x51c;
    event.time = time;
    event.properties = std::move(properties);
    return event;
}

TestEvent Policy(uint16_t id, uint64_t time, std::vector<PropertyDefinition> properties) {
    TestEvent event;
    event.provider = kGroupPolicyGuid;
    event.id = id;
    event.session = 2;
    event.time = time;
    event.properties = std::move(properties);
    return event;
}

TestEvent CseStarted(const wchar_t* name, const wchar_t* async, const wchar_t* changed,
                     uint64_t time) {
    return Policy(
        4016, time,
        {StringProperty(L"CSEExtensionName", name), StringProperty(L"DescriptionString", name),
         StringProperty(L"IsExtensionAsyncProcessing", async),
         StringProperty(L"IsGPOListChanged", changed)});
}

TestEvent CseFinished(const wchar_t* name, const wchar_t* milliseconds, uint32_t error,
                      uint64_t time) {
    return Policy(5016, time,
                  {StringProperty(L"CSEExtensionName", name),
                   StringProperty(L"CSEElaspedTimeInMilliSeconds", milliseconds),
                   UInt32Property(L"ErrorCode", error)});
}

TestEvent Process(uint16_t id, uint64_t time, std::vector<PropertyDefinition> properties) {
    TestEvent event;
    event.provider = kKernelProcessGuid;
    event.id = id;
    event.session = 2;
    event.time = time;
    event.properties = std::move(properties);
    return event;
}

TestEvent UserinitStop(uint64_t time) {
    TestEvent event;
    event.provider = kWinlogonGuid;
    event.id = 10;
    event.session = 2;
    event.time = time;
    return event;
}

TEST_F(SessionSummaryTest, SummarisesACompleteLogon) {
    accounts_.accounts[kAliceSid] = {L"CORP", L"alice"};
    auto& processor = Processor();
    processor.Feed(CreateSession(2, kAliceSid, At(0)));
    processor.Feed(NotifyStop(kCreateSession, 2, At(0, 300)));
    processor.Feed(Login(2, kAliceSid, At(1)));
    processor.Feed(SubscriberEvent(811, 1, kLogin, L"Profiles", 2, At(1, 100)));
    processor.Feed(ProfileService(6, At(1, 500),
                                  {StringProperty(L"Source", L"\\\\fs\\profiles\\alice"),
                                   StringProperty(L"Target", L"C:\\Users\\alice")}));
    processor.Feed(ProfileService(7, At(4, 250)));
    processor.Feed(
        ProfileService(5, At(4, 600), {StringProperty(L"File", L"C:\\Users\\alice\\ntuser.dat")}));
    processor.Feed(ProfileService(
        5, At(4, 900),
        {StringProperty(L"File",
                        L"C:\\Users\\alice\\AppData\\Local\\Microsoft\\Windows\\UsrClass.dat")}));
    processor.Feed(SubscriberEvent(812, 2, kLogin, L"Profiles", 2, At(5)));
    processor.Feed(SubscriberEvent(811, 1, kLogin, L"GPClient", 2, At(5, 10)));
    processor.Feed(CseStarted(L"Registry", L"false", L"true", At(6)));
    processor.Feed(CseFinished(L"Registry", L"1200", 0, At(7)));
    processor.Feed(CseStarted(L"Scripts", L"true", L"false", At(8)));
    processor.Feed(CseFinished(L"Scripts", L"250", 0x80070005, At(9)));
    processor.Feed(Policy(8001, At(11), {StringProperty(L"PolicyElaspedTimeInSeconds", L"7")}));
    processor.Feed(SubscriberEvent(812, 2, kLogin, L"GPClient", 2, At(12)));
    processor.Feed(NotifyStop(kLogin, 2, At(12, 500)));
    processor.Feed(NotifyStart(kStartShell, 2, At(13)));
    processor.Feed(
        Process(1, At(13, 500),
                {UInt32Property(L"ProcessID", 100), UInt32Property(L"ParentProcessID", 50),
                 StringProperty(L"ImageName", L"GPSCRIPT.EXE")}));
    processor.Feed(NotifyStop(kStartShell, 2, At(14)));
    processor.Feed(UserinitStop(At(15)));
    processor.Feed(
        Process(2, At(16, 500),
                {UInt32Property(L"ProcessID", 100), StringProperty(L"ImageName", L"GPSCRIPT.EXE"),
                 StringProperty(L"CreateTime", L"2024-03-01T00:00:14:000Z"),
                 StringProperty(L"ExitTime", L"2024-03-01T00:00:16:500Z")}));
    ASSERT_TRUE(processor.endedSessions.empty());
    processor.Feed(ShellInitialized(2, At(20)));

    const std::string header =
        "****************** Session Summary (User=alice, sessionId=2) *****************";
    const std::vector<Line> expected = {
        Summary(header),
        Top("CreateSession", At(0), At(0, 300), "0.30"),
        Top("Login", At(1), At(12, 500), "11.50"),
        Nested("Profiles", At(1, 100), At(5), "3.90"),
        Nested("GPClient", At(5, 10), At(12), "6.99"),
        Top("StartShell", At(13), At(14), "1.00"),
        Top("ProfileSync", At(1, 500), At(4, 250), "2.75"),
        Top("UserHiveLoad", At(4, 250), At(4, 900), "0.65"),
        Top("ShellInit", At(15), At(20), "5.00"),
        Top("TotalLogon", At(1), At(20), "19.00"),
        Fixed("Profile Sync Time: 2.75 seconds"),
        Fixed("Logon Start To User Hive Loaded Time: 3.60 seconds"),
        Fixed("Logon Start To User Classes Hive Loaded Time: 3.90 seconds"),
        Fixed("Shell Load Time: 7.00 seconds"),
        Summary("Group Policy Logon Script Time: 2.50 seconds"),
        Summary("Total Group Policy Logon Script Time: 2.50 seconds"),
        Summary("User Policy Time: 7ms"),
        Summary("Group Policy Summary: "),
        Summary("   Async. Policies: 1"),
        Summary("   Sync. Policies: 1"),
        Summary("   Failed Policies: 1"),
        Summary("   Changed Policies: 1"),
        Summary("   Group Policy CSE Total Time: 1450ms"),
        Summary("     CSE: 'Registry' Duration: 1200ms"),
        Summary("     CSE: 'Scripts' Duration: 250ms"),
        {kExtendedFn, "Extended summary of session 2"},
        Stars(header.size()),
    };
    EXPECT_THAT(SummaryLines(), ElementsAreArray(expected));
    ASSERT_EQ(processor.endedSessions.size(), 1u);
    for (const LogLine& line : processor.lines) {
        EXPECT_EQ(line.session, 2) << line.text;
    }
}

TEST_F(SessionSummaryTest, WithoutPhasesOrPolicyOnlyTheBlockRemains) {
    auto& processor = Processor();
    SESSION_CONTEXT session;
    session.sessionId = 7;
    session.userName = L"bob";
    // Started phases that never ended.
    session.timingPoints = {{L"WL_NotifyExecute_Login_Start", At(1)},
                            {L"PROFILE_SYNC_START", At(2)},
                            {L"WL_NotifyExecute_StartShell_Start", At(3)}};
    processor.LogSummary(session);

    const std::string header =
        "****************** Session Summary (User=bob, sessionId=7) *****************";
    EXPECT_THAT(SummaryLines(), ElementsAreArray(std::vector<Line>{
                                    Summary(header),
                                    Summary("Group Policy Summary: "),
                                    Summary("   Async. Policies: 0"),
                                    Summary("   Sync. Policies: 0"),
                                    Summary("   Failed Policies: 0"),
                                    Summary("   Changed Policies: 0"),
                                    Summary("   Group Policy CSE Total Time: 0ms"),
                                    {kExtendedFn, "Extended summary of session 7"},
                                    Stars(header.size()),
                                }));
}

TEST_F(SessionSummaryTest, FixedDurationsAndNamedDurations) {
    auto& processor = Processor();
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
    processor.LogSummary(session);

    const std::string header =
        "****************** Session Summary (User=carol, sessionId=3) *****************";
    EXPECT_THAT(SummaryLines(), ElementsAreArray(std::vector<Line>{
                                    Summary(header),
                                    Top("ProfileSync", At(10), At(9), "1844674428928.00"),
                                    Top("UserHiveLoad", At(9), At(1) + 1'234'567'890, "115.46"),
                                    Top("FolderRedirection", At(30), At(30, 450), "0.45"),
                                    Fixed("Profile Sync Time: 1844674428928.00 seconds"),
                                    Fixed("Logon Start To User Hive Loaded Time: 123.46 seconds"),
                                    Fixed("Windows Folder Redirection Apply Time: 0.45 seconds"),
                                    Summary("Group Policy PS Logon Script Time: 4.25 seconds"),
                                    Summary("Machine Policy Time: 3ms"),
                                    Summary("User Policy Time: -1ms"),
                                    Summary("Group Policy Summary: "),
                                    Summary("   Async. Policies: 0"),
                                    Summary("   Sync. Policies: 0"),
                                    Summary("   Failed Policies: 0"),
                                    Summary("   Changed Policies: 0"),
                                    Summary("   Group Policy CSE Total Time: 4250ms"),
                                    Summary("     CSE: 'Drive Maps' Duration: 4000ms"),
                                    Summary("     CSE: 'Scripts' Duration: 250ms"),
                                    {kExtendedFn, "Extended summary of session 3"},
                                    Stars(header.size()),
                                }));
}

// A log line's text as the processor's log call formats it: wide text comes
// out as UTF-8 here, in the ANSI code page on Windows.
std::string Formatted(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = logonmon::FormatPrintf(format, args);
    va_end(args);
    return text;
}

TEST_F(SessionSummaryTest, FooterIsAsLongAsTheHeader) {
    const std::pair<std::wstring, uint32_t> users[] = {
        {L"", 0},
        {L"x", 1},
        {L"a.very.long.account.name.of.someone", 65535},
        {L"\u00c5sa \u00d6berg", 12},
    };
    for (const auto& [name, sessionId] : users) {
        auto& processor = Processor();
        SESSION_CONTEXT session;
        session.sessionId = sessionId;
        session.userName = name;
        processor.LogSummary(session);

        const std::vector<Line> lines = SummaryLines();
        ASSERT_FALSE(lines.empty());
        const std::wstring header = L"****************** Session Summary (User=" + name +
                                    L", sessionId=" + std::to_wstring(sessionId) +
                                    L") *****************";
        EXPECT_EQ(lines.front().text, Formatted("%ws", header.c_str()));
        EXPECT_EQ(lines.back(), Stars(header.size()));
    }
}

}  // namespace
}  // namespace plmx::testing
