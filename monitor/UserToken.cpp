// Fetching the token of a session's user, which the upload of its log uses
// to write as that user.
#include <cstdint>
#include <optional>
#include <vector>

#include "log/LogWriter.h"
#include "monitor/LogonMonitor.h"

namespace {

constexpr wchar_t kFunction[] = L"LogonMonitor::TryGetUserToken";
// Winlogon creates the token a little after the session; ask again this often.
constexpr DWORD kRetryIntervalMs = 250;

std::optional<logonmon::Sid> TokenUserSid(HANDLE token) {
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    if (size == 0) {
        return std::nullopt;
    }
    std::vector<uint8_t> buffer(size);
    if (!GetTokenInformation(token, TokenUser, buffer.data(), size, &size)) {
        return std::nullopt;
    }
    const PSID sid = reinterpret_cast<const TOKEN_USER*>(buffer.data())->User.Sid;
    if (!IsValidSid(sid)) {
        return std::nullopt;
    }
    return logonmon::Sid::FromBytes(static_cast<const uint8_t*>(sid), GetLengthSid(sid));
}

}  // namespace

bool LogonMonitor::TryGetUserToken(uint32_t sessionId, const std::optional<logonmon::Sid>& userSid,
                                   std::wstring& userName, AccessToken& token, uint32_t timeoutMs) {
    UserTokenApi& api = *seams_.tokens;
    const DWORD started = api.TickCount();
    HANDLE queried = nullptr;
    bool found = api.QueryUserToken(sessionId, &queried);
    while (!found && GetLastError() == ERROR_NO_TOKEN) {
        if (api.TickCount() - started > timeoutMs) {
            LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction,
                       "Failed to get user token, ERROR_NO_TOKEN.  Timeout/retry elapsed.  "
                       "sessionId=%d",
                       sessionId);
            return false;
        }
        api.Sleep(kRetryIntervalMs);
        found = api.QueryUserToken(sessionId, &queried);
    }
    if (!found) {
        const DWORD error = GetLastError();
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction,
                   "Failed to get user token, error %d.  sessionId=%d", static_cast<int>(error),
                   sessionId);
        SetLastError(error);
        queried = nullptr;
    }
    token.Reset(queried);

    const std::optional<logonmon::Sid> tokenSid =
        token ? TokenUserSid(token.Get()) : std::optional<logonmon::Sid>();
    if (!tokenSid || !userSid || !(*tokenSid == *userSid)) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction,
                   "WTSQueryUserToken Failed 0x%X due to SID mismatch. sessionId=%d",
                   static_cast<unsigned>(GetLastError()), sessionId);
        // A token of another user must never carry this session's upload.
        token.Reset();
        return false;
    }

    TOKEN_STATISTICS statistics{};
    DWORD size = 0;
    GetTokenInformation(token.Get(), TokenStatistics, &statistics, sizeof statistics, &size);
    std::wstring name;
    std::wstring domain;
    if (userName.empty() && seams_.processor.accounts->LookupAccount(*tokenSid, &name, &domain)) {
        userName = domain + L"\\" + name;
    }
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Token AuthId: (0x%X,0x%X) ",
               static_cast<unsigned>(statistics.AuthenticationId.HighPart),
               static_cast<unsigned>(statistics.AuthenticationId.LowPart));
    return true;
}
