// Real EVENT_RECORDs with extended data, user data and a TRACE_EVENT_INFO
// schema, and a fake TDH serving them, so that decoding walks real offsets.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "trace/EtwTypes.h"
#include "trace/TdhApi.h"

namespace plmx::testing {

namespace etw = logonmon::etw;

struct PropertyDefinition {
    std::wstring name;
    uint16_t inType = 0;
    uint16_t outType = 0;
    std::vector<uint8_t> value;  // bytes TDH reports for the property
    bool isStruct = false;       // sets the PropertyStruct flag
};

// A value's bytes in memory order (little-endian on every target).
template <typename T>
std::vector<uint8_t> RawBytes(const T& value) {
    std::vector<uint8_t> bytes(sizeof(T));
    std::memcpy(bytes.data(), &value, sizeof(T));
    return bytes;
}
inline constexpr auto UInt32Bytes = &RawBytes<uint32_t>;
inline constexpr auto UInt64Bytes = &RawBytes<uint64_t>;
std::vector<uint8_t> Utf16Bytes(const std::wstring& text);  // with its terminating null
std::vector<uint8_t> SidBytes(const std::wstring& sidText);

inline PropertyDefinition StringProperty(const std::wstring& name, const std::wstring& value) {
    return {name, etw::kInTypeUnicodeString, 0, Utf16Bytes(value)};
}
inline PropertyDefinition UInt32Property(const std::wstring& name, uint32_t value) {
    return {name, etw::kInTypeUInt32, 0, UInt32Bytes(value)};
}

// Parses "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" or the unbraced form.
GUID GuidFromText(const std::wstring& text);

class EventBuilder {
  public:
    EventBuilder() { header_.Size = sizeof(EVENT_HEADER); }
    EventBuilder(const EventBuilder&) = delete;
    EventBuilder& operator=(const EventBuilder&) = delete;

    EventBuilder& Provider(const GUID& id) { return Set(header_.ProviderId, id); }
    EventBuilder& Provider(const std::wstring& id) { return Provider(GuidFromText(id)); }
    EventBuilder& EventId(uint16_t id) { return Set(header_.EventDescriptor.Id, id); }
    EventBuilder& Version(uint8_t version) { return Set(header_.EventDescriptor.Version, version); }
    EventBuilder& Task(uint16_t task) { return Set(header_.EventDescriptor.Task, task); }
    EventBuilder& Keyword(uint64_t bits) { return Set(header_.EventDescriptor.Keyword, bits); }
    EventBuilder& Opcode(uint8_t opcode) { return Set(header_.EventDescriptor.Opcode, opcode); }
    EventBuilder& Level(uint8_t level) { return Set(header_.EventDescriptor.Level, level); }
    EventBuilder& ProcessId(uint32_t pid) { return Set(header_.ProcessId, pid); }
    EventBuilder& ThreadId(uint32_t tid) { return Set(header_.ThreadId, tid); }
    EventBuilder& Timestamp(uint64_t time) { return Set(header_.TimeStamp.QuadPart, time); }
    EventBuilder& ActivityId(const GUID& activity) { return Set(header_.ActivityId, activity); }

    // Extended data items in the order added: a TS_ID (3), a SID (2), any.
    EventBuilder& SessionId(uint32_t id) { return ExtendedItem(3, UInt32Bytes(id)); }
    EventBuilder& UserSid(const std::wstring& sid) { return ExtendedItem(2, SidBytes(sid)); }
    EventBuilder& ExtendedItem(uint16_t type, std::vector<uint8_t> data) {
        extendedItems_.emplace_back(type, std::move(data));
        return *this;
    }

    // Without it, the user data is the properties' values one after another.
    EventBuilder& Payload(std::vector<uint8_t> bytes) { return Set(payload_, std::move(bytes)); }

    // Schema. An event gets a schema once any of these is called.
    EventBuilder& ProviderName(const std::wstring& name) { return SchemaName(kProvider, name); }
    EventBuilder& TaskName(const std::wstring& name) { return SchemaName(kTask, name); }
    EventBuilder& OpcodeName(const std::wstring& name) { return SchemaName(kOpcode, name); }
    EventBuilder& EventName(const std::wstring& name) { return SchemaName(kEvent, name); }
    EventBuilder& RelatedName(const std::wstring& name) { return SchemaName(kRelated, name); }
    EventBuilder& Message(const std::wstring& text) { return SchemaName(kMessage, text); }
    // 3 (TraceLogging, the default: never cached) or 0 (a manifest, cached).
    EventBuilder& DecodingSource(uint32_t source) { return Set(decodingSource_, source); }
    EventBuilder& Property(PropertyDefinition property);
    EventBuilder& Property(const std::wstring& name, const std::wstring& value) {
        return Property(StringProperty(name, value));
    }

    // The record; valid while the builder lives and is not changed.
    const EVENT_RECORD& Record();

    // What FakeTdh serves for a record made here, found through its UserContext.
    struct Served {
        static constexpr uint64_t kMagic = 0x504C4D5845564E54;  // tells these records from others
        uint64_t magic = kMagic;
        std::vector<PropertyDefinition> properties;
        std::vector<uint8_t> schema;  // TRACE_EVENT_INFO as TDH returns it; empty: none
    };

  private:
    enum SchemaSlot { kProvider, kTask, kOpcode, kEvent, kRelated, kMessage, kSlotCount };

    template <typename Field, typename Value>
    EventBuilder& Set(Field& field, Value&& value) {
        field = static_cast<Field>(std::forward<Value>(value));
        return *this;
    }
    EventBuilder& SchemaName(SchemaSlot slot, const std::wstring& text);
    void BuildSchema();

    Served served_;
    bool hasSchema_ = false;
    EVENT_HEADER header_{};
    std::vector<std::pair<uint16_t, std::vector<uint8_t>>> extendedItems_;
    std::optional<std::vector<uint8_t>> payload_;
    std::array<std::optional<std::wstring>, kSlotCount> names_;
    uint32_t decodingSource_ = 3;
    EVENT_RECORD record_{};
    std::vector<EVENT_HEADER_EXTENDED_DATA_ITEM> items_;
    std::vector<uint8_t> userData_;
};

// Serves what an EventBuilder built (ERROR_NOT_FOUND without a schema); can
// be told to fail. Safe for several decoding threads once its settings are made.
class FakeTdh : public logonmon::TdhApi {
  public:
    uint32_t GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                 uint32_t* bufferSize) override;
    uint32_t GetPropertySize(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                             uint32_t* propertySize) override;
    uint32_t GetProperty(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                         uint32_t bufferSize, uint8_t* buffer) override;

    bool SchemasMayAppear() const override { return schemasMayAppear; }

    uint32_t failPropertySizeWith = 0;  // non-zero: GetPropertySize answers this
    uint32_t failPropertyWith = 0;      // non-zero: GetProperty answers this
    bool schemasMayAppear = true;
};

// Installs a FakeTdh for its lifetime.
class ScopedFakeTdh {
  public:
    ScopedFakeTdh() : binding_(fake) {}
    FakeTdh fake;

  private:
    logonmon::ScopedTdhBinding binding_;
};

}  // namespace plmx::testing
