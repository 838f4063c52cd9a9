// Full memory dumps of the own process, written into the data folder.
#pragma once

#include <windows.h>

// The dump is taken for an exception: without exception pointers none is
// written.
inline constexpr int kDumpReasonException = 1;

// Writes a dump for `pointers` (which may be null), after purging dumps of
// the older naming scheme. Failures are logged. Returns 1.
int NRVGenerateDumpEx(EXCEPTION_POINTERS* pointers, int reason);
