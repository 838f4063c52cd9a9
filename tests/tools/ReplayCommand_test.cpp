// plmx-replay end to end: each bundled sample replays to the session logs
// shipped beside it, and bad input gets a clear message.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "tools/replay/ReplayCommand.h"

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

struct ReplayCommandTest : ::testing::Test {
    void SetUp() override {
        setenv("TZ", "UTC", 1);  // session logs show local time; the expected ones are in UTC
        tzset();
        fs::remove_all(folder);
    }
    void TearDown() override { fs::remove_all(folder); }

    int Run(std::vector<std::string> args) {
        out.str("");
        err.str("");
        return RunReplayCommand(args, out, err);
    }

    // Per case: ctest runs the cases side by side.
    const fs::path folder =
        fs::temp_directory_path() /
        ("plmx_replay_" +
         std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    std::ostringstream out, err;
};

// The expected files hold every session log by name, each after a
// "==> name <==" line, with LF line ends where the logs have CR LF.
TEST_F(ReplayCommandTest, SamplesReplayToTheirExpectedSessionLogs) {
    int samples = 0;
    for (const auto& entry : fs::directory_iterator(PLMX_SAMPLES_DIR)) {
        fs::path trace = entry.path();
        if (trace.extension() != ".etl") {
            continue;
        }
        ++samples;
        fs::remove_all(folder);
        ASSERT_EQ(0, Run({"--output", folder.string(), trace.string()})) << err.str();
        std::string logs;
        for (const fs::path& log : std::set<fs::path>(fs::directory_iterator(folder), {})) {
            const std::string text = ReadFile(log);
            const std::string lines = std::regex_replace(text, std::regex("\r\n"), "\n");
            EXPECT_TRUE(text.ends_with("\r\n") && std::count(text.begin(), text.end(), '\r') ==
                                                      std::count(lines.begin(), lines.end(), '\n'))
                << log << ": a line does not end in CR LF";
            logs += "==> " + log.filename().string() + " <==\n" + lines;
        }
        EXPECT_EQ(ReadFile(trace.replace_extension(".expected.txt")), logs) << trace;
        // Standard output names each log and repeats its summary.
        EXPECT_NE(std::string::npos, out.str().find("Session Summary")) << trace;
    }
    EXPECT_GT(samples, 0);
}

TEST_F(ReplayCommandTest, ClearMessagesForWhatItCannotReplay) {
    fs::create_directories(folder);
    std::ofstream(folder / "notes.etl") << "not a trace\n";
    const std::string output = folder.string();
    const struct {
        std::vector<std::string> args;
        int code;
        std::string message;  // in standard error, or in standard output for --help
    } cases[] = {
        {{"--output", output, (folder / "missing.etl").string()}, 1, "no such file"},
        {{"--output", output, (folder / "notes.etl").string()}, 1, "not a trace file"},
        {{"--output", output, PLMX_ETL_REFERENCE_DIR "/AMSITrace.etl"},
         1,
         "no logon in this trace (19 events)"},
        {{}, 2, "no trace file given"},
        {{"--output"}, 2, "--output needs a folder"},
        {{"--verbose", "x.etl"}, 2, "unknown option --verbose"},
        {{"--help"}, 0, "Usage: plmx-replay"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.code, Run(c.args)) << c.message;
        EXPECT_NE(std::string::npos, (err.str() + out.str()).find(c.message)) << err.str();
    }
}

}  // namespace
