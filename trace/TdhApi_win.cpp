#include "trace/TdhApi.h"

namespace logonmon {

namespace {

class SystemTdh final : public TdhApi {
  public:
    uint32_t GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                 uint32_t* bufferSize) override {
        ULONG size = *bufferSize;
        const ULONG status =
            TdhGetEventInformation(const_cast<EVENT_RECORD*>(&event), 0, nullptr, buffer, &size);
        *bufferSize = size;
        return status;
    }

    uint32_t GetPropertySize(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                             uint32_t* propertySize) override {
        ULONG size = 0;
        const ULONG status =
            TdhGetPropertySize(const_cast<EVENT_RECORD*>(&event), 0, nullptr, 1,
                               const_cast<PROPERTY_DATA_DESCRIPTOR*>(&descriptor), &size);
        *propertySize = size;
        return status;
    }

    uint32_t GetProperty(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                         uint32_t bufferSize, uint8_t* buffer) override {
        return TdhGetProperty(const_cast<EVENT_RECORD*>(&event), 0, nullptr, 1,
                              const_cast<PROPERTY_DATA_DESCRIPTOR*>(&descriptor), bufferSize,
                              buffer);
    }
};

}  // namespace

TdhApi& DefaultTdh() {
    static SystemTdh tdh;
    return tdh;
}

}  // namespace logonmon
