// Reads one top-level property of an event through TDH, by name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include "trace/EtwTypes.h"
#include "trace/TdhApi.h"

namespace logonmon {

inline constexpr char kGetValueFailed[] = "GetValue failed";
inline constexpr char kGetValueAllocFailed[] = "GetValueAlloc failed";

// A property's bytes as TDH gave them, followed by one zero byte so that
// narrow text is always terminated. Short values, the usual ones, need no
// allocation.
class PropertyBytes {
  public:
    // `size` zero bytes, then the terminating one.
    explicit PropertyBytes(size_t size);

    uint8_t* data() { return heap_ ? heap_.get() : inline_; }
    const uint8_t* data() const { return heap_ ? heap_.get() : inline_; }
    size_t size() const { return size_; }

  private:
    static constexpr size_t kInlineSize = 256;

    size_t size_;
    // Aligned for any unit the value is read as.
    alignas(std::max_align_t) uint8_t inline_[kInlineSize];
    std::unique_ptr<uint8_t[]> heap_;
};

class PropertyReader {
  public:
    PropertyReader(TdhApi& tdh, const EVENT_RECORD& record, const WCHAR* name);

    // Values of at most sizeof(T) bytes; throws kGetValueFailed otherwise.
    // TDH refuses a buffer too small for the value, so no size query is
    // needed first; a shorter value leaves the rest zero.
    template <typename T>
    T ReadFixed() const {
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
