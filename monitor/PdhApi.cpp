#include "monitor/PdhApi.h"

namespace {

class SystemPdh final : public PdhApi {
  public:
    PDH_STATUS OpenQuery(PDH_HQUERY* query) override { return PdhOpenQueryW(nullptr, 0, query); }
    PDH_STATUS AddCounter(PDH_HQUERY query, const char* path, PDH_HCOUNTER* counter) override {
        return PdhAddCounterA(query, path, 0, counter);
    }
    PDH_STATUS CollectQueryData(PDH_HQUERY query) override { return PdhCollectQueryData(query); }
    PDH_STATUS CollectQueryDataWithTime(PDH_HQUERY query, LONGLONG* timeStamp) override {
        return PdhCollectQueryDataWithTime(query, timeStamp);
    }
    PDH_STATUS GetFormattedCounterValue(PDH_HCOUNTER counter, DWORD format,
                                        PDH_FMT_COUNTERVALUE* value) override {
        return PdhGetFormattedCounterValue(counter, format, nullptr, value);
    }
    PDH_STATUS RemoveCounter(PDH_HCOUNTER counter) override { return PdhRemoveCounter(counter); }
    PDH_STATUS CloseQuery(PDH_HQUERY query) override { return PdhCloseQuery(query); }
};

}  // namespace

PdhApi& DefaultPdh() {
    static SystemPdh system;
    return system;
}
