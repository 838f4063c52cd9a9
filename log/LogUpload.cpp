#include "app/LogSettings.h"
#include "log/LogLock.h"
#include "log/LogWriter.h"
#include "log/SessionLogArchive.h"
#include "trace/ResultCode.h"
#include "trace/UniqueHandle.h"

namespace {

constexpr wchar_t kFunction[] = L"UploadLogFile";

// The thread's own token is looked at, and closed again, before the user's is
// taken; the upload does not depend on what it finds.
void LookAtThreadToken() {
    HANDLE token = nullptr;
    if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token)) {
        const UniqueHandle owner(token);
    }
}

}  // namespace

uint32_t UploadLogFile(const std::wstring& userName, uint32_t sessionId,
                       const std::wstring& sourcePath, const std::wstring& remoteFolder,
                       const AccessToken& userToken, const ArchiveSystem& system) {
    if (userName.empty()) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, kUsernameInvalidMessage);
        return ResultFromWin32(ERROR_INVALID_PARAMETER);
    }
    if (remoteFolder.empty()) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Remote Log Path Is Empty");
        return ResultFromWin32(ERROR_INVALID_PARAMETER);
    }

    // Held until the thread has reverted: no other thread's line is written
    // under the user's identity.
    const LogLockGuard lock;
    const std::wstring destination =
        UploadDestination(remoteFolder, ComputerNames::Instance().computerName, userName, sessionId,
                          system.localTime());
    if (userToken) {
        LookAtThreadToken();
    }
    // Reverts on every way out, also when a log line below throws.
    const ImpersonationScope impersonation(userToken.Get(), system.identity);
    if (!impersonation.Impersonating()) {
        // The copy is still tried as the service.
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction,
                   "Failed Impersonating: User: %ws, SessionId: %d", userName.c_str(),
                   static_cast<int>(sessionId));
    }
    if (!CopyFileW(sourcePath.c_str(), destination.c_str(), TRUE)) {
        const uint32_t result = ResultFromWin32(GetLastError());
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction,
                   "Failed Uploading Log: Src: %ws, Dest: %ws, 0x%X", sourcePath.c_str(),
                   destination.c_str(), result);
        return result;
    }
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Uploaded Log: Src: %ws, Dest: %ws",
               sourcePath.c_str(), destination.c_str());
    return 0;
}
