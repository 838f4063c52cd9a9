#include "trace/UnsupportedTdh.h"

namespace logonmon {

namespace {

class NoTdh final : public TdhApi {
  public:
    uint32_t GetEventInformation(const EVENT_RECORD&, TRACE_EVENT_INFO*, uint32_t*) override {
        return etw::kErrorNotSupported;
    }
    uint32_t GetPropertySize(const EVENT_RECORD&, const PROPERTY_DATA_DESCRIPTOR&,
                             uint32_t*) override {
        return etw::kErrorNotSupported;
    }
    uint32_t GetProperty(const EVENT_RECORD&, const PROPERTY_DATA_DESCRIPTOR&, uint32_t,
                         uint8_t*) override {
        return etw::kErrorNotSupported;
    }
    bool SchemasMayAppear() const override { return false; }
};

}  // namespace

TdhApi& UnsupportedTdh() {
    static NoTdh tdh;
    return tdh;
}

}  // namespace logonmon
