#include "log/SessionLogArchive.h"

#include <algorithm>
#include <cstdio>

#include "app/LogSettings.h"
#include "app/Settings.h"
#include "log/LogWriter.h"
#include "log/SessionLog.h"
#include "trace/ResultCode.h"
#include "trace/UniqueHandle.h"

namespace {

constexpr wchar_t kFunction[] = L"RollSessionLogFile";
// Its sessions' logs are not kept.
constexpr wchar_t kSystemUser[] = L"SYSTEM";
// Where the log goes when the archives cannot be searched.
constexpr wchar_t kFallbackSuffix[] = L".bak";

bool FileExists(const std::wstring& path) {
    const UniqueHandle file(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, 0, nullptr));
    return file.Get() != INVALID_HANDLE_VALUE;
}

// Makes room for one more archive so that at most `depth` remain; the
// fallback goes once the history is nearly full. Returns the result of the
// last failed deletion, which is not logged.
uint32_t PruneArchives(const std::vector<ArchivedLog>& archives, uint32_t depth,
                       const std::wstring& logFolder, const std::wstring& fallback) {
    const int64_t found = static_cast<int64_t>(archives.size());
    const int64_t kept = depth;
    if (found >= kept - 1) {
        DeleteFileW(fallback.c_str());
    }
    uint32_t result = 0;
    const int64_t excess = std::min(found, found - kept + 1);
    for (int64_t oldest = 0; oldest < excess; ++oldest) {
        if (!DeleteFileW((logFolder + archives[oldest].fileName).c_str())) {
            result = ResultFromWin32(GetLastError());
        }
    }
    return result;
}

// Only the thread that finishes the session writes to its log by now, so the
// stream is closed without the log lock; later lines of the session go to the
// main log.
void CloseStream(SessionLog& sessionLog) {
    if (sessionLog.stream != nullptr) {
        fclose(sessionLog.stream);
        sessionLog.stream = nullptr;
    }
}

// The file's size, or the result code of the failed query.
uint32_t QueryFileSize(const std::wstring& path, uint64_t* size) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) {
        return ResultFromWin32(GetLastError());
    }
    *size = (uint64_t{data.nFileSizeHigh} << 32) | data.nFileSizeLow;
    return 0;
}

}  // namespace

uint32_t RollSessionLogFile(SessionLog& sessionLog, uint32_t sessionId,
                            const std::wstring& userName, const AccessToken& userToken,
                            const ArchiveSystem& system) {
    if (userName.empty()) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, kUsernameInvalidMessage);
        return ResultFromWin32(ERROR_INVALID_PARAMETER);
    }
    const std::wstring sessionPath = sessionLog.path;
    if (sessionPath.empty()) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Source Log Path Is Empty");
        return ResultFromWin32(ERROR_INVALID_PARAMETER);
    }
    if (!FileExists(sessionPath)) {
        return 0;
    }

    const Settings& settings = Settings::Instance();
    const std::wstring fallback = sessionPath + kFallbackSuffix;
    std::wstring destination = fallback;
    uint32_t result = 0;
    std::vector<ArchivedLog> archives;
    if (GetArchivedLogs(settings.LogPath, archives)) {
        destination = ArchiveName(settings.LogPath, ComputerNames::Instance().computerName,
                                  userName, system.localTime());
        result = PruneArchives(archives, settings.LogHistoryDepth, settings.LogPath, fallback);
    }

    CloseStream(sessionLog);
    if (userName == kSystemUser) {
        if (!DeleteFileW(sessionPath.c_str())) {
            result = ResultFromWin32(GetLastError());
            LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction,
                       "Failed to delete SYSTEM session Log: Src: %ws, 0x%X", sessionPath.c_str(),
                       result);
        }
        return result;
    }
    if (!MoveFileExW(sessionPath.c_str(), destination.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED)) {
        result = ResultFromWin32(GetLastError());
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction,
                   "Failed Renaming Logon Log: Src: %ws, Dest: %ws, 0x%X", sessionPath.c_str(),
                   destination.c_str(), result);
        return result;
    }

    uint64_t size = 0;
    const uint32_t sizeResult = QueryFileSize(destination, &size);
    if (sizeResult != 0 || size < 1) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction,
                   "Log File Was Empty: Path: %ws, HRESULT: 0x%X, Size: %d", sessionPath.c_str(),
                   sizeResult, static_cast<int>(size));
        return sizeResult != 0 ? sizeResult : result;
    }

    // Per-user remote folders take the user's environment.
    const HANDLE environmentToken =
        settings.IsFlagOn(FLAG_ENABLE_USER_LOG_FOLDERS) ? userToken.Get() : nullptr;
    const std::wstring remoteFolder = settings.GetRemoteLogPath(environmentToken, system.identity);
    if (remoteFolder.empty()) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kFunction,
                   "Upload is disabled because RemoteLogPath is blank: Src: %ws",
                   sessionPath.c_str());
        return result;
    }
    const uint32_t uploaded =
        UploadLogFile(userName, sessionId, destination, remoteFolder, userToken, system);
    if (static_cast<int32_t>(uploaded) < 0) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction,
                   "Failed Uploading Log File: Src: %ws, Dest: %ws, 0x%X", sessionPath.c_str(),
                   remoteFolder.c_str(), uploaded);
        return uploaded;
    }
    return result;
}
