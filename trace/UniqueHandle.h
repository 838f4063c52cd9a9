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

// Files, whose creation reports failure as INVALID_HANDLE_VALUE.
struct FileHandleTraits {
    using Value = HANDLE;
    static Value None() { return INVALID_HANDLE_VALUE; }
    static void Close(Value value) { CloseHandle(value); }
};
using UniqueFileHandle = UniqueAny<FileHandleTraits>;

// A search opened with FindFirstFileW.
struct FindHandleTraits {
    using Value = HANDLE;
    static Value None() { return INVALID_HANDLE_VALUE; }
    static void Close(Value value) { FindClose(value); }
};
using UniqueFindHandle = UniqueAny<FindHandleTraits>;

// Memory the system allocated with LocalAlloc for the caller.
struct LocalMemoryTraits {
    using Value = void*;
    static Value None() { return nullptr; }
    static void Close(Value value) { LocalFree(value); }
};
using UniqueLocalMemory = UniqueAny<LocalMemoryTraits>;
