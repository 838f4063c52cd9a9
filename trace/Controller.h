// The description of one ETW session (name, log file, mode, providers) and
// the operations that start it, enable its providers and stop it.
#pragma once

#include <windows.h>
#include <evntrace.h>

#include <cstdint>
#include <string>
#include <vector>

#include "trace/SessionNames.h"

namespace logonmon {

struct TraceProvider {
    GUID providerId;
    uint32_t enableProperty;
    // Only the low byte reaches EnableTraceEx2.
    uint32_t level;
    // Event-id filter; empty enables every event.
    std::vector<uint16_t> eventIds;
};

class Controller {
  public:
    // An empty description: Start, Stop and AutoLogger::Save refuse it with
    // ERROR_INVALID_PARAMETER.
    Controller() = default;
    // "logonmon_timing", real time, the timing providers.
    static Controller Timing();
    // "logonmon_diag_trace_rt", real time, no providers yet.
    static Controller Diagnostic();
    // The diagnostic session in file mode writing to `path`, with the timing,
    // diagnostic and process providers merged in: what a trace file records.
    static Controller DiagnosticFile(const std::wstring& path);

    // Makes this the file session "logonmon_diag_trace_file": real-time mode
    // off, and `path` as the log file unless it is empty.
    void SwitchToFile(const std::wstring& path);

    // Merges `providers` into the session: a provider already present keeps
    // one entry with the union of both settings.
    void AddProviders(const std::vector<TraceProvider>& providers);
    void AddTimingProviders();
    void AddDiagnosticProviders();
    void AddProcessProviders();

    // Creates the session and enables its providers. Win32 error code;
    // ERROR_ALREADY_EXISTS when a session of this name runs. Throws
    // std::runtime_error for a name of 1,024 characters or more.
    ULONG Start() const;
    // Stops the session of this name. Win32 error code; throws like Start.
    ULONG Stop() const;
    // Enables the providers in order on `session`, stopping at the first
    // failure, whose code is returned.
    ULONG EnableProviders(TRACEHANDLE session) const;

    const std::wstring& SessionName() const { return sessionName_; }
    const std::wstring& LogFileName() const { return logFileName_; }
    const std::wstring& SessionGuid() const { return sessionGuid_; }
    void SetSessionGuid(const std::wstring& guid) { sessionGuid_ = guid; }
    uint32_t FlushTimer() const { return flushTimer_; }
    uint32_t LogFileMode() const { return logFileMode_; }
    uint32_t MaximumFileSize() const { return maximumFileSize_; }
    const std::vector<TraceProvider>& Providers() const { return providers_; }

  private:
    Controller(std::wstring sessionName, std::vector<TraceProvider> providers);

    std::wstring sessionName_;
    std::wstring logFileName_;
    // Braced GUID text, used only by the boot-time registry entry.
    std::wstring sessionGuid_;
    uint32_t flushTimer_ = 0;
    uint32_t logFileMode_ = 0;
    uint32_t maximumFileSize_ = 0;
    std::vector<TraceProvider> providers_;
};

}  // namespace logonmon
