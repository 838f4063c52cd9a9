// The committed sample files are what the scripts write, and read back whole.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "tools/SampleTraces.h"
#include "trace/EtlReader.h"

namespace {

TEST(SampleFilesTest, CommittedSamplesAreTheScriptsTraces) {
    for (const auto& sample : plmx::samples::SampleTraces()) {
        SCOPED_TRACE(sample.file);
        std::stringstream written;
        ASSERT_TRUE(plmx::samples::WriteSampleTrace(sample, written));
        const std::string path = std::string(PLMX_SAMPLES_DIR) + "/" + sample.file;
        std::ifstream file(path, std::ios::binary);
        EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(file), {}) == written.str())
            << "samples/ is stale: cmake --build build/native --target samples";
        const EtlReadResult read = ReadEtlFile(path, [](const EVENT_RECORD&) {});
        EXPECT_TRUE(read.complete) << read.error;
        EXPECT_EQ(read.events, plmx::samples::ScriptedEvents(sample).size());
    }
}

}  // namespace
