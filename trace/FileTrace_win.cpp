#include "trace/FileTrace.h"

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

// Removes the boot entry just saved unless disarmed, also when starting
// throws: an entry whose session did not start now would not start at boot
// either.
class BootEntryRollBack {
  public:
    explicit BootEntryRollBack(const std::wstring& sessionName) : sessionName_(sessionName) {}
    ~BootEntryRollBack() {
        if (!armed_) {
            return;
        }
        const LSTATUS deleted = AutoLogger::Delete(sessionName_);
        if (deleted != ERROR_SUCCESS) {
            LogMessage(nullptr, LOG_LEVEL_ERROR, kStartFunction, kDeleteFailed,
                       static_cast<int>(deleted));
        }
    }
    BootEntryRollBack(const BootEntryRollBack&) = delete;
    BootEntryRollBack& operator=(const BootEntryRollBack&) = delete;

    void Arm() { armed_ = true; }
    void Disarm() { armed_ = false; }

  private:
    const std::wstring& sessionName_;
    bool armed_ = false;
};

}  // namespace

ULONG StartFileTrace(const std::wstring& path, bool persistent) {
    Controller session = Controller::DiagnosticFile(path);
    BootEntryRollBack rollBack(session.SessionName());
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
        rollBack.Arm();
    }
    const ULONG started = session.Start();
    if (started == ERROR_SUCCESS) {
        rollBack.Disarm();
        LogMessage(nullptr, LOG_LEVEL_INFO, kStartFunction, "Tracing to %ws succeeded.",
                   path.c_str());
    }
    return started;
}

ULONG StopFileTrace(bool persistent) {
    const Controller session = Controller::DiagnosticFile(std::wstring());
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
