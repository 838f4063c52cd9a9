#include "tests/support/EventBuilder.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "trace/Sid.h"
#include "trace/TextForms.h"

namespace plmx::testing {

namespace {

// Marks the UserContext of records made here, so that FakeTdh can tell them
// from anything else.
constexpr uint64_t kBuilderMagic = 0x504C4D5845564E54;
constexpr uint16_t kHeaderFlagExtendedInfo = 0x0001;

template <typename T>
std::vector<uint8_t> LittleEndianBytes(T value) {
    std::vector<uint8_t> bytes(sizeof(T));
    for (size_t i = 0; i < sizeof(T); ++i) {
        bytes[i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
    }
    return bytes;
}

unsigned HexDigit(wchar_t c) {
    if (c >= L'0' && c <= L'9') {
        return static_cast<unsigned>(c - L'0');
    }
    if (c >= L'a' && c <= L'f') {
        return static_cast<unsigned>(c - L'a' + 10);
    }
    if (c >= L'A' && c <= L'F') {
        return static_cast<unsigned>(c - L'A' + 10);
    }
    throw std::invalid_argument("not a GUID");
}

}  // namespace

std::vector<uint8_t> Utf16Bytes(const std::wstring& text) {
    std::vector<uint8_t> bytes;
    auto append = [&bytes](uint32_t unit) {
        bytes.push_back(static_cast<uint8_t>(unit));
        bytes.push_back(static_cast<uint8_t>(unit >> 8));
    };
    for (const wchar_t c : text) {
        const auto codePoint = static_cast<uint32_t>(c);
        if (codePoint > 0xFFFF) {
            append(0xD800 + ((codePoint - 0x10000) >> 10));
            append(0xDC00 + ((codePoint - 0x10000) & 0x3FF));
        } else {
            append(codePoint);
        }
    }
    append(0);
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
    return PropertyDefinition{name, logonmon::etw::kInTypeUnicodeString, 0, Utf16Bytes(value), false};
}

PropertyDefinition UInt32Property(const std::wstring& name, uint32_t value) {
    return PropertyDefinition{name, logonmon::etw::kInTypeUInt32, 0, UInt32Bytes(value), false};
}

GUID GuidFromText(const std::wstring& text) {
    std::wstring bare = text;
    if (bare.size() == 38 && bare.front() == L'{' && bare.back() == L'}') {
        bare = bare.substr(1, 36);
    }
    if (bare.size() != 36 || bare[8] != L'-' || bare[13] != L'-' || bare[18] != L'-' ||
        bare[23] != L'-') {
        throw std::invalid_argument("not a GUID");
    }
    auto hex = [&bare](size_t pos, size_t digits) {
        uint64_t value = 0;
        for (size_t i = 0; i < digits; ++i) {
            value = value << 4 | HexDigit(bare[pos + i]);
        }
        return value;
    };
    GUID guid{};
    guid.Data1 = static_cast<decltype(guid.Data1)>(hex(0, 8));
    guid.Data2 = static_cast<uint16_t>(hex(9, 4));
    guid.Data3 = static_cast<uint16_t>(hex(14, 4));
    guid.Data4[0] = static_cast<uint8_t>(hex(19, 2));
    guid.Data4[1] = static_cast<uint8_t>(hex(21, 2));
    for (size_t i = 0; i < 6; ++i) {
        guid.Data4[2 + i] = static_cast<uint8_t>(hex(24 + 2 * i, 2));
    }
    return guid;
}

namespace detail {

// What FakeTdh serves for a record, reached through its UserContext.
struct ServedEvent {
    uint64_t magic = kBuilderMagic;
    bool hasSchema = false;
    std::vector<PropertyDefinition> properties;
    std::vector<uint8_t> schema;  // TRACE_EVENT_INFO as TDH returns it

    const PropertyDefinition* FindProperty(const PROPERTY_DATA_DESCRIPTOR& descriptor) const;
};

}  // namespace detail

struct EventBuilder::Impl : detail::ServedEvent {
    EVENT_HEADER header{};
    std::vector<std::pair<uint16_t, std::vector<uint8_t>>> extendedItems;
    std::optional<std::vector<uint8_t>> payload;
    std::optional<std::wstring> providerName;
    std::optional<std::wstring> taskName;
    std::optional<std::wstring> opcodeName;
    std::optional<std::wstring> eventName;
    std::optional<std::wstring> relatedName;
    std::optional<std::wstring> message;

    // What Record() last built.
    EVENT_RECORD record{};
    std::vector<EVENT_HEADER_EXTENDED_DATA_ITEM> items;
    std::vector<uint8_t> userData;

