#include "tests/support/EventBuilder.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <stdexcept>

#include "trace/Sid.h"
#include "trace/TextForms.h"

namespace plmx::testing {

namespace {

using namespace logonmon::etw;

// Marks the records made here, so that FakeTdh can tell them from others.
constexpr uint64_t kBuilderMagic = 0x504C4D5845564E54;
constexpr uint16_t kHeaderFlagExtendedInfo = 0x0001;
constexpr size_t kArrayOffset = offsetof(TRACE_EVENT_INFO, EventPropertyInfoArray);

template <typename T>
std::vector<uint8_t> LittleEndianBytes(T value) {
    std::vector<uint8_t> bytes(sizeof(T));
    for (size_t i = 0; i < sizeof(T); ++i) {
        bytes[i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
    }
    return bytes;
}

const EventBuilder::Served* ServedFor(const EVENT_RECORD& event) {
    const auto* served = static_cast<const EventBuilder::Served*>(event.UserContext);
    return served != nullptr && served->magic == kBuilderMagic ? served : nullptr;
}

const PropertyDefinition* FindProperty(const EVENT_RECORD& event,
                                       const PROPERTY_DATA_DESCRIPTOR& descriptor) {
    const EventBuilder::Served* served = ServedFor(event);
    const auto* name =
        reinterpret_cast<const WCHAR*>(static_cast<uintptr_t>(descriptor.PropertyName));
    if (served == nullptr || name == nullptr) {
        return nullptr;
    }
    // Compared unit by unit: looking up a property allocates nothing.
    const auto named = [name](const std::wstring& candidate) {
        size_t i = 0;
        for (; i < candidate.size(); ++i) {
            if (name[i] == 0 || static_cast<wchar_t>(name[i]) != candidate[i]) {
                return false;
            }
        }
        return name[i] == 0;
    };
    for (const PropertyDefinition& property : served->properties) {
        if (!property.isStruct && named(property.name)) {
            return &property;
        }
    }
    return nullptr;
}

}  // namespace

std::vector<uint8_t> Utf16Bytes(const std::wstring& text) {
    std::vector<uint8_t> bytes;
    for (const wchar_t c : text) {
        bytes.push_back(static_cast<uint8_t>(c));
        bytes.push_back(static_cast<uint8_t>(static_cast<uint32_t>(c) >> 8));
    }
    bytes.insert(bytes.end(), {0, 0});
    return bytes;
}

std::vector<uint8_t> UInt16Bytes(uint16_t value) {
    return LittleEndianBytes(value);
}
std::vector<uint8_t> UInt32Bytes(uint32_t value) {
    return LittleEndianBytes(value);
}
std::vector<uint8_t> UInt64Bytes(uint64_t value) {
    return LittleEndianBytes(value);
}

std::vector<uint8_t> SidBytes(const std::wstring& sidText) {
    const std::optional<logonmon::Sid> sid = logonmon::Sid::FromString(sidText);
    if (!sid) {
        throw std::invalid_argument("not a SID");
    }
    return sid->Bytes();
}

PropertyDefinition StringProperty(const std::wstring& name, const std::wstring& value) {
    return PropertyDefinition{name, kInTypeUnicodeString, 0, Utf16Bytes(value), false};
}

PropertyDefinition UInt32Property(const std::wstring& name, uint32_t value) {
    return PropertyDefinition{name, kInTypeUInt32, 0, UInt32Bytes(value), false};
}

GUID GuidFromText(const std::wstring& text) {
    unsigned parts[11] = {};
    const wchar_t* bare = text.c_str() + (text.starts_with(L"{") ? 1 : 0);
    if (std::swscanf(bare, L"%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x", &parts[0], &parts[1],
                     &parts[2], &parts[3], &parts[4], &parts[5], &parts[6], &parts[7], &parts[8],
                     &parts[9], &parts[10]) != 11) {
        throw std::invalid_argument("not a GUID");
    }
    GUID guid{parts[0], static_cast<uint16_t>(parts[1]), static_cast<uint16_t>(parts[2]), {}};
    for (size_t i = 0; i < 8; ++i) {
        guid.Data4[i] = static_cast<uint8_t>(parts[3 + i]);
    }
    return guid;
}

EventBuilder::EventBuilder() {
    served_.magic = kBuilderMagic;
    header_.Size = sizeof(EVENT_HEADER);
}

EventBuilder& EventBuilder::Timestamp(uint64_t fileTime) {
    header_.TimeStamp.QuadPart = static_cast<int64_t>(fileTime);
    return *this;
}

EventBuilder& EventBuilder::SessionId(uint32_t sessionId) {
    return ExtendedItem(kExtTypeTsId, UInt32Bytes(sessionId));
}

EventBuilder& EventBuilder::UserSid(const std::wstring& sidText) {
    return ExtendedItem(kExtTypeSid, SidBytes(sidText));
}

EventBuilder& EventBuilder::ExtendedItem(uint16_t type, std::vector<uint8_t> data) {
    extendedItems_.emplace_back(type, std::move(data));
    return *this;
}

EventBuilder& EventBuilder::SchemaName(SchemaSlot slot, const std::wstring& text) {
    served_.hasSchema = true;
    names_[slot] = text;
    return *this;
}

EventBuilder& EventBuilder::Property(PropertyDefinition property) {
    served_.hasSchema = true;
    served_.properties.push_back(std::move(property));
    return *this;
}

// The fixed part, the property entries, then every text.
void EventBuilder::BuildSchema() {
    const std::vector<PropertyDefinition>& properties = served_.properties;
    std::vector<uint8_t>& schema = served_.schema;
    schema.assign(
        kArrayOffset + std::max<size_t>(properties.size(), 1) * sizeof(EVENT_PROPERTY_INFO), 0);
    auto addText = [&schema](const std::wstring& text) {
        const auto offset = static_cast<uint32_t>(schema.size());
        const std::vector<uint8_t> bytes = Utf16Bytes(text);
        schema.insert(schema.end(), bytes.begin(), bytes.end());
        return offset;
    };
    uint32_t offsets[kSlotCount] = {};
    for (size_t slot = 0; slot < kSlotCount; ++slot) {
        offsets[slot] = names_[slot] ? addText(*names_[slot]) : 0;
    }

    TRACE_EVENT_INFO info{};
    info.ProviderGuid = header_.ProviderId;
    info.EventDescriptor = header_.EventDescriptor;
    info.DecodingSource = static_cast<decltype(info.DecodingSource)>(decodingSource_);
    info.ProviderNameOffset = offsets[kProvider];
    info.TaskNameOffset = offsets[kTask];
    info.OpcodeNameOffset = offsets[kOpcode];
    info.EventMessageOffset = offsets[kMessage];
    info.ActivityIDNameOffset = offsets[kEvent];
    info.RelatedActivityIDNameOffset = offsets[kRelated];
    info.PropertyCount = static_cast<uint32_t>(properties.size());
    info.TopLevelPropertyCount = info.PropertyCount;
    std::memcpy(schema.data(), &info, kArrayOffset);

    for (size_t i = 0; i < properties.size(); ++i) {
        const PropertyDefinition& property = properties[i];
        EVENT_PROPERTY_INFO entry{};
        entry.Flags = static_cast<decltype(entry.Flags)>(property.isStruct ? kPropertyStruct : 0);
        entry.NameOffset = addText(property.name);
        if (!property.isStruct) {
            entry.nonStructType.InType = property.inType;
            entry.nonStructType.OutType = property.outType;
        }
        entry.count = 1;
        entry.length = static_cast<uint16_t>(std::min<size_t>(property.value.size(), UINT16_MAX));
        std::memcpy(schema.data() + kArrayOffset + i * sizeof entry, &entry, sizeof entry);
    }
}

const EVENT_RECORD& EventBuilder::Record() {
    items_.clear();
    for (const auto& [type, data] : extendedItems_) {
        EVENT_HEADER_EXTENDED_DATA_ITEM item{};
        item.ExtType = type;
        item.DataSize = static_cast<uint16_t>(data.size());
        item.DataPtr = data.empty() ? 0 : reinterpret_cast<uintptr_t>(data.data());
        items_.push_back(item);
    }
    userData_.clear();
    if (payload_) {
        userData_ = *payload_;
    } else {
        for (const PropertyDefinition& property : served_.properties) {
            userData_.insert(userData_.end(), property.value.begin(), property.value.end());
        }
    }
    served_.schema.clear();
    if (served_.hasSchema) {
        BuildSchema();
    }

    record_ = EVENT_RECORD{};
    record_.EventHeader = header_;
    if (!items_.empty()) {
        record_.EventHeader.Flags |= kHeaderFlagExtendedInfo;
    }
    record_.ExtendedDataCount = static_cast<uint16_t>(items_.size());
    record_.ExtendedData = items_.empty() ? nullptr : items_.data();
    record_.UserDataLength = static_cast<uint16_t>(userData_.size());
    record_.UserData = userData_.empty() ? nullptr : userData_.data();
    record_.UserContext = &served_;
    return record_;
}

uint32_t FakeTdh::GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                      uint32_t* bufferSize) {
    eventInformationCalls.fetch_add(1, std::memory_order_relaxed);
    const EventBuilder::Served* served = ServedFor(event);
    if (served == nullptr || !served->hasSchema) {
        return kErrorNotFound;
    }
    const auto size = static_cast<uint32_t>(served->schema.size());
    const bool fits = buffer != nullptr && *bufferSize >= size;
    *bufferSize = size;
    if (!fits) {
        return kErrorInsufficientBuffer;
    }
    std::memcpy(buffer, served->schema.data(), size);
    return kErrorSuccess;
}

uint32_t FakeTdh::GetPropertySize(const EVENT_RECORD& event,
                                  const PROPERTY_DATA_DESCRIPTOR& descriptor,
                                  uint32_t* propertySize) {
    const PropertyDefinition* property = FindProperty(event, descriptor);
    if (failPropertySizeWith != 0 || property == nullptr) {
        return failPropertySizeWith != 0 ? failPropertySizeWith : kErrorNotFound;
    }
    *propertySize = static_cast<uint32_t>(property->value.size());
    return kErrorSuccess;
}

uint32_t FakeTdh::GetProperty(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                              uint32_t bufferSize, uint8_t* buffer) {
    const PropertyDefinition* property = FindProperty(event, descriptor);
    if (failPropertyWith != 0 || property == nullptr) {
        return failPropertyWith != 0 ? failPropertyWith : kErrorNotFound;
    }
    if (bufferSize < property->value.size()) {
        return kErrorInsufficientBuffer;
    }
    std::copy(property->value.begin(), property->value.end(), buffer);
    return kErrorSuccess;
}

}  // namespace plmx::testing
