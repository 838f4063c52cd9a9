#include "trace/EventSchema.h"

#include <algorithm>
#include <cstddef>

namespace logonmon {

namespace {

constexpr size_t kFixedPartSize = offsetof(TRACE_EVENT_INFO, EventPropertyInfoArray);

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

}  // namespace logonmon