    void BuildSchema();
};

void EventBuilder::Impl::BuildSchema() {
    constexpr size_t kArrayOffset = offsetof(TRACE_EVENT_INFO, EventPropertyInfoArray);
    const size_t textStart =
        kArrayOffset + std::max<size_t>(properties.size(), 1) * sizeof(EVENT_PROPERTY_INFO);
    std::vector<uint8_t> texts;
    auto addText = [&](const std::wstring& text) {
        const auto offset = static_cast<uint32_t>(textStart + texts.size());
        const std::vector<uint8_t> bytes = Utf16Bytes(text);
        texts.insert(texts.end(), bytes.begin(), bytes.end());
        return offset;
    };
    auto addOptional = [&](const std::optional<std::wstring>& text) {
        return text ? addText(*text) : uint32_t{0};
    };

    TRACE_EVENT_INFO info{};
    info.ProviderGuid = header.ProviderId;
    info.EventDescriptor = header.EventDescriptor;
    info.ProviderNameOffset = addOptional(providerName);
    info.TaskNameOffset = addOptional(taskName);
    info.OpcodeNameOffset = addOptional(opcodeName);
    info.EventMessageOffset = addOptional(message);
    info.ActivityIDNameOffset = addOptional(eventName);
    info.RelatedActivityIDNameOffset = addOptional(relatedName);
    info.PropertyCount = static_cast<uint32_t>(properties.size());
    info.TopLevelPropertyCount = info.PropertyCount;

    std::vector<EVENT_PROPERTY_INFO> entries(properties.size());
    for (size_t i = 0; i < properties.size(); ++i) {
        const PropertyDefinition& property = properties[i];
        EVENT_PROPERTY_INFO& entry = entries[i];
        entry.Flags =
            static_cast<decltype(entry.Flags)>(property.isStruct ? logonmon::etw::kPropertyStruct : 0);
        entry.NameOffset = addText(property.name);
        if (!property.isStruct) {
            entry.nonStructType.InType = property.inType;
            entry.nonStructType.OutType = property.outType;
        }
        entry.count = 1;
        entry.length = static_cast<uint16_t>(std::min<size_t>(property.value.size(), UINT16_MAX));
    }

    schema.assign(textStart + texts.size(), 0);
    std::memcpy(schema.data(), &info, kArrayOffset);
    if (!entries.empty()) {
        std::memcpy(schema.data() + kArrayOffset, entries.data(),
                    entries.size() * sizeof(EVENT_PROPERTY_INFO));
    }
    if (!texts.empty()) {
        std::memcpy(schema.data() + textStart, texts.data(), texts.size());
    }
}

const PropertyDefinition* detail::ServedEvent::FindProperty(
    const PROPERTY_DATA_DESCRIPTOR& descriptor) const {
    const auto* name =
        reinterpret_cast<const WCHAR*>(static_cast<uintptr_t>(descriptor.PropertyName));
    if (name == nullptr) {
        return nullptr;
    }
    const std::wstring wanted = logonmon::WideFromUtf16(name);
    for (const PropertyDefinition& property : properties) {
        if (!property.isStruct && property.name == wanted) {
            return &property;
        }
    }
    return nullptr;
}

EventBuilder::EventBuilder() : impl_(std::make_unique<Impl>()) {
    impl_->header.Size = sizeof(EVENT_HEADER);
}

EventBuilder::~EventBuilder() = default;

EventBuilder& EventBuilder::Provider(const GUID& provider) {
    impl_->header.ProviderId = provider;
    return *this;
}

EventBuilder& EventBuilder::Provider(const std::wstring& guidText) {
    return Provider(GuidFromText(guidText));
}

EventBuilder& EventBuilder::EventId(uint16_t id) {
    impl_->header.EventDescriptor.Id = id;
    return *this;
}

EventBuilder& EventBuilder::Opcode(uint8_t opcode) {
    impl_->header.EventDescriptor.Opcode = opcode;
    return *this;
}

EventBuilder& EventBuilder::Level(uint8_t level) {
    impl_->header.EventDescriptor.Level = level;
    return *this;
}

EventBuilder& EventBuilder::ProcessId(uint32_t pid) {
    impl_->header.ProcessId = pid;
    return *this;
}

EventBuilder& EventBuilder::ThreadId(uint32_t tid) {
    impl_->header.ThreadId = tid;
    return *this;
}

EventBuilder& EventBuilder::Timestamp(uint64_t fileTime) {
    impl_->header.TimeStamp.QuadPart = static_cast<int64_t>(fileTime);
    return *this;
}

EventBuilder& EventBuilder::ActivityId(const GUID& activity) {
    impl_->header.ActivityId = activity;
    return *this;
}

EventBuilder& EventBuilder::SessionId(uint32_t sessionId) {
    return ExtendedItem(logonmon::etw::kExtTypeTsId, UInt32Bytes(sessionId));
}

EventBuilder& EventBuilder::UserSid(const std::wstring& sidText) {
    return ExtendedItem(logonmon::etw::kExtTypeSid, SidBytes(sidText));
}

EventBuilder& EventBuilder::ExtendedItem(uint16_t type, std::vector<uint8_t> data) {
    impl_->extendedItems.emplace_back(type, std::move(data));
    return *this;
}

EventBuilder& EventBuilder::Payload(std::vector<uint8_t> bytes) {
    impl_->payload = std::move(bytes);
    return *this;
}

EventBuilder& EventBuilder::ProviderName(const std::wstring& name) {
    impl_->hasSchema = true;
    impl_->providerName = name;
    return *this;
}

EventBuilder& EventBuilder::TaskName(const std::wstring& name) {
    impl_->hasSchema = true;
    impl_->taskName = name;
    return *this;
}

EventBuilder& EventBuilder::OpcodeName(const std::wstring& name) {
    impl_->hasSchema = true;
    impl_->opcodeName = name;
    return *this;
}

EventBuilder& EventBuilder::EventName(const std::wstring& name) {
    impl_->hasSchema = true;
    impl_->eventName = name;
    return *this;
}

EventBuilder& EventBuilder::RelatedName(const std::wstring& name) {
    impl_->hasSchema = true;
    impl_->relatedName = name;
    return *this;
}

EventBuilder& EventBuilder::Message(const std::wstring& messageTemplate) {
    impl_->hasSchema = true;
    impl_->message = messageTemplate;
    return *this;
}

EventBuilder& EventBuilder::Property(PropertyDefinition property) {
    impl_->hasSchema = true;
    impl_->properties.push_back(std::move(property));
    return *this;
}

EventBuilder& EventBuilder::Property(const std::wstring& name, const std::wstring& value) {
    return Property(StringProperty(name, value));
}

const EVENT_RECORD& EventBuilder::Record() {
    Impl& impl = *impl_;
    impl.items.clear();
    for (const auto& [type, data] : impl.extendedItems) {
        EVENT_HEADER_EXTENDED_DATA_ITEM item{};
        item.ExtType = type;
        item.DataSize = static_cast<uint16_t>(data.size());
        item.DataPtr = data.empty() ? 0 : reinterpret_cast<uintptr_t>(data.data());
        impl.items.push_back(item);
    }

    if (impl.payload) {
        impl.userData = *impl.payload;
    } else {
        impl.userData.clear();
        for (const PropertyDefinition& property : impl.properties) {
            impl.userData.insert(impl.userData.end(), property.value.begin(), property.value.end());
        }
    }

    impl.schema.clear();
    if (impl.hasSchema) {
        impl.BuildSchema();
    }

    EVENT_RECORD& record = impl.record;
    record = EVENT_RECORD{};
    record.EventHeader = impl.header;
    if (!impl.items.empty()) {
        record.EventHeader.Flags |= kHeaderFlagExtendedInfo;
    }
    record.ExtendedDataCount = static_cast<uint16_t>(impl.items.size());
    record.ExtendedData = impl.items.empty() ? nullptr : impl.items.data();
    record.UserDataLength = static_cast<uint16_t>(impl.userData.size());
    record.UserData = impl.userData.empty() ? nullptr : impl.userData.data();
    record.UserContext = static_cast<detail::ServedEvent*>(&impl);
    return record;
}

namespace {

const detail::ServedEvent* BuilderOf(const EVENT_RECORD& event) {
    const auto* impl = static_cast<const detail::ServedEvent*>(event.UserContext);
    return impl != nullptr && impl->magic == kBuilderMagic ? impl : nullptr;
}

}  // namespace

uint32_t FakeTdh::GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                      uint32_t* bufferSize) {
    ++eventInformationCalls;
    const detail::ServedEvent* impl = BuilderOf(event);
    if (impl == nullptr || !impl->hasSchema) {
        return logonmon::etw::kErrorNotFound;
    }
    const auto size = static_cast<uint32_t>(impl->schema.size());
    if (buffer == nullptr || *bufferSize < size) {
        *bufferSize = size;
        return logonmon::etw::kErrorInsufficientBuffer;
    }
    std::memcpy(buffer, impl->schema.data(), size);
    *bufferSize = size;
    return logonmon::etw::kErrorSuccess;
}

uint32_t FakeTdh::GetPropertySize(const EVENT_RECORD& event,
                                  const PROPERTY_DATA_DESCRIPTOR& descriptor,
                                  uint32_t* propertySize) {
    if (failPropertySizeWith != 0) {
        return failPropertySizeWith;
    }
    const detail::ServedEvent* impl = BuilderOf(event);
    const PropertyDefinition* property = impl != nullptr ? impl->FindProperty(descriptor) : nullptr;
    if (property == nullptr) {
        return logonmon::etw::kErrorNotFound;
    }
    *propertySize = static_cast<uint32_t>(property->value.size());
    return logonmon::etw::kErrorSuccess;
}

uint32_t FakeTdh::GetProperty(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                              uint32_t bufferSize, uint8_t* buffer) {
    if (failPropertyWith != 0) {
        return failPropertyWith;
    }
    const detail::ServedEvent* impl = BuilderOf(event);
    const PropertyDefinition* property = impl != nullptr ? impl->FindProperty(descriptor) : nullptr;
    if (property == nullptr) {
        return logonmon::etw::kErrorNotFound;
    }
    if (bufferSize < property->value.size()) {
        return logonmon::etw::kErrorInsufficientBuffer;
    }
    if (!property->value.empty()) {
        std::memcpy(buffer, property->value.data(), property->value.size());
    }
    return logonmon::etw::kErrorSuccess;
}

}  // namespace plmx::testing
