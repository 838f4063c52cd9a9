#include "monitor/LogonMonitor.h"

#include <cstdarg>
#include <exception>
#include <new>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "log/SessionLog.h"
#include "monitor/UsageReport.h"
#include "trace/BuiltInSchemaTdh.h"
#include "trace/ReplayEtlFile.h"
#include "trace/TdhWithBuiltInSchemas.h"
#include "trace/TextForms.h"
#include "trace/UnsupportedTdh.h"

namespace {

constexpr wchar_t kRunRealTimeFunction[] = L"LogonMonitor::RunRealTime";
constexpr wchar_t kRunFileFunction[] = L"LogonMonitor::RunFile";
constexpr uint32_t kRealTimeSessionTimeoutMs = 120000;

// The built-in reader opens files by narrow name, in the ANSI code page like
// the C runtime's own.
std::string AnsiPath(const std::wstring& path) {
    const int size = WideCharToMultiByte(CP_ACP, 0, path.c_str(), -1, nullptr, 0, nullptr, nullptr);
    std::string text(size > 0 ? size - 1 : 0, '\0');
    if (size > 1) {
        WideCharToMultiByte(CP_ACP, 0, path.c_str(), -1, text.data(), size, nullptr, nullptr);
    }
    return text;
}

bool FlagOn(uint32_t flag) {
    return Settings::Instance().IsFlagOn(flag);
}

// The processor speaks trace levels; other values are level masks already.
uint32_t LogLevelOf(uint32_t traceLevel) {
    switch (traceLevel) {
        case logonmon::kLevelError:
            return LOG_LEVEL_ERROR;
        case logonmon::kLevelInfo:
            return LOG_LEVEL_INFO;
        case logonmon::kLevelVerbose:
            return LOG_LEVEL_TRACE;
        default:
            return traceLevel;
    }
}

}  // namespace

LogonMonitor::LogonMonitor() : LogonMonitor(MonitorServices{}) {}

LogonMonitor::LogonMonitor(const MonitorServices& services)
    : LogonProcessor({}, services.processor),
      seams_(services),
      perfCounters_(*services.pdh),
      timing_(logonmon::Controller::Timing(), *services.consume),
      diagnostic_(logonmon::Controller::Diagnostic(), *services.consume),
      samplingEnabled_(FlagOn(FLAG_ENABLE_CPU_MEMORY_TIMINGS)),
      remoteLogging_(!Settings::Instance().GetRemoteLogPath(nullptr).empty()) {}

LogonMonitor::~LogonMonitor() {
    // Ticks reach this object's hooks.
    StopTimer();
}

void LogonMonitor::RunRealTime(HANDLE stopEvent) {
    const bool agentIntegration = FlagOn(FLAG_ENABLE_LOOM_INTEGRATION);
    Configure({.sessionTimeoutMs = kRealTimeSessionTimeoutMs,
               .waitForAttach = agentIntegration,
               .realTime = true,
               .logEveryEvent = true});
    // With the agent integration the timing session outlives the monitor.
    timing_.SetOptions({.stopOnExit = !agentIntegration});
    diagnostic_.SetOptions({});
    bool diagnosticWanted = false;
    if (FlagOn(FLAG_DIAGNOSTIC_SESSION)) {
        diagnostic_.Session().AddDiagnosticProviders();
        diagnosticWanted = true;
    }
    if (FlagOn(FLAG_ENABLE_PROCESS_TIMINGS)) {
        diagnostic_.Session().AddProcessProviders();
        diagnosticWanted = true;
    }

    if (!StartRunner(timing_)) {
        return;
    }
    if (diagnosticWanted && !StartRunner(diagnostic_)) {
        timing_.Stop();
        return;
    }
    HANDLE waitFor[] = {stopEvent, timing_.Thread(), diagnostic_.Thread()};
    WaitForMultipleObjects(diagnosticWanted ? 3 : 2, waitFor, FALSE, INFINITE);
    timing_.Stop();
    diagnostic_.Stop();
}

