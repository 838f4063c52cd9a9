#include <windows.h>

#include "trace/SchemaFallback.h"
#include "trace/UnsupportedTdh.h"

namespace logonmon {

namespace {

// Wine's ntdll exports its version; Windows' does not.
bool RunningUnderWine() {
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

}  // namespace

TdhApi& SchemaFallbackTdh() {
    static TdhApi& fallback = RunningUnderWine() ? UnsupportedTdh() : DefaultTdh();
    return fallback;
}

}  // namespace logonmon
