#include <gtest/gtest.h>

#include <windows.h>
#include <pdhmsg.h>

#include <array>
#include <string>
#include <vector>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "log/SessionLog.h"
#include "monitor/PerfCounters.h"
#include "monitor/UsageReport.h"
#include "tests/support/LogFiles.h"

using namespace plmx::testing;

namespace {

// Idle, kernel, user, available MB, committed, non-paged and paged bytes.
using Values = std::array<LONGLONG, 7>;

const PDH_STATUS kFailure = static_cast<PDH_STATUS>(PDH_NO_DATA);

// Scripted readings; counter handles are 1 to 7. `failing` names the one
// call that fails: "open", "add3", "first" (reading) or "read5".
class FakePdh : public PdhApi {
  public:
    PDH_STATUS OpenQuery(PDH_HQUERY* query) override {
        *query = this;
        return Status("open");
    }
    PDH_STATUS AddCounter(PDH_HQUERY, const char*, PDH_HCOUNTER* counter) override {
        *counter = reinterpret_cast<PDH_HCOUNTER>(++added);
        return Status("add" + std::to_string(added));
    }
    PDH_STATUS CollectQueryData(PDH_HQUERY) override { return Status("first"); }
    PDH_STATUS CollectQueryDataWithTime(PDH_HQUERY query, LONGLONG*) override {
        return query == nullptr ? PDH_INVALID_HANDLE : 0;
    }
    PDH_STATUS GetFormattedCounterValue(PDH_HCOUNTER counter, DWORD format,
                                        PDH_FMT_COUNTERVALUE* value) override {
        const size_t index = reinterpret_cast<size_t>(counter);
        if (index == 0 || format != PDH_FMT_LARGE) {
            return PDH_INVALID_HANDLE;
        }
        value->largeValue = samples.at(tick)[index - 1];
        return Status("read" + std::to_string(index));
    }
    PDH_STATUS RemoveCounter(PDH_HCOUNTER) override { return Release(); }
    PDH_STATUS CloseQuery(PDH_HQUERY) override { return Release(); }

    PDH_STATUS Status(const std::string& call) const { return call == failing ? kFailure : 0; }
    PDH_STATUS Release() {
        ++released;
        return 0;
    }

    std::string failing;
    std::vector<Values> samples;
    size_t tick = 0;
    size_t added = 0;
    int released = 0;
};

// Samples each scripted reading into `log` as the monitor's timer does, then
// writes the blocks and the free-space line with `flags` on; returns the
// lines of the sampling and the blocks.
std::string SampleAndReport(FakePdh& pdh, SessionLog& log, uint32_t flags) {
    Settings::Instance().Flags = FLAG_ENABLE_CPU_MEMORY_TIMINGS;
    {
        PerfCounters counters(pdh);
        counters.Initialize();
        for (pdh.tick = 0; pdh.tick < pdh.samples.size(); ++pdh.tick) {
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
    std::string lines;
    for (const char* source : {"PerfCounters", "LogonMonitor"}) {
        for (const std::string& line : LinesFrom(MainLogPath(), source)) {
            lines += line + "\n";
        }
    }
    return lines;
}

constexpr uint64_t MB = 1 << 20;

TEST(SamplingTest, ThreeSamplesGiveMinimumZeroMaximumAndRoundedDownAverage) {
    TempFolder folder;
    ScopedMainLog mainLog(folder.Path());
    SessionLog log;
    FakePdh pdh;
    pdh.samples = {{80, 5, 10, 2000, 100 * MB, 64 * MB, 3},
                   {70, 6, 20, 1000, 200 * MB, 32 * MB, 3},
                   {50, 9, 40, 3000, 300 * MB + 1, 16 * MB, 3}};
    // The paged pool's sum is shifted before dividing: 9 bytes are 0 MB.
    const std::string blocks = R"(INFO CPU Usage Metrics
INFO CPU Samples: 3
INFO Min User Cpu: 0
INFO Max User Cpu: 40
INFO Avg User Cpu: 23
INFO Min Kernel Cpu: 0
INFO Max Kernel Cpu: 9
INFO Avg Kernel Cpu: 6
INFO Min Idle Cpu: 0
INFO Max Idle Cpu: 80
INFO Avg Idle Cpu: 66
INFO Memory Usage Metrics
INFO Memory Samples: 3
INFO Min Available MBs: 0 MBs
INFO Max Available MBs: 3000 MBs
INFO Avg Available MBs: 2000 MBs
INFO Min Committed Bytes: 0 MBs
INFO Max Committed Bytes: 300 MBs
INFO Avg Committed Bytes: 200 MBs
INFO Min Non-Paged Pool: 0 MBs
INFO Max Non-Paged Pool: 64 MBs
INFO Avg Non-Paged Pool: 37 MBs
INFO Min Paged Pool: 0 MBs
INFO Max Paged Pool: 0 MBs
INFO Avg Paged Pool: 0 MBs
)";
    const std::string freeSpace = "INFO Free Disk Space Available To User: 5 GB\n";
    EXPECT_EQ(SampleAndReport(pdh, log, FLAG_ENABLE_CPU_MEMORY_TIMINGS), blocks + freeSpace);
    EXPECT_EQ(pdh.released, 8);

    // Events from a trace file: the blocks stay, the free space goes.
    pdh.samples.clear();
    EXPECT_EQ(SampleAndReport(pdh, log, FLAG_ENABLE_CPU_MEMORY_TIMINGS | FLAG_TRACE_FILE_MODE),
              blocks + freeSpace + blocks);
}

TEST(SamplingTest, FailuresLeaveNoFiguresOnlyTheInitializeLines) {
    const std::string error = " failed, error " + std::to_string(kFailure) + "\n";
    const struct {
        const char* failing;
        size_t samples;
        std::string expected;
    } cases[] = {
        {"", 0, ""},  // the session ends before the first tick
        {"open", 2, "ERROR PdhOpenQuery" + error},
        {"add3", 2, "ERROR PdhAddCounterA('\\Processor(_Total)\\% User Time')" + error},
        {"first", 0, "ERROR PdhCollectQueryData" + error},
        {"read5", 2, ""},
    };
    for (const auto& test : cases) {
        TempFolder folder;
        ScopedMainLog mainLog(folder.Path());
        SessionLog log;
        FakePdh pdh;
        pdh.failing = test.failing;
        pdh.samples.assign(test.samples, Values{50, 5, 10, 2000, 100 * MB, 64 * MB, 3});
        EXPECT_EQ(SampleAndReport(pdh, log, FLAG_ENABLE_CPU_MEMORY_TIMINGS | FLAG_TRACE_FILE_MODE),
                  test.expected)
            << test.failing;
    }
}

}  // namespace
