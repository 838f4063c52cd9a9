#include "trace/PropertyReader.h"

#include <cstring>

namespace logonmon {

PropertyBytes::PropertyBytes(size_t size) : size_(size) {
    if (size >= kInlineSize) {
        heap_ = std::make_unique<uint8_t[]>(size + 1);
    } else {
        std::memset(inline_, 0, size + 1);
    }
}

PropertyReader::PropertyReader(TdhApi& tdh, const EVENT_RECORD& record, const WCHAR* name)
    : tdh_(tdh), record_(record) {
    descriptor_.PropertyName = reinterpret_cast<uintptr_t>(name);
    descriptor_.ArrayIndex = 0;
}

PropertyBytes PropertyReader::ReadAllocated() const {
    uint32_t size = 0;
    if (tdh_.GetPropertySize(record_, descriptor_, &size) != etw::kErrorSuccess) {
        throw std::runtime_error(kGetValueAllocFailed);
    }
    PropertyBytes value(size);
    if (tdh_.GetProperty(record_, descriptor_, size, value.data()) != etw::kErrorSuccess) {
        throw std::runtime_error(kGetValueAllocFailed);
    }
    return value;
}

}  // namespace logonmon
