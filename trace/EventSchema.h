// Fetching an event's TRACE_EVENT_INFO, reading texts out of it without
// trusting its offsets, and the texts that events of one kind share.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

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

// Drops the white space around `text`, as schema texts and property values
// are kept.
void Trim(std::wstring& text);

// Property names compare without regard to ASCII case, character by
// character; a name that is a prefix of a longer one sorts first.
struct PropertyNameLess {
    bool operator()(std::wstring_view left, std::wstring_view right) const;
};
bool SamePropertyName(std::wstring_view left, std::wstring_view right);

// A schema with its texts converted once, for every event of its kind.
struct DecodedSchema {
    // A top-level property that can be read by name.
    struct Property {
        const WCHAR* name = nullptr;
        std::wstring key;
        uint16_t inType = 0;
        uint16_t outType = 0;
        // Winlogon's "Event", written as a notification name.
        bool winlogonNotification = false;
        // Where its value goes among `keys`.
        size_t slot = 0;
    };

    EventSchemaBuffer buffer;
    uint32_t decodingSource = 0;
    std::wstring providerName;
    std::wstring taskName;
    // Without surrounding white space.
    std::wstring opcodeName;
    // The slots of the event name and the related name carry the older
    // activity-id names in some SDKs.
    const WCHAR* eventName = nullptr;
    const WCHAR* relatedName = nullptr;
    std::wstring eventNameText;
    std::wstring relatedNameText;
    const WCHAR* message = nullptr;
    // In schema order; structures and unnamed entries are left out.
    std::vector<Property> properties;
    // The names an event of this kind has properties of, sorted by
    // PropertyNameLess, each with the spelling met first: "name" and
    // "related" for the two names when present, then the properties. Views of
    // the texts above.
    std::vector<std::wstring_view> keys;
    size_t eventNameSlot = 0;
    size_t relatedNameSlot = 0;
    // By top-level index; null for a structure or an entry without a name.
    std::vector<const WCHAR*> propertyNames;
};

// `winlogon`: the schema is of a Winlogon event.
DecodedSchema DecodeSchema(EventSchemaBuffer buffer, bool winlogon);

}  // namespace logonmon
