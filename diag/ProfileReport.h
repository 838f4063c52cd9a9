// The size and make-up of the user's profile folder and the free space on
// its volume, written into the session's log.
#pragma once

#include <cstdint>
#include <string>

#include "log/Impersonation.h"
#include "log/SessionLog.h"

namespace logonmon {
struct SESSION_CONTEXT;
}

// Walks the session's profile folder and its volume into the session log's
// statistics and writes them; nothing when the session has no profile path.
// The volume is queried under the user's identity when the log holds a token.
void LogProfileSize(logonmon::SESSION_CONTEXT& session,
                    Impersonation& impersonation = DefaultImpersonation());

// Adds the files of `folder` and all its subfolders to `statistics`.
// Reparse-point folders (junctions, links) are neither counted nor entered.
void GetProfileSize(const std::wstring& folder, ProfileStatistics& statistics);

// Queries the volume of `path` into `statistics` and writes the disk lines;
// returns 0 or an HRESULT-style code.
uint32_t GetDiskMetrics(logonmon::SESSION_CONTEXT& session, const std::wstring& path,
                        DiskStatistics& statistics,
                        Impersonation& impersonation = DefaultImpersonation());
