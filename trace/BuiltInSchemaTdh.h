// Serves the built-in schemas (trace/BuiltInSchemaTable.h) through the TDH
// seam: TRACE_EVENT_INFO buffers with the names and in-types of an event's
// properties, and the properties' sizes and bytes read from its payload.
// Events without a built-in schema for their provider, id and version go to
// a fallback.
#pragma once

#include <cstdint>
#include <vector>

#include "trace/BuiltInSchemaTable.h"
#include "trace/SchemaFallback.h"
#include "trace/TdhApi.h"

namespace logonmon {

class BuiltInSchemaTdh final : public TdhApi {
  public:
    explicit BuiltInSchemaTdh(TdhApi& fallback = SchemaFallbackTdh());

    uint32_t GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                 uint32_t* bufferSize) override;
    // A property that the payload ends in keeps the bytes that are there; one
    // after its end is empty. Either way the event is still decoded.
    uint32_t GetPropertySize(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                             uint32_t* propertySize) override;
    uint32_t GetProperty(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                         uint32_t bufferSize, uint8_t* buffer) override;
    // The table is fixed: only the fallback may learn a schema.
    bool SchemasMayAppear() const override { return fallback_.SchemasMayAppear(); }

  private:
    // Provider, event id and version, compared as bytes.
    struct Key {
        uint8_t provider[sizeof(GUID)];
        uint16_t eventId;
        uint8_t version;
    };
    struct Entry {
        Key key;
        const BuiltInEventSchema* schema;
        std::vector<uint8_t> info;  // TRACE_EVENT_INFO as TDH would return it
        // Of each property's name, in UTF-16 units.
        std::vector<size_t> nameLengths;
        // Whether no earlier property has the same name.
        std::vector<bool> firstOfItsName;
    };
    struct Span {
        size_t offset;
        size_t size;
    };

    const Entry* Find(const EVENT_RECORD& event) const;
    // Where the named property lies in the payload; false for a name the
    // schema does not have.
    bool Locate(const Entry& entry, const EVENT_RECORD& event,
                const PROPERTY_DATA_DESCRIPTOR& descriptor, Span* span) const;

    TdhApi& fallback_;
    // Tells instances apart, also one made where another was.
    uint64_t serial_ = 0;
    std::vector<Entry> entries_;  // by key
};

// The built-in schemas over the platform's fallback, for the whole process.
TdhApi& BuiltInSchemaBinding();

}  // namespace logonmon
