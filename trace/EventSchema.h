// Fetching an event's TRACE_EVENT_INFO and reading texts out of it without
// trusting its offsets.
#pragma once

#include <cstdint>
#include <memory>

#include "trace/EtwTypes.h"
#include "trace/TdhApi.h"

namespace logonmon {

struct EventSchemaBuffer {
    std::unique_ptr<uint8_t[]> bytes;  // null when the event has no schema
    uint32_t size = 0;

    const TRACE_EVENT_INFO* Info() const {
        return reinterpret_cast<const TRACE_EVENT_INFO*>(bytes.get());
    }
};

// Asks for the size, allocates it and asks again. Any failure, or an answer
// too short for the fixed part of TRACE_EVENT_INFO, gives no schema.
EventSchemaBuffer QueryEventSchema(const EVENT_RECORD& record, TdhApi& tdh);

// The null-terminated text at `offset`, or null when the offset is zero, odd,
// or the text does not end inside the buffer.
const WCHAR* SchemaText(const EventSchemaBuffer& schema, uint32_t offset);

// How many of the top-level property entries lie wholly inside the buffer.
uint32_t TopLevelPropertiesInBuffer(const EventSchemaBuffer& schema);

}  // namespace logonmon
