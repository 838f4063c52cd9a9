#include "trace/EventRecordData.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cwctype>
#include <stdexcept>

#include "trace/EventSchema.h"
#include "trace/SchemaCache.h"
#include "trace/PropertyValueText.h"
#include "trace/Providers.h"
#include "trace/TextForms.h"
#include "trace/ThreadSpares.h"

namespace logonmon {

namespace {

// Maps and payloads of records gone, for the next records on the thread.
using SpareEntries = ThreadSpares<std::vector<PropertyMap::value_type>>;
// A payload seldom exceeds a few hundred bytes; larger buffers are not kept.
using SparePayloads = ThreadSpares<std::vector<uint8_t>, 16, 4096>;

const std::wstring& NoText() {
    static const std::wstring none;
    return none;
}

std::wstring TextAt(const WCHAR* text) {
    return WideFromUtf16(text);
}

const uint8_t* ExtendedDataBytes(const EVENT_HEADER_EXTENDED_DATA_ITEM& item) {
    return reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(item.DataPtr));
}

// The session id of a TS_ID item; items too short for it are ignored.
std::optional<uint32_t> TerminalSessionId(const EVENT_HEADER_EXTENDED_DATA_ITEM& item) {
    if (item.ExtType != etw::kExtTypeTsId || item.DataPtr == 0 ||
        item.DataSize < sizeof(uint32_t)) {
        return std::nullopt;
    }
    uint32_t sessionId = 0;
    std::memcpy(&sessionId, ExtendedDataBytes(item), sizeof sessionId);
    return sessionId;
}

// The SID of a SID item, copied by its own length as the system copies it, so
// bytes after it are left out. An item that holds no whole SID cannot be
// copied: the event fails rather than being handled without its user.
std::optional<Sid> UserSid(const EVENT_HEADER_EXTENDED_DATA_ITEM& item) {
    std::optional<Sid> sid =
        item.DataPtr == 0 ? std::nullopt : Sid::FromBytes(ExtendedDataBytes(item), item.DataSize);
    if (!sid) {
        throw std::runtime_error(kUserSidCopyFailed);
    }
    return sid;
}

void ReadProperties(EventRecordData& data, const EVENT_RECORD& record, TdhApi& tdh) {
    if (data.schema == nullptr) {
        return;
    }
    const DecodedSchema& schema = *data.schema;
    data.decodingSource = schema.decodingSource;
    data.properties.AssignKeys(schema.keys);
    data.eventName = schema.eventName;
    if (data.eventName != nullptr) {
        data.properties.ValueAt(schema.eventNameSlot) = schema.eventNameText;
    }
    data.relatedName = schema.relatedName;
    if (data.relatedName != nullptr) {
        data.properties.ValueAt(schema.relatedNameSlot) = schema.relatedNameText;
    }
    data.message = schema.message;
    for (const DecodedSchema::Property& property : schema.properties) {
        const PropertyReader reader(tdh, record, property.name);
        // A later property of the same name overwrites the earlier.
        std::wstring& value = data.properties.ValueAt(property.slot);
        AssignPropertyValueText(value, reader, property.inType, property.outType,
                                property.winlogonNotification);
        Trim(value);
    }
    data.propertyNames = schema.propertyNames;
}

void ExpandMessageTemplate(EventRecordData& data, std::wstring& text) {
    text.clear();
    if (data.schema == nullptr || data.message == nullptr) {
        return;
    }
    const std::wstring pattern = TextAt(data.message);
    for (size_t i = 0; i < pattern.size(); ++i) {
        const wchar_t c = pattern[i];
        if (c == L'\r') {
            continue;
        }
        if (c == L'\n') {
            text.push_back(L' ');
            continue;
        }
        if (c != L'%') {
            text.push_back(c);
            continue;
        }
        if (i + 1 < pattern.size() && pattern[i + 1] == L'%') {
            text.push_back(L'%');
            ++i;
            continue;
        }
        size_t end = i + 1;
        uint64_t insert = 0;
        for (; end < pattern.size() && pattern[end] >= L'0' && pattern[end] <= L'9'; ++end) {
            insert = std::min<uint64_t>(insert * 10 + static_cast<uint64_t>(pattern[end] - L'0'),
                                        UINT32_MAX);
        }
        if (insert == 0) {
            continue;  // a lone '%' (or "%0") gives nothing; what follows is copied
        }
        // Inserts beyond the properties, or naming a structure, stay empty.
        if (insert <= data.propertyNames.size() && data.propertyNames[insert - 1] != nullptr) {
            const auto value = data.properties.find(TextAt(data.propertyNames[insert - 1]));
            if (value != data.properties.end()) {
                text += value->second;
            }
        }
        i = end - 1;
    }
}

// Printable ASCII is printable in every locale: the locale is asked only
// about the rest.
bool IsPrintable(wchar_t c) {
    return (c >= L' ' && c < 0x7F) || std::iswprint(static_cast<wint_t>(c));
}

// The opcode's name, then the task's, the event's "name" and every other
// property with its value. Built in one string: every event of a replayed
// trace is written this way.
void DescriptionFromNames(const EventRecordData& data, std::wstring& text) {
    // Room for every part and separator, then written in place.
    size_t size = data.opcodeName.size() + data.taskName.size() + 16;
    for (const auto& [key, value] : data.properties) {
        size += key.size() + value.size() + 4;
    }
    text.resize(size);
    wchar_t* const begin = text.data();
    wchar_t* out = begin;
    const auto put = [&out](std::wstring_view part) {
        if (!part.empty()) {
            std::memcpy(out, part.data(), part.size() * sizeof(wchar_t));
            out += part.size();
        }
    };
    if (!data.opcodeName.empty()) {
        put(data.opcodeName);
        *out++ = L' ';
    }
    const wchar_t* const start = out;
    const auto descriptionSize = [&out, start] { return static_cast<size_t>(out - start); };
    put(data.taskName);
    const auto name = data.properties.find(L"name");
    if (name != data.properties.end() && name->second != data.taskName) {
        if (descriptionSize() > 1) {
            *out++ = L' ';
        }
        put(L"Name: ");
        put(name->second);
    }
    for (const auto& [key, value] : data.properties) {
        // Lengths first: most keys are none of the three.
        const bool shownBefore =
            key.size() == 4 ? SamePropertyName(key, L"Task") || SamePropertyName(key, L"name")
                            : key.size() == 6 && SamePropertyName(key, L"Opcode");
        if (shownBefore) {
            continue;
        }
        if (descriptionSize() > 1) {
            put(L", ");
        }
        if (!value.empty() && IsPrintable(value[0])) {
            put(key);
            put(L": ");
            put(value);
        }
    }
    text.resize(static_cast<size_t>(out - begin));
}

}  // namespace

