#include <windows.h>

#include "diag/ProfileReport.h"
#include "log/LogWriter.h"
#include "logonmon/SessionContext.h"
#include "trace/ResultCode.h"

namespace {

constexpr wchar_t kFunction[] = L"GetDiskMetrics";

uint64_t GB(uint64_t bytes) {
    return bytes >> 30;
}

}  // namespace

uint32_t GetDiskMetrics(logonmon::SESSION_CONTEXT& session, const std::wstring& path,
                        DiskStatistics& statistics, Impersonation& impersonation) {
    const std::shared_ptr<SessionLog> log = SessionLogOf(session);
    if (path.empty()) {
        return ResultFromWin32(ERROR_INVALID_PARAMETER);
    }
    // The space available to the user reflects the user's quota; without the
    // user's identity the query runs as the service.
    const ImpersonationScope user(log->userToken.Get(), impersonation);
    if (!log->userToken) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kFunction,
                   "No user token available.  Collecting user-independent free disk space "
                   "metrics.");
    }
    ULARGE_INTEGER available{}, total{}, free{};
    if (!GetDiskFreeSpaceExW(path.c_str(), &available, &total, &free)) {
        const uint32_t result = ResultFromWin32(GetLastError());
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Failed Retreiving Disk Metrics: %ws, 0x%X",
                   path.c_str(), result);
        return result;
    }
    statistics = {available.QuadPart, total.QuadPart, free.QuadPart};
    LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "Disk Space Metrics For User Profile Volume:");
    LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "Disk Space Available To User: %I64u GB",
               GB(statistics.bytesAvailableToUser));
    LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "Free Disk Space: %I64u GB",
               GB(statistics.freeBytes));
    LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "Total Disk Space: %I64u GB",
               GB(statistics.totalBytes));
    return 0;
}
