#include "trace/FileTrace.h"

#include <exception>

#include "log/LogWriter.h"
#include "trace/AutoLogger.h"
#include "trace/Controller.h"

using logonmon::AutoLogger;
using logonmon::Controller;

namespace {

constexpr wchar_t kStartFunction[] = L"StartFileTrace";
constexpr wchar_t kStopFunction[] = L"StopFileTrace";
constexpr wchar_t kFileSessionGuid[] = L"{75CE81CB-823D-4EEF-9B6B-9CB47276A6AF}";
constexpr char kDeleteFailed[] = "logonmon::AutoLogger::Delete failed, ret = %d";

// The diagnostic session in file mode with every provider list merged in.
Controller FileSession(const std::wstring& path) {
    Controller session = Controller::Diagnostic();
    session.SwitchToFile(path);
    session.AddTimingProviders();
    session.AddDiagnosticProviders();
    session.AddProcessProviders();
    return session;
}

// A boot entry whose session did not start now would not start at boot
// either.
void RemoveBootEntry(const Controller& session) {
    const LSTATUS deleted = AutoLogger::Delete(session.SessionName());
    if (deleted != ERROR_SUCCESS) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kStartFunction, kDeleteFailed,
                   static_cast<int>(deleted));
    }
}

}  // namespace

ULONG StartFileTrace(const std::wstring& path, bool persistent) {
    Controller session = FileSession(path);
    if (persistent) {
        session.SetSessionGuid(kFileSessionGuid);
        const LSTATUS saved = AutoLogger::Save(session);
        if (saved != ERROR_SUCCESS) {
            LogMessage(nullptr, LOG_LEVEL_ERROR, kStartFunction,
                       "logonmon::AutoLogger::Save failed, ret = %d", static_cast<int>(saved));
            return static_cast<ULONG>(saved);
        }
        // At error level like the failure, so that a log limited to errors
        // still shows that a boot entry now exists.
        LogMessage(nullptr, LOG_LEVEL_ERROR, kStartFunction,
                   "Persistent trace session AutoLogger saved in registry");
    }
    ULONG started;
    try {
        started = session.Start();
    } catch (const std::exception&) {
        if (persistent) {
            RemoveBootEntry(session);
        }
        throw;
    }
    if (started == ERROR_SUCCESS) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kStartFunction, "Tracing to %ws succeeded.",
                   path.c_str());
    } else if (persistent) {
        RemoveBootEntry(session);
    }
    return started;
}

ULONG StopFileTrace(bool persistent) {
    const Controller session = FileSession(std::wstring());
    if (persistent) {
        const LSTATUS deleted = AutoLogger::Delete(session.SessionName());
        if (deleted != ERROR_SUCCESS) {
            LogMessage(nullptr, LOG_LEVEL_ERROR, kStopFunction, kDeleteFailed,
                       static_cast<int>(deleted));
        } else {
            LogMessage(nullptr, LOG_LEVEL_INFO, kStopFunction,
                       "logonmon::AutoLogger::Delete succeeded");
        }
    }
    const ULONG stopped = session.Stop();
    if (stopped != ERROR_SUCCESS) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kStopFunction,
                   "logonmon::Controller::Stop failed, ret = %d", static_cast<int>(stopped));
    } else {
        LogMessage(nullptr, LOG_LEVEL_INFO, kStopFunction, "logonmon::Controller::Stop succeeded");
    }
    return stopped;
}
