// One owner for every kind of system handle: a traits type names the value
// that means "none" and the call that closes it.
#pragma once

#include <windows.h>

#include <utility>

template <typename Traits>
class UniqueAny {
  public:
    using Value = typename Traits::Value;

    UniqueAny() = default;
    explicit UniqueAny(Value value) : value_(value) {}
    ~UniqueAny() { Reset(); }
    UniqueAny(UniqueAny&& other) noexcept : value_(other.Release()) {}
    UniqueAny& operator=(UniqueAny&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    UniqueAny(const UniqueAny&) = delete;
    UniqueAny& operator=(const UniqueAny&) = delete;

    Value Get() const { return value_; }
    explicit operator bool() const { return value_ != Traits::None(); }

    // Closes the value held before, if any, and holds `value`.
    void Reset(Value value = Traits::None()) {
        if (value_ != Traits::None()) {
            Traits::Close(value_);
        }
        value_ = value;
    }
    Value Release() { return std::exchange(value_, Traits::None()); }

  private:
    Value value_ = Traits::None();
};

// Kernel objects that report failure as null: threads, events, tokens.
struct KernelHandleTraits {
    using Value = HANDLE;
    static Value None() { return nullptr; }
    static void Close(Value value) { CloseHandle(value); }
};
using UniqueHandle = UniqueAny<KernelHandleTraits>;
