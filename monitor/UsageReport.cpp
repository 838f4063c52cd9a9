#include "monitor/UsageReport.h"

#include "app/Settings.h"
#include "log/LogWriter.h"

namespace {

constexpr wchar_t kCpuFunction[] = L"LogonMonitor::LogCPUUsage";
constexpr wchar_t kMemoryFunction[] = L"LogonMonitor::LogMemUsage";
constexpr wchar_t kSummaryFunction[] = L"LogonMonitor::LogExtendedSummary";

constexpr int kBytesToMBShift = 20;
constexpr int kBytesToGBShift = 30;

void Accumulate(CounterFigures& figures, uint64_t value) {
    if (value > figures.maximum) {
        figures.maximum = value;
    }
    if (figures.minimum > value) {
        figures.minimum = value;
    }
    figures.sum += value;
}

struct FigureLines {
    const char* min;
    const char* max;
    const char* avg;
    CounterFigures SessionMetrics::*figures;
    int shift;  // bytes to MB, or none
};

// The lines print 32 bits.
uint32_t Printed(uint64_t value) {
    return static_cast<uint32_t>(value);
}

void LogFigures(const SessionMetrics& metrics, uint32_t count, const wchar_t* function,
                const FigureLines& lines) {
    const CounterFigures& figures = metrics.*lines.figures;
    LogMessage(nullptr, LOG_LEVEL_INFO, function, lines.min,
               Printed(figures.minimum >> lines.shift));
    LogMessage(nullptr, LOG_LEVEL_INFO, function, lines.max,
               Printed(figures.maximum >> lines.shift));
    LogMessage(nullptr, LOG_LEVEL_INFO, function, lines.avg,
               Printed((figures.sum >> lines.shift) / count));
}

const FigureLines kCpuLines[] = {
    {"Min User Cpu: %d", "Max User Cpu: %d", "Avg User Cpu: %d", &SessionMetrics::userCpu, 0},
    {"Min Kernel Cpu: %d", "Max Kernel Cpu: %d", "Avg Kernel Cpu: %d", &SessionMetrics::kernelCpu,
     0},
    {"Min Idle Cpu: %d", "Max Idle Cpu: %d", "Avg Idle Cpu: %d", &SessionMetrics::idleCpu, 0},
};

const FigureLines kMemoryLines[] = {
    {"Min Available MBs: %d MBs", "Max Available MBs: %d MBs", "Avg Available MBs: %d MBs",
     &SessionMetrics::availableMB, 0},
    {"Min Committed Bytes: %d MBs", "Max Committed Bytes: %d MBs", "Avg Committed Bytes: %d MBs",
     &SessionMetrics::committedBytes, kBytesToMBShift},
    {"Min Non-Paged Pool: %d MBs", "Max Non-Paged Pool: %d MBs", "Avg Non-Paged Pool: %d MBs",
     &SessionMetrics::nonPagedPoolBytes, kBytesToMBShift},
    {"Min Paged Pool: %d MBs", "Max Paged Pool: %d MBs", "Avg Paged Pool: %d MBs",
     &SessionMetrics::pagedPoolBytes, kBytesToMBShift},
};

bool SamplingOn() {
    return Settings::Instance().IsFlagOn(FLAG_ENABLE_CPU_MEMORY_TIMINGS);
}

}  // namespace

void AccumulateSample(SessionLog& log, const PerfSample& sample) {
    SessionMetrics& metrics = log.metrics;
    Accumulate(metrics.availableMB, sample.availableMB);
    Accumulate(metrics.committedBytes, sample.committedBytes);
    Accumulate(metrics.nonPagedPoolBytes, sample.nonPagedPoolBytes);
    Accumulate(metrics.pagedPoolBytes, sample.pagedPoolBytes);
    ++metrics.memorySamples;
    Accumulate(metrics.idleCpu, sample.idleCpu);
    Accumulate(metrics.userCpu, sample.userCpu);
    Accumulate(metrics.kernelCpu, sample.kernelCpu);
    ++metrics.cpuSamples;
}

void LogCPUUsage(const SessionLog& log) {
    const SessionMetrics& metrics = log.metrics;
    if (!SamplingOn() || metrics.cpuSamples == 0) {
        return;
    }
    LogMessage(nullptr, LOG_LEVEL_INFO, kCpuFunction, "CPU Usage Metrics");
    LogMessage(nullptr, LOG_LEVEL_INFO, kCpuFunction, "CPU Samples: %d", metrics.cpuSamples);
    for (const FigureLines& lines : kCpuLines) {
        LogFigures(metrics, metrics.cpuSamples, kCpuFunction, lines);
    }
}

void LogMemUsage(const SessionLog& log) {
    const SessionMetrics& metrics = log.metrics;
    if (!SamplingOn() || metrics.memorySamples == 0) {
        return;
    }
    LogMessage(nullptr, LOG_LEVEL_INFO, kMemoryFunction, "Memory Usage Metrics");
    LogMessage(nullptr, LOG_LEVEL_INFO, kMemoryFunction, "Memory Samples: %d",
               metrics.memorySamples);
    for (const FigureLines& lines : kMemoryLines) {
        LogFigures(metrics, metrics.memorySamples, kMemoryFunction, lines);
    }
}

void LogFreeDiskSpace(const SessionLog& log) {
    if (Settings::Instance().IsFlagOn(FLAG_TRACE_FILE_MODE)) {
        return;
    }
    LogMessage(nullptr, LOG_LEVEL_INFO, kSummaryFunction,
               "Free Disk Space Available To User: %I64u GB",
               log.disk.bytesAvailableToUser >> kBytesToGBShift);
}
