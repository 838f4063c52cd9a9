#include "app/LogSettings.h"

#include "app/Settings.h"
#include "diag/NetworkReport.h"
#include "log/LogWriter.h"

namespace {

constexpr wchar_t kFunction[] = L"LogSettings";

}  // namespace

ComputerNames& ComputerNames::Instance() {
    static ComputerNames names;
    return names;
}

void LogSettings([[maybe_unused]] logonmon::SESSION_CONTEXT* session) {
    const Settings& settings = Settings::Instance();
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Log Level: 0x%X: %ws", settings.LogLevel,
               LevelDescription(settings.LogLevel).c_str());
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Log History Depth: %d",
               settings.LogHistoryDepth);
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Log Path: %ws", settings.LogPath.c_str());
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Main Log Path: %ws", MainLogPath().c_str());
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Main Log Max Size: %d", settings.LogMaxSize);
    if (settings.IsFlagOn(FLAG_ENABLE_USER_LOG_FOLDERS)) {
        // Each session's own remote folder is logged when its log is copied.
        LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Remote Log Path: See Below");
    } else {
        LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Remote Log Path: %ws",
                   settings.GetRemoteLogPath(nullptr).c_str());
    }
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Data Dir: %ws", settings.DataDir.c_str());
    const uint32_t flags = settings.Flags | settings.RuntimeFlags;
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Flags: 0x%X: %ws", flags,
               FlagsDescription(flags).c_str());
    const ComputerNames& names = ComputerNames::Instance();
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Computer Name: %ws",
               names.computerName.c_str());
    LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "FQDN: %ws", names.fqdn.c_str());
    LogIpAddresses();
}
