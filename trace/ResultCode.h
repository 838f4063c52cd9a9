// The result code shown for a Win32 error in log lines and returned by
// operations that report results rather than raw errors.
#pragma once

#include <cstdint>

// 0 and values negative as signed 32-bit numbers stand as they are; any
// other error e becomes (e & 0xFFFF) | 0x80070000.
constexpr uint32_t ResultFromWin32(uint32_t error) {
    if (static_cast<int32_t>(error) <= 0) {
        return error;
    }
    return (error & 0xFFFF) | 0x80070000u;
}
