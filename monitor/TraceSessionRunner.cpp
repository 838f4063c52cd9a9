#include "monitor/TraceSessionRunner.h"

#include <utility>

#include "log/LogWriter.h"

namespace {

constexpr wchar_t kConsumeFunction[] = L"TraceSessionRunner::Consume";

}  // namespace

TraceSessionRunner::TraceSessionRunner(logonmon::Controller session,
                                       logonmon::EtwConsumeApi& consume)
    : session_(std::move(session)), consume_(consume), consumer_(consume) {}

TraceSessionRunner::~TraceSessionRunner() {
    Stop();
}

ULONG TraceSessionRunner::StartSession() {
    ULONG started = session_.Start();
    if (started == ERROR_ALREADY_EXISTS) {
        if (options_.acceptExisting) {
            return ERROR_SUCCESS;
        }
        session_.Stop();
        started = session_.Start();
    }
    return started;
}

ULONG TraceSessionRunner::StartConsumer(EventCallback onEvent) {
    onEvent_ = std::move(onEvent);
    stopRequested_ = false;
    thread_.Reset(CreateThread(nullptr, 0, ThreadMain, this, 0, nullptr));
    if (!thread_) {
        const ULONG error = GetLastError();
        session_.Stop();
        return error;
    }
    running_ = true;
    return ERROR_SUCCESS;
}

void TraceSessionRunner::Stop() {
    if (!running_) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopRequested_ = true;
        consumer_.Close();
    }
    WaitForSingleObject(thread_.Get(), INFINITE);
    if (options_.stopOnExit) {
        session_.Stop();
    }
    running_ = false;
    thread_.Reset();
}

DWORD WINAPI TraceSessionRunner::ThreadMain(void* runner) {
    static_cast<TraceSessionRunner*>(runner)->Consume();
    return 0;
}

TRACEHANDLE TraceSessionRunner::OpenConsumer() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopRequested_) {
        return INVALID_PROCESSTRACE_HANDLE;
    }
    EVENT_TRACE_LOGFILEW logFile = RealTimeLogFile(session_.SessionName());
    if (!consumer_.Open(logFile)) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kConsumeFunction,
                   "Failed to open trace session %ws, err %d", session_.SessionName().c_str(),
                   static_cast<int>(GetLastError()));
    }
    return consumer_.Get();
}

void TraceSessionRunner::Consume() {
    for (;;) {
        const TRACEHANDLE handle = OpenConsumer();
        if (handle == INVALID_PROCESSTRACE_HANDLE) {
            return;
        }
        const ULONG processed = ProcessEvents(consume_, handle, onEvent_);
        std::lock_guard<std::mutex> lock(mutex_);
        consumer_.Close();
        if (stopRequested_) {
            return;
        }
        if (processed != ERROR_SUCCESS) {
            LogMessage(nullptr, LOG_LEVEL_ERROR, kConsumeFunction,
                       "Processing trace session %ws failed, err %d",
                       session_.SessionName().c_str(), static_cast<int>(processed));
            return;
        }
        if (!options_.restart) {
            return;
        }
        const ULONG restarted = StartSession();
        if (restarted != ERROR_SUCCESS) {
            LogMessage(nullptr, LOG_LEVEL_ERROR, kConsumeFunction,
                       "Failed to restart trace session %ws, err %d",
                       session_.SessionName().c_str(), static_cast<int>(restarted));
            return;
        }
    }
}
