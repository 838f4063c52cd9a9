// Reads one top-level property of an event through TDH, by name.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "trace/EtwTypes.h"
#include "trace/TdhApi.h"

namespace logonmon {

inline constexpr char kGetValueFailed[] = "GetValue failed";
inline constexpr char kGetValueAllocFailed[] = "GetValueAlloc failed";

// A property's bytes as TDH gave them, followed by one zero byte so that
// narrow text is always terminated.
struct PropertyBytes {
    std::vector<uint8_t> buffer;

    const uint8_t* data() const { return buffer.data(); }
    size_t size() const { return buffer.size() - 1; }
};

class PropertyReader {
  public:
    PropertyReader(TdhApi& tdh, const EVENT_RECORD& record, const WCHAR* name);

    // Values of at most sizeof(T) bytes; throws kGetValueFailed otherwise.
    template <typename T>
    T ReadFixed() const {
        uint32_t size = 0;
        if (tdh_.GetPropertySize(record_, descriptor_, &size) != etw::kErrorSuccess ||
            size > sizeof(T)) {
            throw std::runtime_error(kGetValueFailed);
        }
        T value{};
        if (tdh_.GetProperty(record_, descriptor_, sizeof(T), reinterpret_cast<uint8_t*>(&value)) !=
            etw::kErrorSuccess) {
            throw std::runtime_error(kGetValueFailed);
        }
        return value;
    }

    // Values of any size; throws kGetValueAllocFailed when TDH cannot give it.
    PropertyBytes ReadAllocated() const;

  private:
    TdhApi& tdh_;
    const EVENT_RECORD& record_;
    PROPERTY_DATA_DESCRIPTOR descriptor_{};
};

}  // namespace logonmon