PropertyMap::~PropertyMap() {
    SpareEntries::Keep(std::move(entries_));
}

void PropertyMap::AssignKeys(std::span<const std::wstring_view> keys) {
    if (entries_.capacity() == 0) {
        entries_ = SpareEntries::Take();
    }
    // Entries beyond the keys stay, with the storage of their values.
    if (entries_.size() < keys.size()) {
        entries_.resize(keys.size());
    }
    size_ = keys.size();
    for (size_t i = 0; i < keys.size(); ++i) {
        entries_[i].first = keys[i];
        entries_[i].second.clear();
    }
}

PropertyMap::const_iterator PropertyMap::find(std::wstring_view name) const {
    return entries_.begin() + (const_cast<PropertyMap*>(this)->find(name) - entries_.begin());
}

PropertyMap::iterator PropertyMap::find(std::wstring_view name) {
    const auto entry = LowerBound(name);
    return entry != end() && SamePropertyName(entry->first, name) ? entry : end();
}

std::wstring& PropertyMap::operator[](std::wstring_view name) {
    const auto entry = LowerBound(name);
    if (entry != end() && SamePropertyName(entry->first, name)) {
        return entry->second;
    }
    std::wstring& value = entries_.emplace(entry, name, std::wstring())->second;
    ++size_;
    return value;
}

PropertyMap::iterator PropertyMap::LowerBound(std::wstring_view name) {
    return std::lower_bound(begin(), end(), name,
                            [](const value_type& entry, std::wstring_view key) {
                                return PropertyNameLess()(entry.first, key);
                            });
}

