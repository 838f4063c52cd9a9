#include "trace/EventSchema.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "trace/TextForms.h"

namespace logonmon {

namespace {

constexpr size_t kFixedPartSize = offsetof(TRACE_EVENT_INFO, EventPropertyInfoArray);

bool IsEventName(const std::wstring& name) {
    constexpr std::wstring_view kEvent = L"event";
    return name.size() == kEvent.size() &&
           std::equal(name.begin(), name.end(), kEvent.begin(), [](wchar_t a, wchar_t b) {
               return (a >= L'A' && a <= L'Z' ? static_cast<wchar_t>(a + 32) : a) == b;
           });
}

// Only ASCII letters fold, as the narrow tolower does.
wchar_t FoldCase(wchar_t c) {
    return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c + 32) : c;
}

// The keys of `schema` and the slot of each name in them: the first spelling
// of a name is its key, and a later property of the same name writes to the
// same slot.
void LayOutKeys(DecodedSchema& schema) {
    std::vector<std::wstring_view> names;
    if (schema.eventName != nullptr) {
        names.emplace_back(L"name");
    }
    if (schema.relatedName != nullptr) {
        names.emplace_back(L"related");
    }
    for (const DecodedSchema::Property& property : schema.properties) {
        names.emplace_back(property.key);
    }
    for (const std::wstring_view name : names) {
        const auto at =
            std::lower_bound(schema.keys.begin(), schema.keys.end(), name, PropertyNameLess());
        if (at == schema.keys.end() || !SamePropertyName(*at, name)) {
            schema.keys.insert(at, name);
        }
    }
    const auto slotOf = [&schema](std::wstring_view name) {
        return static_cast<size_t>(
            std::lower_bound(schema.keys.begin(), schema.keys.end(), name, PropertyNameLess()) -
            schema.keys.begin());
    };
    schema.eventNameSlot = slotOf(L"name");
    schema.relatedNameSlot = slotOf(L"related");
    for (DecodedSchema::Property& property : schema.properties) {
        property.slot = slotOf(property.key);
    }
}

}  // namespace

EventSchemaBuffer QueryEventSchema(const EVENT_RECORD& record, TdhApi& tdh) {
    EventSchemaBuffer schema;
    uint32_t size = 0;
    if (tdh.GetEventInformation(record, nullptr, &size) != etw::kErrorInsufficientBuffer ||
        size < kFixedPartSize) {
        return schema;
    }
    // operator new aligns the buffer for TRACE_EVENT_INFO.
    auto bytes = std::make_unique<uint8_t[]>(size);
    uint32_t filled = size;
    if (tdh.GetEventInformation(record, reinterpret_cast<TRACE_EVENT_INFO*>(bytes.get()),
                                &filled) != etw::kErrorSuccess) {
        return schema;
    }
    // The answer never describes more than was allocated.
    filled = std::min(filled, size);
    if (filled < kFixedPartSize) {
        return schema;
    }
    schema.bytes = std::move(bytes);
    schema.size = filled;
    return schema;
}

const WCHAR* SchemaText(const EventSchemaBuffer& schema, uint32_t offset) {
    if (schema.bytes == nullptr || offset == 0 || offset % sizeof(WCHAR) != 0 ||
        offset >= schema.size) {
        return nullptr;
    }
    const auto* text = reinterpret_cast<const WCHAR*>(schema.bytes.get() + offset);
    const size_t units = (schema.size - offset) / sizeof(WCHAR);
    return std::find(text, text + units, WCHAR{0}) != text + units ? text : nullptr;
}

uint32_t TopLevelPropertiesInBuffer(const EventSchemaBuffer& schema) {
    if (schema.bytes == nullptr) {
        return 0;
    }
    const size_t fitting = (schema.size - kFixedPartSize) / sizeof(EVENT_PROPERTY_INFO);
    return static_cast<uint32_t>(std::min<size_t>(schema.Info()->TopLevelPropertyCount, fitting));
}

void Trim(std::wstring& text) {
    const auto isWhiteSpace = [](wchar_t c) {
        return c == L' ' ||
               (c >= L'\t' && c <= L'\r');  // tab, new line, vertical tab, form feed, return
    };
    // Most values neither start nor end with white space.
    if (text.empty() || (text.front() > L' ' && text.back() > L' ')) {
        return;
    }
    size_t end = text.size();
    while (end > 0 && isWhiteSpace(text[end - 1])) {
        --end;
    }
    size_t start = 0;
    while (start < end && isWhiteSpace(text[start])) {
        ++start;
    }
    if (end < text.size()) {
        text.erase(end);
    }
    if (start > 0) {
        text.erase(0, start);
    }
}

bool PropertyNameLess::operator()(std::wstring_view left, std::wstring_view right) const {
    return std::lexicographical_compare(
        left.begin(), left.end(), right.begin(), right.end(), [](wchar_t a, wchar_t b) {
            return static_cast<uint32_t>(FoldCase(a)) < static_cast<uint32_t>(FoldCase(b));
        });
}

bool SamePropertyName(std::wstring_view left, std::wstring_view right) {
    return left.size() == right.size() &&
           (left == right ||
            std::equal(left.begin(), left.end(), right.begin(),
                       [](wchar_t a, wchar_t b) { return FoldCase(a) == FoldCase(b); }));
}

DecodedSchema DecodeSchema(EventSchemaBuffer buffer, bool winlogon) {
    DecodedSchema decoded;
    const TRACE_EVENT_INFO& info = *buffer.Info();
    decoded.decodingSource = static_cast<uint32_t>(info.DecodingSource);
    decoded.providerName = WideFromUtf16(SchemaText(buffer, info.ProviderNameOffset));
    decoded.taskName = WideFromUtf16(SchemaText(buffer, info.TaskNameOffset));
    decoded.opcodeName = WideFromUtf16(SchemaText(buffer, info.OpcodeNameOffset));
    Trim(decoded.opcodeName);
    decoded.eventName = SchemaText(buffer, info.ActivityIDNameOffset);
    decoded.eventNameText = WideFromUtf16(decoded.eventName);
    decoded.relatedName = SchemaText(buffer, info.RelatedActivityIDNameOffset);
    decoded.relatedNameText = WideFromUtf16(decoded.relatedName);
    decoded.message = SchemaText(buffer, info.EventMessageOffset);

    // Entries that do not lie inside the buffer are not read.
    const uint32_t count = TopLevelPropertiesInBuffer(buffer);
    decoded.propertyNames.assign(count, nullptr);
    for (uint32_t i = 0; i < count; ++i) {
        const EVENT_PROPERTY_INFO& property = info.EventPropertyInfoArray[i];
        if ((static_cast<uint32_t>(property.Flags) & etw::kPropertyStruct) != 0) {
            continue;
        }
        const WCHAR* name = SchemaText(buffer, property.NameOffset);
        if (name == nullptr) {
            continue;  // a property without a name cannot be asked for
        }
        DecodedSchema::Property& entry = decoded.properties.emplace_back();
        entry.name = name;
        entry.key = WideFromUtf16(name);
        entry.inType = property.nonStructType.InType;
        entry.outType = property.nonStructType.OutType;
        entry.winlogonNotification = winlogon && IsEventName(entry.key);
        decoded.propertyNames[i] = name;
    }
    LayOutKeys(decoded);
    decoded.buffer = std::move(buffer);
    return decoded;
}

}  // namespace logonmon
