#include "diag/ProfileReport.h"

#include <windows.h>

#include <vector>

#include "log/LogWriter.h"
#include "logonmon/SessionContext.h"
#include "trace/ResultCode.h"
#include "trace/UniqueHandle.h"

namespace {

constexpr wchar_t kReportFunction[] = L"LogProfileSize";
constexpr wchar_t kWalkFunction[] = L"GetProfileSize";

// Upper bounds in MB of all buckets but the last.
constexpr float kBucketBounds[] = {1.0f, 10.0f, 100.0f, 1024.0f, 10240.0f};
constexpr float kBytesToMB = 1.0f / 1048576.0f;

const char* const kBucketLines[] = {
    "  0 to < 1MB: %d",     "  1MB to < 10MB: %d", "  10MB to < 100MB: %d",
    "  100MB to < 1GB: %d", "  1GB to < 10GB: %d", "  >= 10GB: %d",
};
static_assert(std::size(kBucketLines) == std::size(ProfileStatistics{}.sizeBuckets));

std::wstring WithSeparator(const std::wstring& folder) {
    return folder.back() == L'\\' ? folder : folder + L'\\';
}

void AddFile(const WIN32_FIND_DATAW& entry, ProfileStatistics& statistics) {
    const uint64_t bytes = (uint64_t(entry.nFileSizeHigh) << 32) | entry.nFileSizeLow;
    const float sizeMB = static_cast<float>(bytes) * kBytesToMB;
    ++statistics.files;
    statistics.sizeMB += sizeMB;
    size_t bucket = 0;
    while (bucket < std::size(kBucketBounds) && sizeMB >= kBucketBounds[bucket]) {
        ++bucket;
    }
    ++statistics.sizeBuckets[bucket];
}

bool IsDotEntry(const wchar_t* name) {
    return lstrcmpiW(name, L".") == 0 || lstrcmpiW(name, L"..") == 0;
}

// One folder being searched: its path with a trailing separator and its
// open search.
struct Level {
    std::wstring folder;
    UniqueFindHandle search;
};

// Starts the search of `folder`, its first entry in `entry`; false (logged)
// when it cannot start.
bool Enter(const std::wstring& folder, std::vector<Level>& levels, WIN32_FIND_DATAW& entry) {
    std::wstring withSeparator = WithSeparator(folder);
    const std::wstring pattern = withSeparator + L'*';
    const HANDLE search = FindFirstFileW(pattern.c_str(), &entry);
    if (search == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        LogMessage(nullptr, LOG_LEVEL_ERROR, kWalkFunction, "FindFirstFile Failed: Path: %ws, 0x%X",
                   pattern.c_str(), ResultFromWin32(error));
        return false;
    }
    levels.push_back({std::move(withSeparator), UniqueFindHandle(search)});
    return true;
}

}  // namespace

// Depth-first with one open search per level on an explicit stack, so that a
// deep profile cannot overflow the thread's stack.
void GetProfileSize(const std::wstring& folder, ProfileStatistics& statistics) {
    if (folder.empty()) {
        return;
    }
    std::vector<Level> levels;
    WIN32_FIND_DATAW entry;
    if (!Enter(folder, levels, entry)) {
        return;
    }
    for (;;) {
        // `entry` is the next unvisited entry of the innermost level.
        bool entered = false;
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            AddFile(entry, statistics);
        } else if ((entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0 &&
                   !IsDotEntry(entry.cFileName)) {
            ++statistics.folders;
            entered = Enter(levels.back().folder + entry.cFileName, levels, entry);
        }
        if (entered) {
            continue;
        }
        while (!levels.empty() && !FindNextFileW(levels.back().search.Get(), &entry)) {
            levels.pop_back();
        }
        if (levels.empty()) {
            return;
        }
    }
}

void LogProfileSize(logonmon::SESSION_CONTEXT& session, Impersonation& impersonation) {
    if (session.localProfilePath.empty()) {
        return;
    }
    const std::shared_ptr<SessionLog> log = SessionLogOf(session);
    ProfileStatistics& profile = log->profile;
    GetProfileSize(session.localProfilePath, profile);
    LogMessage(nullptr, LOG_LEVEL_INFO, kReportFunction,
               "Profile Size: %.2fMB, Files: %d, Folders: %d. sessionId=%d", profile.sizeMB,
               profile.files, profile.folders, session.sessionId);
    LogMessage(nullptr, LOG_LEVEL_INFO, kReportFunction,
               "File Size Distribution For sessionId=%d:", session.sessionId);
    for (size_t i = 0; i < std::size(kBucketLines); ++i) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kReportFunction, kBucketLines[i],
                   profile.sizeBuckets[i]);
    }
    GetDiskMetrics(session, session.localProfilePath, log->disk, impersonation);
}
