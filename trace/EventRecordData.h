// One decoded ETW event: the header fields the logon processor needs, a
// private copy of the user data, the schema names and every top-level
// property as text.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "trace/EtwTypes.h"
#include "trace/EventSchema.h"
#include "trace/Sid.h"

namespace logonmon {

struct SESSION_CONTEXT;

// An event's properties by name, sorted by PropertyNameLess in one array: an
// event has a handful. Keys view the names in the event's schema, or
// literals.
class PropertyMap {
  public:
    using value_type = std::pair<std::wstring_view, std::wstring>;
    using iterator = std::vector<value_type>::iterator;
    using const_iterator = std::vector<value_type>::const_iterator;

    PropertyMap() = default;
    PropertyMap(const PropertyMap&) = default;
    PropertyMap& operator=(const PropertyMap&) = default;
    // Leaves its storage to the next map made on this thread.
    ~PropertyMap();

    iterator begin() { return entries_.begin(); }
    iterator end() { return entries_.begin() + static_cast<std::ptrdiff_t>(size_); }
    const_iterator begin() const { return entries_.begin(); }
    const_iterator end() const { return entries_.begin() + static_cast<std::ptrdiff_t>(size_); }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    iterator find(std::wstring_view name);
    const_iterator find(std::wstring_view name) const;
    // Adds an empty value when the name is missing.
    std::wstring& operator[](std::wstring_view name);

    // Sets the keys, already in order, each with an empty value.
    void AssignKeys(std::span<const std::wstring_view> keys);
    // The value of the key at `position` in key order.
    std::wstring& ValueAt(size_t position) { return entries_[position].second; }

    friend bool operator==(const PropertyMap& left, const PropertyMap& right) {
        return std::equal(left.begin(), left.end(), right.begin(), right.end());
    }

  private:
    iterator LowerBound(std::wstring_view name);

    // The first `size_` are the map; the rest are kept with their storage
    // for the values of events with more properties.
    std::vector<value_type> entries_;
    size_t size_ = 0;
};

// Thrown when the SID item of the extended data holds no whole SID; the
// HRESULT of ERROR_INVALID_SID, as the system's copy reports it.
inline constexpr char kUserSidCopyFailed[] = "Failed to copy the event's user SID: 0x80070539";

class EventRecordData;

// A decoded record, in storage that records gone from this thread hand on.
std::shared_ptr<EventRecordData> MakeEventRecordData(const EVENT_RECORD& record);

// What a log line shows of an event, kept once the event itself is gone.
struct EventLineFields {
    std::shared_ptr<const DecodedSchema> schema;
    uint64_t timestamp = 0;
    uint32_t processId = 0;
    uint32_t threadId = 0;
    uint32_t sessionId = 0xFFFFFFFF;
    uint16_t eventId = 0;
    uint8_t level = 0;
};

class EventRecordData {
  public:
    // Never fails on a missing schema; throws std::runtime_error
    // ("GetValue failed", "GetValueAlloc failed") when a property's value
    // cannot be read, and kUserSidCopyFailed for a broken SID item.
    explicit EventRecordData(const EVENT_RECORD& record);
    // An event without payload or properties, for the lines written about it
    // later.
    explicit EventRecordData(const EventLineFields& fields);

    // Leaves its payload's storage to the next record made on this thread.
    ~EventRecordData();
    EventRecordData(const EventRecordData&) = delete;
    EventRecordData& operator=(const EventRecordData&) = delete;

    // "NONE", "CRITICAL", ... or the level as a decimal number.
    std::string LevelName() const;
    // "%04x-%04x-%d": process id, thread id, session id (or its override),
    // at `out`, which has room for kLogPrefixSize; returns the end.
    static constexpr size_t kLogPrefixSize = 32;
    char* PutLogPrefix(char* out) const;
    // The message template with its inserts, or text built from the names,
    // into `text`, reusing its storage.
    void AssignMessageText(std::wstring& text);

    EventLineFields LineFields() const;

    // Text of the name pointers into the schema; empty when absent.
    std::wstring EventName() const;
    std::wstring RelatedName() const;
    std::wstring PropertyName(size_t index) const;

    const TRACE_EVENT_INFO* EventInformation() const;

    std::vector<uint8_t> userData;
    uint32_t userDataLength = 0;
    const uint32_t* sessionIdOverride = nullptr;
    std::optional<Sid> userSid;
    GUID activityId{};
    GUID providerId{};
    uint16_t eventId = 0;
    uint32_t processId = 0;
    uint32_t threadId = 0;
    uint64_t timestamp = 0;
    uint8_t level = 0;
    uint8_t opcode = 0;
    uint32_t sessionId = 0xFFFFFFFF;
    // Shared by the events of one kind; the names below live in it.
    std::shared_ptr<const DecodedSchema> schema;
    uint32_t decodingSource = 0;
    // Empty without a schema.
    const std::wstring& providerName;
    const std::wstring& taskName;
    const std::wstring& opcodeName;
    const WCHAR* eventName = nullptr;
    const WCHAR* relatedName = nullptr;
    const WCHAR* message = nullptr;
    PropertyMap properties;
    std::span<const WCHAR* const> propertyNames;

    // The session this event belongs to, linked by the logon processor.
    std::shared_ptr<SESSION_CONTEXT> sessionContext;
};

}  // namespace logonmon
