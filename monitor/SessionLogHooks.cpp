// The monitor's hooks at the start and the end of a logon: the session log is
// opened with the settings, filled with the reports and the summary, then
// closed.
#include <string>

#include "app/LogSettings.h"
#include "app/Settings.h"
#include "log/LogWriter.h"
#include "log/SessionLog.h"
#include "logonmon/SessionContext.h"
#include "monitor/LogonMonitor.h"

namespace {

constexpr wchar_t kOnLogonStartFunction[] = L"LogonMonitor::OnLogonStart";
// How long the end of a logon waits for the user's token.
constexpr uint32_t kLogonEndTokenTimeoutMs = 5000;

std::wstring SessionLogPath(const SessionLog& log, uint32_t sessionId) {
    return Settings::Instance().LogPath + L"plmx_session_" + log.logId + L"_" +
           std::to_wstring(sessionId) + L".txt";
}

}  // namespace

std::wstring LogonMonitor::QualifiedUserName(const logonmon::SESSION_CONTEXT& session) {
    if (session.userName.empty()) {
        return {};
    }
    return session.userDomain + L"\\" + session.userName;
}

void LogonMonitor::OnLogonStart(logonmon::SESSION_CONTEXT& session) {
    const std::shared_ptr<SessionLog> log = SessionLogOf(session);
    if (remoteLogging_) {
        std::wstring userName = QualifiedUserName(session);
        TryGetUserToken(session.sessionId, session.userSid, userName, log->userToken, 0);
    }
    const std::wstring path = SessionLogPath(*log, session.sessionId);
    if (OpenLog(path, *log)) {
        LogMessage(nullptr, LOG_LEVEL_TRACE, kOnLogonStartFunction, "Opened Session Log: %ws",
                   path.c_str());
    }
    LogSettings(&session);
    if (!Settings::Instance().IsFlagOn(FLAG_ENABLE_PROCESS_TIMINGS)) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kOnLogonStartFunction, "Process timings disabled");
    }
    if (!Settings::Instance().IsFlagOn(FLAG_ENABLE_CPU_MEMORY_TIMINGS)) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kOnLogonStartFunction,
                   "Process CPU/memory sampling disabled");
    }
}

void LogonMonitor::OnLogonEnd(logonmon::SESSION_CONTEXT& session) {
    const std::shared_ptr<SessionLog> log = SessionLogOf(session);
    std::wstring userName = QualifiedUserName(session);
    if (remoteLogging_ && !log->userToken) {
        TryGetUserToken(session.sessionId, session.userSid, userName, log->userToken,
                        kLogonEndTokenTimeoutMs);
    }
    LogSummary(session);
    CloseSessionLog(*log);
}
