// One owner for every kind of operating-system handle: the value and the
// function that releases it, called from the destructor.
#pragma once

#include <windows.h>

#include <utility>

// Owns a `T` released by `Close`; a value-initialised `T` owns nothing.
template <typename T, auto Close>
class UniqueAny {
  public:
    UniqueAny() = default;
    explicit UniqueAny(T value) : value_(value) {}
    ~UniqueAny() { Reset(); }
    UniqueAny(UniqueAny&& other) noexcept : value_(other.Release()) {}
    UniqueAny& operator=(UniqueAny&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    UniqueAny(const UniqueAny&) = delete;
    UniqueAny& operator=(const UniqueAny&) = delete;

    T Get() const { return value_; }
    explicit operator bool() const { return value_ != T{}; }

    // Gives up ownership without releasing.
    T Release() { return std::exchange(value_, T{}); }
    // Releases what is held and takes `value`.
    void Reset(T value = T{}) {
        const T old = std::exchange(value_, value);
        if (old != T{}) {
            Close(old);
        }
    }

  private:
    T value_{};
};

namespace handle_close {
// Calls that hand back INVALID_HANDLE_VALUE for failure leave nothing to close.
inline void CloseHandleIfValid(HANDLE handle) {
    if (handle != INVALID_HANDLE_VALUE) {
        CloseHandle(handle);
    }
}
inline void FindCloseIfValid(HANDLE find) {
    if (find != INVALID_HANDLE_VALUE) {
        FindClose(find);
    }
}
inline void LocalFreeMemory(void* memory) {
    LocalFree(memory);
}
}  // namespace handle_close

// Kernel objects: events, threads, processes, files.
using UniqueHandle = UniqueAny<HANDLE, &handle_close::CloseHandleIfValid>;
// A search opened with FindFirstFileW.
using UniqueFindHandle = UniqueAny<HANDLE, &handle_close::FindCloseIfValid>;
// Memory the system allocated with LocalAlloc for the caller.
using UniqueLocalMemory = UniqueAny<void*, &handle_close::LocalFreeMemory>;
