// The logon processor fitted to this machine: consumes the live trace
// sessions or a trace file, opens and closes the session logs, fetches the
// users' tokens and writes the reports around each session's summary.
#pragma once

#include <windows.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "log/AccessToken.h"
#include "logonmon/LogonProcessor.h"
#include "monitor/PdhApi.h"
#include "monitor/PerfCounters.h"
#include "monitor/TraceSessionRunner.h"
#include "monitor/UserTokenApi.h"
#include "trace/EtwConsumeApi.h"
#include "trace/SchemaFallback.h"
#include "trace/Sid.h"
#include "trace/TdhApi.h"

// The system bindings the monitor uses; tests replace them.
struct MonitorServices {
    logonmon::ProcessorServices processor;
    logonmon::EtwConsumeApi* consume = &logonmon::SystemEtwConsume();
    UserTokenApi* tokens = &SystemUserTokenApi();
    PdhApi* pdh = &DefaultPdh();
    // The system's event decoder for traces the system reads; none under Wine.
    logonmon::TdhApi* tdh = &logonmon::SchemaFallbackTdh();
};

class LogonMonitor : public logonmon::LogonProcessor {
  public:
    LogonMonitor();
    explicit LogonMonitor(const MonitorServices& services);
    ~LogonMonitor() override;

    // Consumes the timing session, and the diagnostic session when process
    // timings or the diagnostic trace are on, until `stopEvent` is signalled
    // or a consumer ends.
    void RunRealTime(HANDLE stopEvent);
    // Processes a saved trace on this thread and finishes every session
    // still open at its end.
    void RunFile(const std::wstring& path);
    // The consumers' callback for every record; an event whose handling
    // throws is logged and dropped.
    void PreHandleEventRecord(const EVENT_RECORD* eventRecord);

    // Fetches the session user's token into `token`, retrying while the
    // user has none yet for up to `timeoutMs`; fills an empty `userName`
    // with the token user's "domain\name".
    bool TryGetUserToken(uint32_t sessionId, const std::optional<logonmon::Sid>& userSid,
                         std::wstring& userName, AccessToken& token, uint32_t timeoutMs);

    void OnLogonStart(logonmon::SESSION_CONTEXT& session) override;
    void OnLogonEnd(logonmon::SESSION_CONTEXT& session) override;
    void EnableSampling(bool enable) override;
    void LogExtendedSummary(logonmon::SESSION_CONTEXT& session) override;
    void LogFormatted(uint32_t level, const wchar_t* function, const char* format, ...) override;
    // The timeout check, then one CPU and memory sample for every session.
    void OnTimer() override;

  private:
    // Starts the runner's session and consumer thread; logs and returns
    // false when either fails.
    bool StartRunner(TraceSessionRunner& runner);
    // The session's "domain\name", or empty before it was resolved.
    static std::wstring QualifiedUserName(const logonmon::SESSION_CONTEXT& session);

    const MonitorServices seams_;
    // Opened and closed on the event thread while the timer ticks.
    std::mutex samplingMutex_;
    PerfCounters perfCounters_;
    TraceSessionRunner timing_;
    TraceSessionRunner diagnostic_;
    bool samplingEnabled_;
    bool remoteLogging_;
};
