#include "monitor/PerfCounters.h"

#include <iterator>

#include "log/LogWriter.h"

namespace {

constexpr wchar_t kFunction[] = L"PerfCounters::Initialize";

struct Counter {
    const char* path;  // English names, passed as they stand
    uint64_t PerfSample::*field;
};

const Counter kCounters[] = {
    {"\\Processor(_Total)\\% Idle Time", &PerfSample::idleCpu},
    {"\\Processor(_Total)\\% Privileged Time", &PerfSample::kernelCpu},
    {"\\Processor(_Total)\\% User Time", &PerfSample::userCpu},
    {"\\Memory\\available mbytes", &PerfSample::availableMB},
    {"\\Memory\\committed bytes", &PerfSample::committedBytes},
    {"\\Memory\\pool nonpaged bytes", &PerfSample::nonPagedPoolBytes},
    {"\\Memory\\Pool Paged Bytes", &PerfSample::pagedPoolBytes},
};

}  // namespace

PerfCounters::PerfCounters(PdhApi& pdh) : pdh_(pdh) {
    static_assert(std::size(kCounters) == kCounterCount);
}

PerfCounters::~PerfCounters() {
    Close();
}

uint32_t PerfCounters::Initialize() {
    Close();
    PDH_STATUS status = pdh_.OpenQuery(&query_);
    if (status != ERROR_SUCCESS) {
        query_ = nullptr;
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "PdhOpenQuery failed, error %d", status);
        return status;
    }
    for (size_t i = 0; i < kCounterCount; ++i) {
        status = pdh_.AddCounter(query_, kCounters[i].path, &counters_[i]);
        if (status != ERROR_SUCCESS) {
            counters_[i] = nullptr;
            LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "PdhAddCounterA('%s') failed, error %d",
                       kCounters[i].path, status);
            return status;
        }
    }
    status = pdh_.CollectQueryData(query_);
    if (status != ERROR_SUCCESS) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "PdhCollectQueryData failed, error %d",
                   status);
    }
    return status;
}

uint32_t PerfCounters::Close() {
    for (PDH_HCOUNTER& counter : counters_) {
        if (counter != nullptr) {
            pdh_.RemoveCounter(counter);
            counter = nullptr;
        }
    }
    if (query_ != nullptr) {
        pdh_.CloseQuery(query_);
        query_ = nullptr;
    }
    return 0;
}

uint32_t PerfCounters::Collect(PerfSample& sample) {
    LONGLONG timeStamp = 0;
    PDH_STATUS status = pdh_.CollectQueryDataWithTime(query_, &timeStamp);
    if (status != ERROR_SUCCESS) {
        return status;
    }
    sample.timeStamp = timeStamp;
    for (size_t i = 0; i < kCounterCount; ++i) {
        PDH_FMT_COUNTERVALUE value{};
        status = pdh_.GetFormattedCounterValue(counters_[i], PDH_FMT_LARGE, &value);
        if (status != ERROR_SUCCESS) {
            return status;
        }
        sample.*kCounters[i].field = static_cast<uint64_t>(value.largeValue);
    }
    return 0;
}
