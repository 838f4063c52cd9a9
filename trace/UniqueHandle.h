// Owners of Windows handles, each released by its own close function.
#pragma once

#include <windows.h>

#include <memory>

namespace logonmon {

template <auto Close>
struct HandleCloser {
    void operator()(HANDLE handle) const { Close(handle); }
};

// A kernel object handle closed with CloseHandle; null stands for none.
using UniqueHandle = std::unique_ptr<void, HandleCloser<&CloseHandle>>;

}  // namespace logonmon
