#include "tests/support/EventBuilder.h"

#include <algorithm>
#include <cstddef>
#include <cwchar>
#include <stdexcept>

#include "trace/Sid.h"

namespace plmx::testing {

namespace {

using namespace logonmon::etw;

constexpr size_t kArrayOffset = offsetof(TRACE_EVENT_INFO, EventPropertyInfoArray);

const EventBuilder::Served* ServedFor(const EVENT_RECORD& event) {
    const auto* served = static_cast<const EventBuilder::Served*>(event.UserContext);
    return served != nullptr && served->magic == EventBuilder::Served::kMagic ? served : nullptr;
}

// Compared unit by unit: looking up a property allocates nothing.
const PropertyDefinition* FindProperty(const EVENT_RECORD& event,
                                       const PROPERTY_DATA_DESCRIPTOR& descriptor) {
    const EventBuilder::Served* served = ServedFor(event);
    const auto* name = reinterpret_cast<const WCHAR*>(uintptr_t{descriptor.PropertyName});
    if (served == nullptr || name == nullptr) {
        return nullptr;
    }
    const auto found = std::find_if(
        served->properties.begin(), served->properties.end(), [name](const PropertyDefinition& p) {
            return !p.isStruct &&
                   std::equal(p.name.begin(), p.name.end(), name,
                              [](wchar_t a, WCHAR b) { return a == static_cast<wchar_t>(b); }) &&
                   name[p.name.size()] == 0;
        });
    return found != served->properties.end() ? &*found : nullptr;
}

// The property a size query just found on this thread: the value query that
// follows it, for the same event and name, takes it without searching again.
struct SizedProperty {
    const FakeTdh* tdh = nullptr;
    const EVENT_RECORD* event = nullptr;
    uint64_t name = 0;
    const PropertyDefinition* property = nullptr;
};
thread_local SizedProperty lastSized;

// The answer to a property query, before the value is handed over.
uint32_t PropertyStatus(const PropertyDefinition* property, uint32_t failWith) {
    return failWith != 0 ? failWith : property == nullptr ? kErrorNotFound : kErrorSuccess;
}

}  // namespace

std::vector<uint8_t> Utf16Bytes(const std::wstring& text) {
    const std::u16string units(text.begin(), text.end());  // test texts lie in the BMP
    const auto* bytes = reinterpret_cast<const uint8_t*>(units.c_str());
    return {bytes, bytes + 2 * (units.size() + 1)};
}

std::vector<uint8_t> SidBytes(const std::wstring& sidText) {
    const logonmon::Sid sid = logonmon::Sid::FromString(sidText).value();
    return {sid.Bytes().begin(), sid.Bytes().end()};
}

GUID GuidFromText(const std::wstring& text) {
    unsigned p[11] = {};
    if (std::swscanf(text.c_str() + (text.starts_with(L"{") ? 1 : 0),
                     L"%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x", &p[0], &p[1], &p[2], &p[3], &p[4],
                     &p[5], &p[6], &p[7], &p[8], &p[9], &p[10]) != 11) {
        throw std::invalid_argument("not a GUID");
    }
    GUID guid{p[0], static_cast<uint16_t>(p[1]), static_cast<uint16_t>(p[2]), {}};
    std::copy(p + 3, p + 11, guid.Data4);
    return guid;
}

EventBuilder& EventBuilder::Property(PropertyDefinition property) {
    hasSchema_ = true;
    served_.properties.push_back(std::move(property));
    return *this;
}

EventBuilder& EventBuilder::SchemaName(SchemaSlot slot, const std::wstring& text) {
    hasSchema_ = true;
    names_[slot] = text;
    return *this;
}

// The fixed part, the property entries, then every text.
void EventBuilder::BuildSchema() {
    const std::vector<PropertyDefinition>& properties = served_.properties;
    std::vector<uint8_t>& schema = served_.schema;
    schema.assign(
        kArrayOffset + std::max<size_t>(properties.size(), 1) * sizeof(EVENT_PROPERTY_INFO), 0);
    auto addText = [&schema](const std::optional<std::wstring>& text) {
        const auto offset = static_cast<uint32_t>(text ? schema.size() : 0);
        const std::vector<uint8_t> bytes = text ? Utf16Bytes(*text) : std::vector<uint8_t>();
        schema.insert(schema.end(), bytes.begin(), bytes.end());
        return offset;
    };
    TRACE_EVENT_INFO info{};
    info.ProviderGuid = header_.ProviderId;
    info.EventDescriptor = header_.EventDescriptor;
    info.DecodingSource = static_cast<decltype(info.DecodingSource)>(decodingSource_);
    info.ProviderNameOffset = addText(names_[kProvider]);
    info.TaskNameOffset = addText(names_[kTask]);
    info.OpcodeNameOffset = addText(names_[kOpcode]);
    info.EventMessageOffset = addText(names_[kMessage]);
    info.ActivityIDNameOffset = addText(names_[kEvent]);
    info.RelatedActivityIDNameOffset = addText(names_[kRelated]);
    info.PropertyCount = info.TopLevelPropertyCount = static_cast<uint32_t>(properties.size());
    std::memcpy(schema.data(), &info, kArrayOffset);
    for (size_t i = 0; i < properties.size(); ++i) {
        const PropertyDefinition& property = properties[i];
        EVENT_PROPERTY_INFO entry{};
        entry.Flags = static_cast<decltype(entry.Flags)>(property.isStruct ? kPropertyStruct : 0);
        entry.NameOffset = addText(property.name);
        entry.nonStructType.InType = property.isStruct ? 0 : property.inType;
        entry.nonStructType.OutType = property.isStruct ? 0 : property.outType;
        entry.count = 1;
        entry.length = static_cast<uint16_t>(std::min<size_t>(property.value.size(), UINT16_MAX));
        std::memcpy(schema.data() + kArrayOffset + i * sizeof entry, &entry, sizeof entry);
    }
}

const EVENT_RECORD& EventBuilder::Record() {
    items_.clear();
    for (const auto& [type, data] : extendedItems_) {
        EVENT_HEADER_EXTENDED_DATA_ITEM& item = items_.emplace_back();
        item.ExtType = type;
        item.DataSize = static_cast<uint16_t>(data.size());
        item.DataPtr = data.empty() ? 0 : reinterpret_cast<uintptr_t>(data.data());
    }
    userData_.clear();
    for (const PropertyDefinition& property : served_.properties) {
        userData_.insert(userData_.end(), property.value.begin(), property.value.end());
    }
    userData_ = payload_.value_or(std::move(userData_));
    served_.schema.clear();
    if (hasSchema_) {
        BuildSchema();
    }
    record_ = EVENT_RECORD{};
    record_.EventHeader = header_;
    record_.EventHeader.Flags |= items_.empty() ? 0 : 0x0001;  // EVENT_HEADER_FLAG_EXTENDED_INFO
    record_.ExtendedDataCount = static_cast<uint16_t>(items_.size());
    record_.ExtendedData = items_.empty() ? nullptr : items_.data();
    record_.UserDataLength = static_cast<uint16_t>(userData_.size());
    record_.UserData = userData_.empty() ? nullptr : userData_.data();
    record_.UserContext = &served_;
    return record_;
}

uint32_t FakeTdh::GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                      uint32_t* bufferSize) {
    const EventBuilder::Served* served = ServedFor(event);
    if (served == nullptr || served->schema.empty()) {
        return kErrorNotFound;
    }
    const bool fits = buffer != nullptr && *bufferSize >= served->schema.size();
    *bufferSize = static_cast<uint32_t>(served->schema.size());
    if (fits) {
        std::memcpy(buffer, served->schema.data(), served->schema.size());
    }
    return fits ? kErrorSuccess : kErrorInsufficientBuffer;
}

uint32_t FakeTdh::GetPropertySize(const EVENT_RECORD& event,
                                  const PROPERTY_DATA_DESCRIPTOR& descriptor,
                                  uint32_t* propertySize) {
    const PropertyDefinition* property = FindProperty(event, descriptor);
    lastSized = {this, &event, descriptor.PropertyName, property};
    const uint32_t status = PropertyStatus(property, failPropertySizeWith);
    if (status == kErrorSuccess) {
        *propertySize = static_cast<uint32_t>(property->value.size());
    }
    return status;
}

uint32_t FakeTdh::GetProperty(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                              uint32_t bufferSize, uint8_t* buffer) {
    const bool sized = lastSized.tdh == this && lastSized.event == &event &&
                       lastSized.name == descriptor.PropertyName;
    const PropertyDefinition* property =
        sized ? lastSized.property : FindProperty(event, descriptor);
    lastSized = {};
    uint32_t status = PropertyStatus(property, failPropertyWith);
    if (status == kErrorSuccess && bufferSize < property->value.size()) {
        status = kErrorInsufficientBuffer;
    } else if (status == kErrorSuccess) {
        std::copy(property->value.begin(), property->value.end(), buffer);
    }
    return status;
}

}  // namespace plmx::testing
