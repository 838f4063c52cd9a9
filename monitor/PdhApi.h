// The Performance Data Helper calls the sampling uses; tests replace them
// with scripted samples and failures.
#pragma once

#include <windows.h>
#include <pdh.h>

class PdhApi {
  public:
    virtual ~PdhApi() = default;
    virtual PDH_STATUS OpenQuery(PDH_HQUERY* query) = 0;
    virtual PDH_STATUS AddCounter(PDH_HQUERY query, const char* path, PDH_HCOUNTER* counter) = 0;
    virtual PDH_STATUS CollectQueryData(PDH_HQUERY query) = 0;
    virtual PDH_STATUS CollectQueryDataWithTime(PDH_HQUERY query, LONGLONG* timeStamp) = 0;
    virtual PDH_STATUS GetFormattedCounterValue(PDH_HCOUNTER counter, DWORD format,
                                                PDH_FMT_COUNTERVALUE* value) = 0;
    virtual PDH_STATUS RemoveCounter(PDH_HCOUNTER counter) = 0;
    virtual PDH_STATUS CloseQuery(PDH_HQUERY query) = 0;
};

// Binds pdh.dll.
PdhApi& DefaultPdh();
