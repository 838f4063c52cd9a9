// The schemas of the events the logon processor consumes, as a table
// generated from the providers' manifests (trace/BuiltInSchemaTable.cpp).
#pragma once

#include <cstdint>
#include <span>

#include "trace/EtwTypes.h"

namespace logonmon {

struct BuiltInProperty {
    const char16_t* name;
    uint16_t inType;
    uint16_t outType;
    // Fixed size in elements (UTF-16 units of a string, bytes of a binary);
    // 0: the in-type's own size, or up to the terminating null.
    uint16_t length;
};

struct BuiltInEventSchema {
    GUID provider;
    uint16_t eventId;
    uint8_t version;
    // Names as TDH reports them; null where it reports none.
    const char16_t* providerName;
    const char16_t* taskName;
    const char16_t* opcodeName;
    // Top-level properties in payload order.
    const BuiltInProperty* properties;
    uint16_t propertyCount;
};

// Ordered by provider text, event id and version.
std::span<const BuiltInEventSchema> BuiltInEventSchemas();

}  // namespace logonmon
