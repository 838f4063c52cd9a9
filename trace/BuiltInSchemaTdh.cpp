#include "trace/BuiltInSchemaTdh.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <string>

namespace logonmon {

namespace {

using namespace etw;

constexpr size_t kFixedPartSize = offsetof(TRACE_EVENT_INFO, EventPropertyInfoArray);
constexpr uint16_t kHeaderFlag32BitHeader = 0x0020;  // EVENT_HEADER_FLAG_32_BIT_HEADER
constexpr uint32_t kPropertyParamFixedLength = 0x10;
constexpr size_t kSidFixedPart = 8;  // revision, count, authority
constexpr size_t kSidSubAuthoritySize = 4;
constexpr size_t kSidSubAuthorityCountOffset = 1;

size_t TextUnits(const char16_t* text) {
    return std::char_traits<char16_t>::length(text);
}

// TRACE_EVENT_INFO with its property entries, then every text.
std::vector<uint8_t> SerializeSchema(const BuiltInEventSchema& schema) {
    const size_t entries = std::max<size_t>(schema.propertyCount, 1);
    std::vector<uint8_t> info(kFixedPartSize + entries * sizeof(EVENT_PROPERTY_INFO), 0);
    auto addText = [&info](const char16_t* text) -> uint32_t {
        if (text == nullptr) {
            return 0;
        }
        const auto offset = static_cast<uint32_t>(info.size());
        const size_t bytes = (TextUnits(text) + 1) * sizeof(char16_t);
        info.resize(info.size() + bytes);
        std::memcpy(info.data() + offset, text, bytes);
        return offset;
    };

    TRACE_EVENT_INFO fixed{};
    fixed.ProviderGuid = schema.provider;
    fixed.ProviderNameOffset = addText(schema.providerName);
    fixed.TaskNameOffset = addText(schema.taskName);
    fixed.OpcodeNameOffset = addText(schema.opcodeName);
    fixed.PropertyCount = schema.propertyCount;
    fixed.TopLevelPropertyCount = schema.propertyCount;
    std::memcpy(info.data(), &fixed, kFixedPartSize);

    for (uint16_t i = 0; i < schema.propertyCount; ++i) {
        const BuiltInProperty& property = schema.properties[i];
        EVENT_PROPERTY_INFO entry{};
        entry.Flags = static_cast<decltype(entry.Flags)>(
            property.length != 0 ? kPropertyParamFixedLength : 0);
        entry.NameOffset = addText(property.name);
        entry.nonStructType.InType = property.inType;
        entry.nonStructType.OutType = property.outType;
        entry.count = 1;
        entry.length = property.length;
        std::memcpy(info.data() + kFixedPartSize + i * sizeof entry, &entry, sizeof entry);
    }
    return info;
}

// Bytes up to and including the first null element of `unit` bytes; all of
// them when none is there.
size_t TerminatedSize(const uint8_t* data, size_t available, size_t unit) {
    if (unit == sizeof(char16_t)) {
        for (size_t at = 0; at + 2 <= available; at += 2) {
            if ((data[at] | data[at + 1]) == 0) {
                return at + 2;
            }
        }
        return available;
    }
    for (size_t at = 0; at + unit <= available; at += unit) {
        if (std::all_of(data + at, data + at + unit, [](uint8_t b) { return b == 0; })) {
            return at + unit;
        }
    }
    return available;
}

// The size the property takes at `data`, where `available` bytes remain.
size_t PropertySize(const BuiltInProperty& property, const uint8_t* data, size_t available,
                    bool pointer32) {
    switch (property.inType) {
        case kInTypeUnicodeString:
            return property.length != 0 ? size_t{property.length} * sizeof(char16_t)
                                        : TerminatedSize(data, available, sizeof(char16_t));
        case kInTypeAnsiString:
            return property.length != 0 ? property.length : TerminatedSize(data, available, 1);
        case kInTypeBinary:
            return property.length;
        case kInTypeInt8:
        case kInTypeUInt8:
            return 1;
        case kInTypeInt16:
        case kInTypeUInt16:
            return 2;
        case kInTypeInt32:
        case kInTypeUInt32:
        case kInTypeFloat:
        case kInTypeBoolean:
        case kInTypeHexInt32:
            return 4;
        case kInTypeInt64:
        case kInTypeUInt64:
        case kInTypeDouble:
        case kInTypeFileTime:
        case kInTypeHexInt64:
            return 8;
        case kInTypePointer:
            return pointer32 ? 4 : 8;
        case kInTypeGuid:
        case kInTypeSystemTime:
            return 16;
        case kInTypeSid:
            return available > kSidSubAuthorityCountOffset
                       ? kSidFixedPart + kSidSubAuthoritySize * data[kSidSubAuthorityCountOffset]
                       : available;
        default:
            return 0;
    }
}

const char16_t* DescriptorName(const PROPERTY_DATA_DESCRIPTOR& descriptor) {
    return reinterpret_cast<const char16_t*>(static_cast<uintptr_t>(descriptor.PropertyName));
}

}  // namespace

namespace {

template <typename Key>
Key MakeKey(const GUID& provider, uint16_t eventId, uint8_t version) {
    Key key{};
    std::memcpy(key.provider, &provider, sizeof key.provider);
    key.eventId = eventId;
    key.version = version;
    return key;
}

template <typename Key>
int Compare(const Key& left, const Key& right) {
    if (const int provider = std::memcmp(left.provider, right.provider, sizeof left.provider);
        provider != 0) {
        return provider;
    }
    if (left.eventId != right.eventId) {
        return left.eventId < right.eventId ? -1 : 1;
    }
    return left.version == right.version ? 0 : left.version < right.version ? -1 : 1;
}

// Equality alone, which the compiler compares a word at a time.
template <typename Key>
bool SameKey(const Key& left, const Key& right) {
    return std::memcmp(left.provider, right.provider, sizeof left.provider) == 0 &&
           left.eventId == right.eventId && left.version == right.version;
}

}  // namespace

BuiltInSchemaTdh::BuiltInSchemaTdh(TdhApi& fallback) : fallback_(fallback) {
    static std::atomic<uint64_t> instances{0};
    serial_ = ++instances;
    for (const BuiltInEventSchema& schema : BuiltInEventSchemas()) {
        Entry entry{MakeKey<Key>(schema.provider, schema.eventId, schema.version),
                    &schema,
                    SerializeSchema(schema),
                    {},
                    {}};
        for (uint16_t i = 0; i < schema.propertyCount; ++i) {
            const char16_t* name = schema.properties[i].name;
            entry.nameLengths.push_back(TextUnits(name));
            bool first = true;
            for (uint16_t earlier = 0; earlier < i; ++earlier) {
                first = first && std::u16string_view(schema.properties[earlier].name) != name;
            }
            entry.firstOfItsName.push_back(first);
        }
        entries_.push_back(std::move(entry));
    }
    std::sort(entries_.begin(), entries_.end(), [](const Entry& left, const Entry& right) {
        return Compare(left.key, right.key) < 0;
    });
}

const BuiltInSchemaTdh::Entry* BuiltInSchemaTdh::Find(const EVENT_RECORD& event) const {
    const EVENT_DESCRIPTOR& descriptor = event.EventHeader.EventDescriptor;
    const Key wanted =
        MakeKey<Key>(event.EventHeader.ProviderId, descriptor.Id, descriptor.Version);
    // Each property of an event asks again: the answer to the question before
    // is kept per thread, under this instance's serial number.
    struct LastFound {
        uint64_t serial = 0;
        Key key{};
        const Entry* entry = nullptr;
    };
    thread_local LastFound last;
    if (last.serial == serial_ && SameKey(last.key, wanted)) {
        return last.entry;
    }
    const auto found = std::lower_bound(
        entries_.begin(), entries_.end(), wanted,
        [](const Entry& entry, const Key& key) { return Compare(entry.key, key) < 0; });
    const Entry* entry = found != entries_.end() && SameKey(found->key, wanted) ? &*found : nullptr;
    last = {serial_, wanted, entry};
    return entry;
}

bool BuiltInSchemaTdh::Locate(const Entry& entry, const EVENT_RECORD& event,
                              const PROPERTY_DATA_DESCRIPTOR& descriptor, Span* span) const {
    const char16_t* name = DescriptorName(descriptor);
    if (name == nullptr) {
        return false;
    }
    const auto* data = static_cast<const uint8_t*>(event.UserData);
    const size_t total = data != nullptr ? event.UserDataLength : 0;
    // Compared unit by unit, so that the name asked for is read no further
    // than its null.
    const auto isNamed = [&entry, name](uint16_t i) {
        const char16_t* own = entry.schema->properties[i].name;
        const size_t length = entry.nameLengths[i];
        size_t at = 0;
        while (at < length && own[at] == name[at]) {
            ++at;
        }
        return at == length && name[length] == 0;
    };

    // A decoder asks for an event's properties in their order, each once or
    // twice (its size, then its value): where the last one asked for lay
    // tells where this one lies, without walking the payload again. Only for
    // the event asked about last, never for the first property, which every
    // decoding of an event starts with, so that another event in the same
    // place is walked anew; and only for a property whose name no earlier
    // one has, which is the one TDH would find.
    struct LastLocated {
        uint64_t serial = 0;
        const Entry* entry = nullptr;
        const EVENT_RECORD* event = nullptr;
        const uint8_t* data = nullptr;
        size_t total = 0;
        uint16_t index = 0;
        Span span{};
    };
    thread_local LastLocated last;
    const bool sameEvent = last.serial == serial_ && last.entry == &entry && last.event == &event &&
                           last.data == data && last.total == total;
    if (sameEvent) {
        for (const uint16_t i : {last.index, static_cast<uint16_t>(last.index + 1)}) {
            if (i > 0 && i < entry.schema->propertyCount && entry.firstOfItsName[i] && isNamed(i)) {
                const size_t offset =
                    i == last.index ? last.span.offset : last.span.offset + last.span.size;
                const size_t available = total - std::min(offset, total);
                const bool pointer32 = (event.EventHeader.Flags & kHeaderFlag32BitHeader) != 0;
                *span =
                    i == last.index
                        ? last.span
                        : Span{offset, std::min(PropertySize(entry.schema->properties[i],
                                                             data + offset, available, pointer32),
                                                available)};
                last.index = i;
                last.span = *span;
                return true;
            }
        }
    }

    const bool pointer32 = (event.EventHeader.Flags & kHeaderFlag32BitHeader) != 0;
    size_t offset = 0;
    for (uint16_t i = 0; i < entry.schema->propertyCount; ++i) {
        const BuiltInProperty& property = entry.schema->properties[i];
        const size_t available = total - offset;
        const size_t size =
            std::min(PropertySize(property, data + offset, available, pointer32), available);
        if (isNamed(i)) {
            *span = Span{offset, size};
            last = {serial_, &entry, &event, data, total, i, *span};
            return true;
        }
        offset += size;
    }
    return false;
}

uint32_t BuiltInSchemaTdh::GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                               uint32_t* bufferSize) {
    const Entry* entry = Find(event);
    if (entry == nullptr) {
        return fallback_.GetEventInformation(event, buffer, bufferSize);
    }
    const auto size = static_cast<uint32_t>(entry->info.size());
    const bool fits = buffer != nullptr && *bufferSize >= size;
    *bufferSize = size;
    if (!fits) {
        return kErrorInsufficientBuffer;
    }
    std::memcpy(buffer, entry->info.data(), size);
    buffer->EventDescriptor = event.EventHeader.EventDescriptor;
    return kErrorSuccess;
}