bool LogonMonitor::StartRunner(TraceSessionRunner& runner) {
    ULONG error = runner.StartSession();
    if (error == ERROR_SUCCESS) {
        error = runner.StartConsumer(
            [this](const EVENT_RECORD* eventRecord) { PreHandleEventRecord(eventRecord); });
    }
    if (error != ERROR_SUCCESS) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kRunRealTimeFunction,
                   "Failed to start timing trace session, err %d", static_cast<int>(error));
        return false;
    }
    return true;
}

void LogonMonitor::RunFile(const std::wstring& path) {
    Configure({.sessionTimeoutMs = 0,
               .waitForAttach = FlagOn(FLAG_ENABLE_LOOM_INTEGRATION),
               .realTime = false,
               .logEveryEvent = true});
    samplingEnabled_ = false;
    try {
        ConsumerHandle trace(*seams_.consume);
        EVENT_TRACE_LOGFILEW logFile = TraceFileLogFile(path);
        if (trace.Open(logFile)) {
            logonmon::BuiltInSchemaTdh builtIn(logonmon::UnsupportedTdh());
            logonmon::TdhWithBuiltInSchemas schemas(
                *seams_.tdh, builtIn, [&path](const EVENT_RECORD& event) {
                    LogMessage(nullptr, LOG_LEVEL_INFO, kRunFileFunction,
                               "The system has no schema for event %d version %d of provider %ws "
                               "in trace file %ws; decoding such events with the built-in event "
                               "schemas",
                               event.EventHeader.EventDescriptor.Id,
                               event.EventHeader.EventDescriptor.Version,
                               logonmon::GuidText(event.EventHeader.ProviderId).c_str(),
                               path.c_str());
                });
            const logonmon::ScopedTdhBinding binding(schemas);
            ProcessEvents(*seams_.consume, trace.Get(), [this](const EVENT_RECORD* eventRecord) {
                PreHandleEventRecord(eventRecord);
            });
        } else {
            // Where the system cannot read the trace (a machine without the
            // providers' consumer, or Wine), the built-in reader and schemas can.
            LogMessage(
                nullptr, LOG_LEVEL_INFO, kRunFileFunction,
                "The system cannot open trace file %ws, err %d; reading it with the built-in "
                "trace reader and event schemas",
                path.c_str(), static_cast<int>(GetLastError()));
            const EtlReadResult result = logonmon::ReplayEtlFile(
                AnsiPath(path),
                [this](const EVENT_RECORD& eventRecord) { PreHandleEventRecord(&eventRecord); });
            if (!result.complete) {
                LogMessage(nullptr, LOG_LEVEL_ERROR, kRunFileFunction,
                           "Failed to read trace file %ws: %s", path.c_str(), result.error.c_str());
            }
        }
    } catch (const std::bad_alloc&) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kRunFileFunction, "LogonMonitor out of memory.");
    }
    // The trace ended: sessions still open are finished with what they have.
    RunSessionTimeoutCheck(true);
}

void LogonMonitor::PreHandleEventRecord(const EVENT_RECORD* eventRecord) {
    try {
        HandleEventRecord(eventRecord);
    } catch (const std::exception& exception) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, L"LogonMonitor::PreHandleEventRecord", "Exception: %s",
                   exception.what());
    }
}

void LogonMonitor::EnableSampling(bool enable) {
    if (!samplingEnabled_) {
        return;
    }
    std::lock_guard<std::mutex> lock(samplingMutex_);
    if (enable) {
        perfCounters_.Initialize();
    } else {
        perfCounters_.Close();
    }
}

void LogonMonitor::OnTimer() {
    LogonProcessor::OnTimer();
    if (!samplingEnabled_) {
        return;
    }
    PerfSample sample;
    {
        std::lock_guard<std::mutex> lock(samplingMutex_);
        if (perfCounters_.Collect(sample) != ERROR_SUCCESS) {
            return;
        }
    }
    VisitSessions([&sample](logonmon::SESSION_CONTEXT& session) {
        AccumulateSample(*SessionLogOf(session), sample);
    });
}

void LogonMonitor::LogFormatted(uint32_t level, const wchar_t* function, const char* format, ...) {
    // Ended also when a roll of the main log throws out of the writer.
    struct Arguments {
        va_list list;
        ~Arguments() { va_end(list); }
    } args;
    va_start(args.list, format);
    LogMessageV(nullptr, LogLevelOf(level), function, format, args.list);
}
