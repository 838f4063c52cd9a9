// Owns one operating-system resource whose kind is given by its traits: the
// value type, the value that means "none" and the call that releases it.
//
//   struct FindTraits {
//       using Value = HANDLE;
//       static Value None() { return INVALID_HANDLE_VALUE; }
//       static void Close(Value value) { FindClose(value); }
//   };
//   using UniqueFind = UniqueAny<FindTraits>;
#pragma once

#include <utility>

template <typename Traits>
class UniqueAny {
  public:
    using Value = typename Traits::Value;

    UniqueAny() = default;
    explicit UniqueAny(Value value) : value_(value) {}
    ~UniqueAny() { Reset(); }
    UniqueAny(UniqueAny&& other) noexcept : value_(std::exchange(other.value_, Traits::None())) {}
    UniqueAny& operator=(UniqueAny&& other) noexcept {
        if (this != &other) {
            Reset(std::exchange(other.value_, Traits::None()));
        }
        return *this;
    }
    UniqueAny(const UniqueAny&) = delete;
    UniqueAny& operator=(const UniqueAny&) = delete;

    Value Get() const { return value_; }
    explicit operator bool() const { return value_ != Traits::None(); }

    // Releases the resource held before and takes `value`.
    void Reset(Value value = Traits::None()) {
        if (value_ != Traits::None()) {
            Traits::Close(value_);
        }
        value_ = value;
    }

  private:
    Value value_ = Traits::None();
};