uint32_t BuiltInSchemaTdh::GetPropertySize(const EVENT_RECORD& event,
                                           const PROPERTY_DATA_DESCRIPTOR& descriptor,
                                           uint32_t* propertySize) {
    const Entry* entry = Find(event);
    if (entry == nullptr) {
        return fallback_.GetPropertySize(event, descriptor, propertySize);
    }
    Span span{};
    if (!Locate(*entry, event, descriptor, &span)) {
        return kErrorNotFound;
    }
    *propertySize = static_cast<uint32_t>(span.size);
    return kErrorSuccess;
}

uint32_t BuiltInSchemaTdh::GetProperty(const EVENT_RECORD& event,
                                       const PROPERTY_DATA_DESCRIPTOR& descriptor,
                                       uint32_t bufferSize, uint8_t* buffer) {
    const Entry* entry = Find(event);
    if (entry == nullptr) {
        return fallback_.GetProperty(event, descriptor, bufferSize, buffer);
    }
    Span span{};
    if (!Locate(*entry, event, descriptor, &span)) {
        return kErrorNotFound;
    }
    if (bufferSize < span.size) {
        return kErrorInsufficientBuffer;
    }
    if (span.size != 0) {
        std::memcpy(buffer, static_cast<const uint8_t*>(event.UserData) + span.offset, span.size);
    }
    return kErrorSuccess;
}

TdhApi& BuiltInSchemaBinding() {
    static BuiltInSchemaTdh tdh;
    return tdh;
}

}  // namespace logonmon
