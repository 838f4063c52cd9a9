#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "logonmon/SessionTimeline.h"
#include "tests/logonmon/ProcessorHarness.h"
#include "trace/TextForms.h"

namespace plmx::testing {
namespace {

using logonmon::TimingPoints;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

// The phases here last whole seconds, exact in any precision.
std::string DurationText(uint64_t start, uint64_t stop) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", static_cast<double>(stop - start) / kSecond);
    return text;
}

std::vector<std::string> TimelineLines(const TimingPoints& points) {
    const std::string text = logonmon::Utf8FromWide(
        logonmon::FormatSessionTimeline(logonmon::BuildSessionTimeline(points)));
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    EXPECT_TRUE(text.empty() || text.back() == '\n');
    return lines;
}

std::string Row(const char* format, const char* label, uint64_t start, uint64_t stop) {
    char text[256];
    std::snprintf(text, sizeof text, format, label,
                  logonmon::Utf8FromWide(logonmon::TimestampText(start, true)).c_str(),
                  logonmon::Utf8FromWide(logonmon::TimestampText(stop, true)).c_str(),
                  DurationText(start, stop).c_str());
    return text;
}

std::string Top(const char* label, uint64_t start, uint64_t stop) {
    return Row("%-20s %s - %s (dur %s seconds)", label, start, stop);
}

std::string Nested(const char* label, uint64_t start, uint64_t stop) {
    return Row("%20s %s - %s (dur %s seconds)", label, start, stop);
}

constexpr uint64_t At(uint64_t seconds) {
    return kMorning + seconds * kSecond;
}

TEST(SessionTimelineTest, NotificationsByNameWithTheirSubscribersInStartOrder) {
    const TimingPoints points = {
        {L"WL_NotifyExecute_CreateSession_Start", At(0)},
        {L"WL_NotifyExecute_CreateSession_Stop", At(1)},
        {L"WL_NotifyExecute_Login_Start", At(2)},
        {L"WL_CallSubscriber_Profiles_Login_Start", At(3)},
        {L"WL_CallSubscriber_Profiles_Login_Stop", At(7)},
        {L"WL_CallSubscriber_GPClient_Login_Start", At(7)},
        {L"WL_CallSubscriber_GPClient_Login_Stop", At(12)},
        // Only started: no row.
        {L"WL_CallSubscriber_Sens_Login_Start", At(12)},
        {L"WL_NotifyExecute_Login_Stop", At(13)},
        {L"WL_NotifyExecute_StartShell_Start", At(14)},
        {L"WL_CallSubscriber_Profiles_StartShell_Start", At(14)},
        {L"WL_CallSubscriber_Profiles_StartShell_Stop", At(15)},
        {L"WL_NotifyExecute_StartShell_Stop", At(16)},
        // A notification without its stop, and the subscribers under it.
        {L"WL_NotifyExecute_Logoff_Start", At(40)},
        {L"WL_CallSubscriber_Profiles_Logoff_Start", At(40)},
        {L"WL_CallSubscriber_Profiles_Logoff_Stop", At(41)},
    };
    EXPECT_THAT(TimelineLines(points),
                ElementsAre(Top("CreateSession", At(0), At(1)), Top("Login", At(2), At(13)),
                            Nested("Profiles", At(3), At(7)), Nested("GPClient", At(7), At(12)),
                            Top("StartShell", At(14), At(16)), Nested("Profiles", At(14), At(15)),
                            Top("TotalLogon", At(2), At(16))));
}

TEST(SessionTimelineTest, FixedPhasesTakeTheirFirstPresentCandidates) {
    struct Case {
        const char* name;
        TimingPoints points;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
        {"profile service and shell",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"PROFILE_SYNC_START", At(2)},
          {L"PROFILE_SYNC_STOP", At(4)},
          {L"PROFILE_HIVE_LOADED", At(5)},
          {L"PROFILE_CLASSES_HIVE_LOADED", At(6)},
          {L"WL_USERINIT_STOP", At(20)},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)},
          {L"Explorer_Initialized_Stop", At(30)}},
         {Top("ProfileSync", At(2), At(4)), Top("UserHiveLoad", At(4), At(6)),
          Top("ShellInit", At(20), At(30)), Top("TotalLogon", At(1), At(30))}},
        {"no profile sync: the hive load starts with the Profiles subscriber",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"WL_CallSubscriber_Profiles_Login_Start", At(2)},
          {L"PROFILE_HIVE_LOADED", At(5)},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)}},
         {Top("UserHiveLoad", At(2), At(5)), Top("TotalLogon", At(1), At(21))}},
        {"zero points count as missing",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"PROFILE_SYNC_START", 0},
          {L"PROFILE_SYNC_STOP", At(4)},
          {L"WL_USERINIT_STOP", 0},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)},
          {L"Explorer_Initialized_Stop", 0}},
         // The hive load has a start but no stop; the shell's start falls
         // back to StartShell, its stop is missing.
         {Top("TotalLogon", At(1), At(21))}},
        {"folder redirection",
         {{L"WFR_APPLY_START", At(8)}, {L"WFR_APPLY_STOP", At(9)}},
         {Top("FolderRedirection", At(8), At(9))}},
        {"the agent attaches after the shell",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)},
          {L"Explorer_Initialized_Stop", At(30)},
          {L"TX_ATTACHED", At(33)}},
         {Top("ShellInit", At(21), At(30)), Top("TotalLogon", At(1), At(33))}},
        {"the agent attaches before the shell is up",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"TX_ATTACHED", At(25)},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)},
          {L"Explorer_Initialized_Stop", At(30)}},
         {Top("ShellInit", At(21), At(30)), Top("TotalLogon", At(1), At(30))}},
        {"application session without a shell",
         {{L"WL_NotifyExecute_Login_Start", At(1)},
          {L"WL_NotifyExecute_StartShell_Stop", At(21)},
          {L"TX_ATTACHED", At(26)}},
         {Top("TotalLogon", At(1), At(26))}},
    };
    for (const Case& c : cases) {
        EXPECT_THAT(TimelineLines(c.points), ElementsAreArray(c.lines)) << c.name;
    }
}

TEST(SessionTimelineTest, NoPhasesNoText) {
    EXPECT_THAT(TimelineLines({}), IsEmpty());
    EXPECT_THAT(TimelineLines({{L"WL_NotifyExecute_Login_Start", At(1)},
                               {L"WL_CallSubscriber_Profiles_Login_Start", At(2)},
                               {L"WL_CallSubscriber_Profiles_Login_Stop", At(3)},
                               {L"WL_CallSubscriber_Login_Stop", At(3)},
                               {L"WL_NotifyExecute_Login_Stopped", At(4)}}),
                IsEmpty());
}

}  // namespace
}  // namespace plmx::testing
