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
using Lines = std::vector<std::string>;

namespace {

// Idle, kernel, user, available MB, committed, non-paged and paged bytes.
using Values = std::array<LONGLONG, 7>;

const PDH_STATUS kNoData = static_cast<PDH_STATUS>(PDH_NO_DATA);
const PDH_STATUS kNoCounter = static_cast<PDH_STATUS>(PDH_CSTATUS_NO_COUNTER);

// Scripted readings; a counter's handle is its index plus one.
class FakePdh : public PdhApi {
  public:
    PDH_STATUS OpenQuery(PDH_HQUERY* query) override {
        *query = openStatus == 0 ? this : nullptr;
        return openStatus;
    }
    PDH_STATUS AddCounter(PDH_HQUERY, const char*, PDH_HCOUNTER* counter) override {
        *counter = reinterpret_cast<PDH_HCOUNTER>(++added);
        return added == failingAdd ? kNoCounter : 0;
    }
    PDH_STATUS CollectQueryData(PDH_HQUERY) override { return firstCollectStatus; }
    PDH_STATUS CollectQueryDataWithTime(PDH_HQUERY query, LONGLONG* time) override {
        *time = 1;
        return query == nullptr || samples.empty() ? kNoData : 0;
    }
    PDH_STATUS GetFormattedCounterValue(PDH_HCOUNTER counter, DWORD format,
                                        PDH_FMT_COUNTERVALUE* value) override {
        const size_t index = reinterpret_cast<size_t>(counter) - 1;
        if (counter == nullptr || index == failingRead || format != PDH_FMT_LARGE) {
            return PDH_INVALID_HANDLE;
        }
        value->largeValue = samples.front()[index];
        if (index == 6) {
            samples.erase(samples.begin());
        }
        return 0;
    }
    PDH_STATUS RemoveCounter(PDH_HCOUNTER) override {
        ++removed;
        return 0;
    }
    PDH_STATUS CloseQuery(PDH_HQUERY) override {
        ++closed;
        return 0;
    }

    PDH_STATUS openStatus = 0;
    size_t failingAdd = 0;  // 1 to 7
    PDH_STATUS firstCollectStatus = 0;
    size_t failingRead = 99;
    std::vector<Values> samples;
    size_t added = 0, removed = 0, closed = 0;
};

// Samples every scripted reading into `log` as the monitor's timer would,
// then writes the blocks and the free-space line with `flags` set.
Lines SampleAndReport(FakePdh& pdh, SessionLog& log, uint32_t flags) {
    Settings::Instance().Flags = FLAG_ENABLE_CPU_MEMORY_TIMINGS;
    {
        PerfCounters counters(pdh);
        counters.Initialize();
        PerfSample sample;
        for (size_t tick = pdh.samples.size(); tick > 0; --tick) {
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
    Lines lines = LinesFrom(MainLogPath(), "PerfCounters");
    const Lines blocks = LinesFrom(MainLogPath(), "LogonMonitor");
    lines.insert(lines.end(), blocks.begin(), blocks.end());
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
    const Lines expected = {
        "INFO CPU Usage Metrics", "INFO CPU Samples: 3", "INFO Min User Cpu: 0",
        "INFO Max User Cpu: 40", "INFO Avg User Cpu: 23", "INFO Min Kernel Cpu: 0",
        "INFO Max Kernel Cpu: 9", "INFO Avg Kernel Cpu: 6", "INFO Min Idle Cpu: 0",
        "INFO Max Idle Cpu: 80", "INFO Avg Idle Cpu: 66", "INFO Memory Usage Metrics",
        "INFO Memory Samples: 3", "INFO Min Available MBs: 0 MBs",
        "INFO Max Available MBs: 3000 MBs", "INFO Avg Available MBs: 2000 MBs",
        "INFO Min Committed Bytes: 0 MBs", "INFO Max Committed Bytes: 300 MBs",
        "INFO Avg Committed Bytes: 200 MBs", "INFO Min Non-Paged Pool: 0 MBs",
        "INFO Max Non-Paged Pool: 64 MBs", "INFO Avg Non-Paged Pool: 37 MBs",
        "INFO Min Paged Pool: 0 MBs", "INFO Max Paged Pool: 0 MBs",
        // The sum is shifted before dividing: 9 bytes are 0 MB.
        "INFO Avg Paged Pool: 0 MBs"};
    Lines withFreeSpace = expected;
    withFreeSpace.push_back("INFO Free Disk Space Available To User: 5 GB");
    EXPECT_EQ(SampleAndReport(pdh, log, FLAG_ENABLE_CPU_MEMORY_TIMINGS), withFreeSpace);
    EXPECT_EQ(pdh.removed, 7u);
    EXPECT_EQ(pdh.closed, 1u);

    // Events from a trace file: the blocks stay, the free space goes.
    const Lines fromFile =
        SampleAndReport(pdh, log, FLAG_ENABLE_CPU_MEMORY_TIMINGS | FLAG_TRACE_FILE_MODE);
    EXPECT_EQ(Lines(fromFile.begin() + withFreeSpace.size(), fromFile.end()), expected);
}

TEST(SamplingTest, FailuresLeaveNoFiguresOnlyTheInitializeLines) {
    const Values reading = {50, 5, 10, 2000, 100 * MB, 64 * MB, 3};
    struct Case {
        const char* name;
        PDH_STATUS openStatus;
        size_t failingAdd;
        PDH_STATUS firstCollectStatus;
        size_t failingRead;
        size_t samples;
        Lines expected;
    } cases[] = {
        {"session ends before the first tick", 0, 0, 0, 99, 0, {}},
        {"query cannot open",
         kNoData,
         0,
         0,
         99,
         2,
         {"ERROR PdhOpenQuery failed, error " + std::to_string(int(kNoData))}},
        {"third counter missing",
         0,
         3,
         0,
         99,
         2,
         {"ERROR PdhAddCounterA('\\Processor(_Total)\\% User Time') failed, error " +
          std::to_string(int(kNoCounter))}},
        {"first reading fails",
         0,
         0,
         kNoData,
         99,
         0,
         {"ERROR PdhCollectQueryData failed, error " + std::to_string(int(kNoData))}},
        {"a counter cannot be read", 0, 0, 0, 4, 2, {}},
    };
    for (const Case& test : cases) {
        TempFolder folder;
        ScopedMainLog mainLog(folder.Path());
        SessionLog log;
        FakePdh pdh;
        pdh.openStatus = test.openStatus;
        pdh.failingAdd = test.failingAdd;
        pdh.firstCollectStatus = test.firstCollectStatus;
        pdh.failingRead = test.failingRead;
        pdh.samples.assign(test.samples, reading);
        EXPECT_EQ(SampleAndReport(pdh, log, FLAG_ENABLE_CPU_MEMORY_TIMINGS | FLAG_TRACE_FILE_MODE),
                  test.expected)
            << test.name;
    }
}

}  // namespace
