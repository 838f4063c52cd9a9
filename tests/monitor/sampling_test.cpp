#include <gtest/gtest.h>

#include "log/SessionLog.h"
#include "monitor/PerfCounters.h"
#include "monitor/UsageReport.h"
#include "tests/monitor/MonitorFixture.h"

namespace plmx::testing {
namespace {

constexpr LONGLONG MB = 1 << 20;

// Samples `samples` readings into a session log as the monitor's timer does,
// then writes its blocks and free-space line with `flags` on; returns the
// lines of the sampling and the blocks.
Lines SampleAndReport(FakePdh& pdh, size_t samples, uint32_t flags) {
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path());
    SessionLog log;
    Settings::Instance().Flags = FLAG_ENABLE_CPU_MEMORY_TIMINGS;
    {
        PerfCounters counters(pdh);
        counters.Initialize();
        for (pdh.tick = 0; pdh.tick < samples; ++pdh.tick) {
            PerfSample sample;
            if (counters.Collect(sample) == 0) {
                AccumulateSample(log, sample);
            }
        }
    }
    Settings::Instance().Flags = flags;
    log.disk.bytesAvailableToUser = 5ull << 30;
    LogCPUUsage(log);
    LogMemUsage(log);
    LogFreeDiskSpace(log);
    Lines lines = LinesFrom(mainLog.Path(), "PerfCounters");
    const Lines blocks = LinesFrom(mainLog.Path(), "LogonMonitor");
    lines.insert(lines.end(), blocks.begin(), blocks.end());
    return lines;
}

TEST(SamplingTest, SamplesGiveMinimumZeroMaximumAndRoundedDownAverage) {
    FakePdh pdh;
    pdh.samples = {{80, 5, 10, 2000, 100 * MB, 64 * MB, 3},
                   {70, 6, 20, 1000, 200 * MB, 32 * MB, 3},
                   {50, 9, 40, 3000, 300 * MB + 1, 16 * MB, 3}};
    // The paged pool's sum is shifted before dividing: 9 bytes are 0 MB.
    ExpectInOrder(SampleAndReport(pdh, 3, FLAG_ENABLE_CPU_MEMORY_TIMINGS),
                  {"INFO CPU Samples: 3", "INFO Min User Cpu: 0", "INFO Max User Cpu: 40",
                   "INFO Avg User Cpu: 23", "INFO Max Kernel Cpu: 9", "INFO Avg Idle Cpu: 66",
                   "INFO Memory Samples: 3", "INFO Avg Available MBs: 2000 MBs",
                   "INFO Max Committed Bytes: 300 MBs", "INFO Avg Non-Paged Pool: 37 MBs",
                   "INFO Avg Paged Pool: 0 MBs", "INFO Free Disk Space Available To User: 5 GB"});
    EXPECT_EQ(pdh.released, 8);
}

// Events from a trace file: no free-space line.
TEST(SamplingTest, FailuresLeaveNoFiguresOnlyTheInitializeLines) {
    const std::string error =
        " failed, error " + std::to_string(static_cast<PDH_STATUS>(PDH_NO_DATA));
    const struct {
        const char* failing;
        size_t samples;
        Lines expected;
    } cases[] = {
        {"", 0, {}},  // the session ends before the first tick
        {"open", 2, {"ERROR PdhOpenQuery" + error}},
        {"add3", 2, {"ERROR PdhAddCounterA('\\Processor(_Total)\\% User Time')" + error}},
        {"first", 0, {"ERROR PdhCollectQueryData" + error}},
        {"read5", 2, {}},
    };
    for (const auto& test : cases) {
        FakePdh pdh;
        pdh.failing = test.failing;
        EXPECT_EQ(SampleAndReport(pdh, test.samples,
                                  FLAG_ENABLE_CPU_MEMORY_TIMINGS | FLAG_TRACE_FILE_MODE),
                  test.expected)
            << test.failing;
    }
}

}  // namespace
}  // namespace plmx::testing
