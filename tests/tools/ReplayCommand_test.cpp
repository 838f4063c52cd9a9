// plmx-replay end to end: each bundled sample replays to the session logs
// shipped beside it, and bad input gets a clear message.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tools/replay/ReplayCommand.h"

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The session logs in `folder` by name, each after a "==> name <==" line,
// with line ends as LF; the expected files are kept that way.
std::string LogsText(const fs::path& folder) {
    std::vector<fs::path> logs;
    for (const auto& entry : fs::directory_iterator(folder)) {
        logs.push_back(entry.path());
    }
    std::sort(logs.begin(), logs.end());
    std::string text;
    for (const fs::path& log : logs) {
        const std::string content = ReadFile(log);
        text += "==> " + log.filename().string() + " <==\n";
        for (size_t start = 0; start < content.size();) {
            const size_t end = content.find("\r\n", start);
            if (end == std::string::npos) {
                ADD_FAILURE() << log << ": a line does not end in CR LF";
                break;
            }
            text += content.substr(start, end - start) + "\n";
            start = end + 2;
        }
    }
    return text;
}

class ReplayCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Session logs show times in local time; the expected ones are in UTC.
        setenv("TZ", "UTC", 1);
        tzset();
        fs::remove_all(folder_);
    }
    void TearDown() override { fs::remove_all(folder_); }

    int Run(std::vector<std::string> args) {
        out_.str("");
        err_.str("");
        return RunReplayCommand(args, out_, err_);
    }

    const fs::path folder_ = fs::temp_directory_path() / "plmx_replay_test";
    std::ostringstream out_, err_;
};

TEST_F(ReplayCommandTest, SamplesReplayToTheirExpectedSessionLogs) {
    int samples = 0;
    for (const auto& entry : fs::directory_iterator(PLMX_SAMPLES_DIR)) {
        const fs::path trace = entry.path();
        if (trace.extension() != ".etl") {
            continue;
        }
        ++samples;
        fs::path expected = trace;
        expected.replace_extension(".expected.txt");
        fs::remove_all(folder_);
        ASSERT_EQ(0, Run({"--output", folder_.string(), trace.string()})) << err_.str();
        EXPECT_EQ(ReadFile(expected), LogsText(folder_)) << trace;
        // Standard output names each log and repeats its summary.
        EXPECT_NE(std::string::npos, out_.str().find("Session Summary")) << trace;
    }
    EXPECT_GT(samples, 0);
}

TEST_F(ReplayCommandTest, ClearMessagesForWhatItCannotReplay) {
    fs::create_directories(folder_);
    const fs::path text = folder_ / "notes.etl";
    std::ofstream(text) << "not a trace\n";
    const std::string reference = PLMX_ETL_REFERENCE_DIR "/AMSITrace.etl";
    const struct {
        std::vector<std::string> args;
        int code;
        std::string message;  // in standard error
    } cases[] = {
        {{"--output", folder_.string(), (folder_ / "missing.etl").string()}, 1, "no such file"},
        {{"--output", folder_.string(), text.string()}, 1, "not a trace file"},
        {{"--output", folder_.string(), reference}, 1, "no logon in this trace (19 events)"},
        {{}, 2, "no trace file given"},
        {{"--output"}, 2, "--output needs a folder"},
        {{"--verbose", "x.etl"}, 2, "unknown option --verbose"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.code, Run(c.args)) << c.message;
        EXPECT_NE(std::string::npos, err_.str().find(c.message)) << err_.str();
    }
    EXPECT_EQ(0, Run({"--help"}));
    EXPECT_NE(std::string::npos, out_.str().find("Usage: plmx-replay")) << out_.str();
}

}  // namespace
