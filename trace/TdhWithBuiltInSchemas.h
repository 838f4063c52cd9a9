// Windows' own TDH first, as the system's consumer path decodes; an event it
// has no schema for (its provider's manifest is not registered here, as the
// remote agent's often is not on an analyst's machine) is served by the
// built-in schemas when they know it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <tuple>

#include "trace/TdhApi.h"

namespace logonmon {

class TdhWithBuiltInSchemas final : public TdhApi {
  public:
    // `onFirstBuiltIn` is called once, with the first event the built-in
    // schemas serve.
    TdhWithBuiltInSchemas(TdhApi& system, TdhApi& builtIn,
                          std::function<void(const EVENT_RECORD&)> onFirstBuiltIn);

    uint32_t GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                 uint32_t* bufferSize) override;
    uint32_t GetPropertySize(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                             uint32_t* propertySize) override;
    uint32_t GetProperty(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                         uint32_t bufferSize, uint8_t* buffer) override;

  private:
    using Kind = std::tuple<std::array<uint8_t, sizeof(GUID)>, uint16_t, uint8_t>;

    static Kind KindOf(const EVENT_RECORD& event);
    // The binding that served the event's schema.
    TdhApi& SourceOf(const EVENT_RECORD& event);

    TdhApi& system_;
    TdhApi& builtIn_;
    std::function<void(const EVENT_RECORD&)> onFirstBuiltIn_;
    std::mutex mutex_;
    std::set<Kind> builtInKinds_;
};

}  // namespace logonmon
