// The three Trace Data Helper calls that event decoding makes, behind a
// replaceable binding. On Windows the default binds tdh.dll; elsewhere it
// answers "not supported", which leaves every event without a schema.
#pragma once

#include <cstdint>

#include "trace/EtwTypes.h"

namespace logonmon {

class TdhApi {
  public:
    virtual ~TdhApi() = default;
    // TdhGetEventInformation without TDH context: *bufferSize in/out.
    virtual uint32_t GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                         uint32_t* bufferSize) = 0;
    // TdhGetPropertySize for one descriptor.
    virtual uint32_t GetPropertySize(const EVENT_RECORD& event,
                                     const PROPERTY_DATA_DESCRIPTOR& descriptor,
                                     uint32_t* propertySize) = 0;
    // TdhGetProperty for one descriptor.
    virtual uint32_t GetProperty(const EVENT_RECORD& event,
                                 const PROPERTY_DATA_DESCRIPTOR& descriptor, uint32_t bufferSize,
                                 uint8_t* buffer) = 0;
    // Whether an event without a schema may have one later, its provider's
    // manifest installed meanwhile: then it is asked about again.
    virtual bool SchemasMayAppear() const { return true; }
};

// The platform's binding.
TdhApi& DefaultTdh();

// The binding in use; the default unless one was installed.
TdhApi& CurrentTdh();

// Installs `tdh` for the lifetime of the object (tests), restoring the
// previous binding afterwards. Install before event threads start.
class ScopedTdhBinding {
  public:
    explicit ScopedTdhBinding(TdhApi& tdh);
    ~ScopedTdhBinding();
    ScopedTdhBinding(const ScopedTdhBinding&) = delete;
    ScopedTdhBinding& operator=(const ScopedTdhBinding&) = delete;

  private:
    TdhApi* previous_;
};

}  // namespace logonmon
