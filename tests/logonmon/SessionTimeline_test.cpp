#include <gtest/gtest.h>

#include <cstdio>

#include "logonmon/SessionTimeline.h"
#include "tests/logonmon/ProcessorHarness.h"

namespace plmx::testing {
namespace {

uint64_t At(uint32_t second, uint32_t millisecond = 0) {
    return kMorning + second * kSecond + millisecond * 10'000ull;
}

// A top-level timeline row, with its line end.
std::string Row(const char* label, uint64_t start, uint64_t stop, const char* seconds) {
    char text[256];
    std::snprintf(text, sizeof text, "%-20s %s - %s (dur %s seconds)\n", label,
                  logonmon::Utf8FromWide(logonmon::TimestampText(start, true)).c_str(),
                  logonmon::Utf8FromWide(logonmon::TimestampText(stop, true)).c_str(), seconds);
    return text;
}

std::string Timeline(const logonmon::TimingPoints& points) {
    return logonmon::Utf8FromWide(
        logonmon::FormatSessionTimeline(logonmon::BuildSessionTimeline(points)));
}

// A stop before its start wraps round; the agent attaching after the shell
// ends the logon, the user waited for it; nothing but the replays sets folder
// redirection.
TEST(SessionTimelineTest, RowsAndFixedPhases) {
    EXPECT_EQ(Timeline({{L"WL_NotifyExecute_Login_Start", At(1)},
                        {L"PROFILE_SYNC_START", At(10)},
                        {L"PROFILE_SYNC_STOP", At(9)},
                        {L"WFR_APPLY_START", At(30)},
                        {L"WFR_APPLY_STOP", At(30, 450)},
                        {L"WL_NotifyExecute_StartShell_Stop", At(21)},
                        {L"Explorer_Initialized_Stop", At(30)},
                        {L"TX_ATTACHED", At(33)}}),
              Row("ProfileSync", At(10), At(9), "1844674428928.00") +
                  Row("FolderRedirection", At(30), At(30, 450), "0.45") +
                  Row("ShellInit", At(21), At(30), "9.00") +
                  Row("TotalLogon", At(1), At(33), "32.00"));
    // Unfinished pairs, zero points and other names are left out.
    EXPECT_EQ(Timeline({{L"WL_NotifyExecute_Login_Start", At(2)},
                        {L"PROFILE_SYNC_START", 0},
                        {L"PROFILE_SYNC_STOP", At(4)},
                        {L"WL_CallSubscriber_Sens_Login_Start", At(3)},
                        {L"WL_CallSubscriber_Login_Stop", At(4)},
                        {L"WL_CallSubscriber__Login_Start", At(4)},
                        {L"WL_CallSubscriber__Login_Stop", At(5)},
                        {L"WL_NotifyExecute_Login_Stop", At(13)},
                        {L"WL_NotifyExecute_Logoff_Stopped", At(42)}}),
              Row("Login", At(2), At(13), "11.00"));
}

}  // namespace
}  // namespace plmx::testing
