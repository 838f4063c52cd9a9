#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "logonmon/SessionTimeline.h"
#include "tests/logonmon/ProcessorHarness.h"

namespace plmx::testing {
namespace {

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

// As the log writes it: the Windows C runtime converts wide text through the
// C locale.
std::string Formatted(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = logonmon::FormatPrintf(format, args);
    va_end(args);
    return text;
}

// Unfinished phases are left out, the policy block stays; the footer is as
// long as the header in characters. A name is looked up from the SID only when there is none.
TEST_F(ProcessorFixture, BareSessionsKeepThePolicyBlockAndAMatchingFooter) {
    accounts_.accounts[kBobSid] = {L"CORP", L"bob"};
    const struct {
        std::wstring name;
        uint32_t sessionId;
        const wchar_t* sid;
        std::wstring shown;
    } users[] = {{L"\u00c5sa", 12, nullptr, L"User=\u00c5sa, sessionId=12"},
                 {L"", 7, kBobSid, L"User=bob, sessionId=7"}};
    for (const auto& [name, sessionId, sid, shown] : users) {
        logonmon::SESSION_CONTEXT session;
        session.sessionId = sessionId;
        session.userName = name;
        if (sid != nullptr) {
            session.userSid = logonmon::Sid::FromString(sid);
        }
        session.timingPoints = {{L"WL_NotifyExecute_Login_Start", At(1)},
                                {L"PROFILE_SYNC_START", At(2)}};
        auto& processor = Processor();
        processor.LogSummary(session);
        const std::wstring header =
            L"****************** Session Summary (" + shown + L") *****************";
        ASSERT_EQ(processor.lines.size(), 9u);
        EXPECT_EQ(processor.lines[0], Formatted("4 LogSummary: %ws", header.c_str()));
        EXPECT_EQ(processor.lines[7], "4 Extended: extended " + std::to_string(sessionId));
        EXPECT_EQ(processor.lines[8], "4 LogSummary: " + std::string(header.size(), '*'));
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
    const struct {
        const char* name;
        TimingPoints points;
        Lines rows;
    } cases[] = {
        {"unfinished pairs, zero points and other names left out",
         {{L"WL_NotifyExecute_Login_Start", At(2)},
          {L"PROFILE_SYNC_START", 0},
          {L"PROFILE_SYNC_STOP", At(4)},
          {L"WL_CallSubscriber_Sens_Login_Start", At(3)},
          {L"WL_CallSubscriber_Login_Stop", At(4)},
          {L"WL_CallSubscriber__Login_Start", At(4)},
          {L"WL_CallSubscriber__Login_Stop", At(5)},
          {L"WL_NotifyExecute_Login_Stop", At(13)},
          {L"WL_NotifyExecute_Logoff_Start", At(40)},
          {L"WL_NotifyExecute_Logoff_Stopped", At(42)}},
         {Row("Login", At(2), At(13), "11.00")}},
        {"the agent attaches after the shell: the user waited for it",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)},
          {L"Explorer_Initialized_Stop", At(30)},
          {L"TX_ATTACHED", At(33)}},
         {Row("ShellInit", At(21), At(30), "9.00"), Row("TotalLogon", At(1), At(33), "32.00")}},
        {"a stop before its start wraps round; no handler sets folder redirection",
         {{L"PROFILE_SYNC_START", At(10)},
          {L"PROFILE_SYNC_STOP", At(9)},
          {L"WFR_APPLY_START", At(30)},
          {L"WFR_APPLY_STOP", At(30, 450)}},
         {Row("ProfileSync", At(10), At(9), "1844674428928.00"),
          Row("FolderRedirection", At(30), At(30, 450), "0.45")}},
    };
    for (const auto& c : cases) {
        EXPECT_THAT(TimelineLines(c.points), ElementsAreArray(c.rows)) << c.name;
    }
}

}  // namespace
}  // namespace plmx::testing
