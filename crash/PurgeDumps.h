// Removal of old crash dumps.
#pragma once

#include <cstdint>
#include <string>

// Matches dumps of an older naming scheme only, never the names written now,
// so that dumps of this program are kept.
inline constexpr wchar_t kDumpPurgePattern[] = L"NRVLOGONSERVICE_MINIDUMP*.dmp";

// Deletes every file and empty folder in `folder` that matches `pattern`,
// read-only ones too. Returns 0 or the result code of the failed search.
uint32_t NRVPurgeDumps(const std::wstring& folder, const wchar_t* pattern);
