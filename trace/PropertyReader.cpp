#include "trace/PropertyReader.h"

namespace logonmon {

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
    PropertyBytes value;
    value.buffer.assign(size_t{size} + 1, 0);
    if (tdh_.GetProperty(record_, descriptor_, size, value.buffer.data()) != etw::kErrorSuccess) {
        throw std::runtime_error(kGetValueAllocFailed);
    }
    return value;
}

}  // namespace logonmon