EventRecordData::EventRecordData(const EVENT_RECORD& record)
    : schema(CachedEventSchema(record, CurrentTdh())),
      providerName(schema ? schema->providerName : NoText()),
      taskName(schema ? schema->taskName : NoText()),
      opcodeName(schema ? schema->opcodeName : NoText()) {
    const EVENT_HEADER& header = record.EventHeader;
    providerId = header.ProviderId;
    processId = header.ProcessId;
    threadId = header.ThreadId;
    timestamp = static_cast<uint64_t>(header.TimeStamp.QuadPart);
    activityId = header.ActivityId;
    level = header.EventDescriptor.Level;
    opcode = header.EventDescriptor.Opcode;
    eventId = header.EventDescriptor.Id;

    // Items are read only within their DataSize and never through a null
    // pointer; malformed ones are skipped.
    // The last TS_ID and SID items win.
    const size_t itemCount = record.ExtendedData != nullptr ? record.ExtendedDataCount : 0;
    for (size_t i = 0; i < itemCount; ++i) {
        const EVENT_HEADER_EXTENDED_DATA_ITEM& item = record.ExtendedData[i];
        if (const auto id = TerminalSessionId(item)) {
            sessionId = *id;
        } else if (item.ExtType == etw::kExtTypeSid) {
            userSid = UserSid(item);
        }
    }

    ReadProperties(*this, record, CurrentTdh());

    // A length without data gives an empty buffer and a length of 0.
    if (record.UserData != nullptr && record.UserDataLength > 0) {
        const auto* bytes = static_cast<const uint8_t*>(record.UserData);
        userData = SparePayloads::Take();
        userData.assign(bytes, bytes + record.UserDataLength);
    }
    userDataLength = static_cast<uint32_t>(userData.size());
}

std::shared_ptr<EventRecordData> MakeEventRecordData(const EVENT_RECORD& record) {
    return std::allocate_shared<EventRecordData>(RecyclingAllocator<EventRecordData>(), record);
}

EventRecordData::~EventRecordData() {
    SparePayloads::Keep(std::move(userData));
}

EventRecordData::EventRecordData(const EventLineFields& fields)
    : eventId(fields.eventId),
      processId(fields.processId),
      threadId(fields.threadId),
      timestamp(fields.timestamp),
      level(fields.level),
      sessionId(fields.sessionId),
      schema(fields.schema),
      providerName(schema ? schema->providerName : NoText()),
      taskName(schema ? schema->taskName : NoText()),
      opcodeName(schema ? schema->opcodeName : NoText()) {}

EventLineFields EventRecordData::LineFields() const {
    return {schema, timestamp, processId, threadId, sessionId, eventId, level};
}

const TRACE_EVENT_INFO* EventRecordData::EventInformation() const {
    return schema ? schema->buffer.Info() : nullptr;
}

std::wstring EventRecordData::EventName() const {
    return TextAt(eventName);
}

std::wstring EventRecordData::RelatedName() const {
    return TextAt(relatedName);
}

std::wstring EventRecordData::PropertyName(size_t index) const {
    return index < propertyNames.size() ? TextAt(propertyNames[index]) : std::wstring();
}

std::string EventRecordData::LevelName() const {
    switch (level) {
        case 0:
            return "NONE";
        case 1:
            return "CRITICAL";
        case 2:
            return "ERROR";
        case 3:
            return "WARN";
        case 4:
            return "INFO";
        case 5:
            return "VERBOSE";
        default:
            return std::to_string(level);
    }
}

char* EventRecordData::PutLogPrefix(char* out) const {
    // Written by hand: this is on every line of a session log.
    const auto session =
        static_cast<int32_t>(sessionIdOverride != nullptr ? *sessionIdOverride : sessionId);
    out = PutHex(out, processId, 4);
    *out++ = '-';
    out = PutHex(out, threadId, 4);
    *out++ = '-';
    if (session < 0) {
        *out++ = '-';
    }
    return PutDecimal(
        out, session < 0 ? 0u - static_cast<uint32_t>(session) : static_cast<uint32_t>(session));
}

void EventRecordData::AssignMessageText(std::wstring& text) {
    ExpandMessageTemplate(*this, text);
    if (text.empty()) {
        DescriptionFromNames(*this, text);
    }
}

}  // namespace logonmon
