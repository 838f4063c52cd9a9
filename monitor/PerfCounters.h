// The system-wide CPU and memory counters sampled while logons are followed.
#pragma once

#include <cstdint>

#include "monitor/PdhApi.h"

// One reading of all counters.
struct PerfSample {
    int64_t timeStamp = 0;  // as the query's collection reports it
    uint64_t idleCpu = 0;   // percent
    uint64_t kernelCpu = 0;
    uint64_t userCpu = 0;
    uint64_t availableMB = 0;
    uint64_t committedBytes = 0;
    uint64_t nonPagedPoolBytes = 0;
    uint64_t pagedPoolBytes = 0;
};

class PerfCounters {
  public:
    explicit PerfCounters(PdhApi& pdh = DefaultPdh());
    ~PerfCounters();
    PerfCounters(const PerfCounters&) = delete;
    PerfCounters& operator=(const PerfCounters&) = delete;

    // Opens the query, adds the counters and takes the first reading that
    // rate counters need; returns a PDH status, failures logged. On failure
    // what was opened stays open until Close.
    uint32_t Initialize();
    // Removes the counters and closes the query; returns 0.
    uint32_t Close();
    // Reads every counter into `sample`; returns the first failing PDH
    // status (values read before it stay), nothing logged.
    uint32_t Collect(PerfSample& sample);

  private:
    static constexpr size_t kCounterCount = 7;

    PdhApi& pdh_;
    PDH_HQUERY query_ = nullptr;
    PDH_HCOUNTER counters_[kCounterCount] = {};
};
