// Archiving a finished session's log beside the main log, with a bounded
// history, and uploading a copy to the remote log folder as the session's
// user.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "log/AccessToken.h"
#include "log/ArchiveNames.h"
#include "log/Impersonation.h"

struct SessionLog;

// What archiving asks of the system besides files and folders.
struct ArchiveSystem {
    // The user's identity and environment.
    Impersonation& identity = DefaultImpersonation();
    // Read once for each name formed.
    SYSTEMTIME (*localTime)() = &CurrentLocalTime;
};

// One of this computer's archives found in the log folder.
struct ArchivedLog {
    DWORD attributes = 0;
    int64_t lastWriteTime = 0;  // file time
    uint64_t size = 0;
    std::wstring fileName;
};

// Closes the session's log and moves it into a dated archive in the log
// folder, so that at most LogHistoryDepth archives remain, then uploads a copy
// to the remote log folder as `userName` (without domain). A "SYSTEM"
// session's log is deleted instead. Returns 0 or the result code of the
// last failure; a session log file that does not exist is no failure.
uint32_t RollSessionLogFile(SessionLog& sessionLog, uint32_t sessionId,
                            const std::wstring& userName, const AccessToken& userToken,
                            const ArchiveSystem& system = {});

// Copies `sourcePath` into `remoteFolder`, a UNC path, as the token's user,
// never over an existing file. Holds the log lock throughout, so that no
// other thread writes a line while this one impersonates. Returns 0 or a
// result code.
uint32_t UploadLogFile(const std::wstring& userName, uint32_t sessionId,
                       const std::wstring& sourcePath, const std::wstring& remoteFolder,
                       const AccessToken& userToken, const ArchiveSystem& system = {});

// Appends this computer's archives in `logFolder` to `list`, oldest last
// write first. False when the search failed; finding none is no failure.
bool GetArchivedLogs(const std::wstring& logFolder, std::vector<ArchivedLog>& list);

// Both the archive and the upload refuse an empty user name with this line.
inline constexpr char kUsernameInvalidMessage[] = "Username Is Invalid";
