// The sample logons complete in the processor with the figures the summary
// prints, and the committed sample files are what the scripts write.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "tests/logonmon/ProcessorHarness.h"
#include "tools/SampleTraces.h"
#include "trace/EtlReader.h"

namespace {

using namespace plmx::testing;
using plmx::samples::SampleTraces;
using plmx::samples::ScriptedEvents;

struct Ended {
    uint32_t sessionId;
    std::wstring user;  // RID of the user's SID
    std::wstring clientAddress;
    std::map<std::wstring, uint32_t> extensions;
    int failedPolicies;
    bool profileSync;
    float powerShellScriptSeconds = 0;  // 0: no logon script
};

const std::map<std::wstring, uint32_t> kQuickPolicy{{L"Registry", 118}, {L"Security", 260}};

class SampleTracesTest : public ProcessorFixture {};

TEST_F(SampleTracesTest, EveryLogonCompletesWithItsFigures) {
    const std::map<std::string, std::vector<Ended>> expected{
        {"fast_logon.etl", {{2, L"1013", L"10.20.30.41", kQuickPolicy, 0, false}}},
        {"group_policy_slow_logon.etl",
         {{3,
           L"1107",
           L"10.20.31.17",
           {{L"Registry", 182},
            {L"Scripts", 95},
            {L"Group Policy Drives", 2310},
            {L"Folder Redirection", 21460}},
           1,
           true,
           12.1f}}},
        {"missed_create_session.etl", {{4, L"1121", L"10.20.30.88", kQuickPolicy, 0, false}}},
        {"concurrent_reused_sessions.etl",
         {{2, L"1013", L"10.20.30.41", kQuickPolicy, 0, false},
          {3, L"1121", L"10.20.30.88", kQuickPolicy, 0, false},
          {2, L"1107", L"10.20.31.17", kQuickPolicy, 0, true}}},
    };
    for (const auto& sample : SampleTraces()) {
        SCOPED_TRACE(sample.file);
        RecordingProcessor& processor = Processor();
        for (const auto& event : ScriptedEvents(sample)) {
            processor.HandleEventRecord(&event->Record());
        }
        const std::vector<Ended>& sessions = expected.at(sample.file);
        ASSERT_EQ(processor.endedSessions.size(), sessions.size());
        EXPECT_TRUE(processor.Sessions().empty());
        for (size_t i = 0; i < sessions.size(); ++i) {
            const logonmon::SESSION_CONTEXT& ended = processor.endedSessions[i];
            const Ended& want = sessions[i];
            EXPECT_EQ(ended.sessionId, want.sessionId);
            EXPECT_TRUE(ended.userSidText.ends_with(L"-" + want.user)) << ended.userSidText;
            EXPECT_TRUE(ended.logonComplete);
            EXPECT_EQ(ended.clientAddress, want.clientAddress);
            EXPECT_TRUE(ended.localProfilePath.starts_with(L"C:\\Users\\"));
            EXPECT_EQ(ended.cseDurations, want.extensions);
            EXPECT_EQ(ended.failedPolicies, want.failedPolicies);
            EXPECT_EQ(ended.timingPoints.count(L"PROFILE_SYNC_STOP"), want.profileSync ? 1u : 0u);
            for (const wchar_t* point : {L"WL_NotifyExecute_Login_Start", L"PROFILE_HIVE_LOADED",
                                         L"WL_NotifyExecute_StartShell_Stop"}) {
                EXPECT_EQ(ended.timingPoints.count(point), 1u) << point;
            }
            EXPECT_EQ(ended.namedDurations.count(L"User Policy Time"), 1u);
            EXPECT_EQ(ended.namedDurations.count(L"Machine Policy Time"), 1u);
            const auto script = ended.namedDurations.find(L"Group Policy PS Logon Script Time");
            if (want.powerShellScriptSeconds == 0) {
                EXPECT_EQ(script, ended.namedDurations.end());
            } else {
                ASSERT_NE(script, ended.namedDurations.end());
                EXPECT_FLOAT_EQ(std::get<float>(script->second), want.powerShellScriptSeconds);
            }
        }
    }
}

TEST(SampleFilesTest, CommittedSamplesAreTheScriptsTraces) {
    for (const auto& sample : SampleTraces()) {
        SCOPED_TRACE(sample.file);
        std::stringstream written;
        ASSERT_TRUE(plmx::samples::WriteSampleTrace(sample, written));
        const std::string path = std::string(PLMX_SAMPLES_DIR) + "/" + sample.file;
        std::ifstream file(path, std::ios::binary);
        const std::string committed{std::istreambuf_iterator<char>(file),
                                    std::istreambuf_iterator<char>()};
        EXPECT_TRUE(committed == written.str())
            << "samples/ is stale: cmake --build build/native --target samples";
        const EtlReadResult read = ReadEtlFile(path, [](const EVENT_RECORD&) {});
        EXPECT_TRUE(read.complete) << read.error;
        EXPECT_EQ(read.events, ScriptedEvents(sample).size());
    }
}

}  // namespace
