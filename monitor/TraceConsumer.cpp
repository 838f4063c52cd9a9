#include "monitor/TraceConsumer.h"

#include <evntcons.h>

#include <utility>

namespace {

// ProcessTrace calls the record callback on the thread that called it, so
// the callback in use is the calling thread's. The record's own UserContext
// is left to whoever made the record.
thread_local const EventCallback* deliveringTo = nullptr;

void WINAPI DeliverEvent(EVENT_RECORD* record) {
    if (deliveringTo != nullptr) {
        (*deliveringTo)(record);
    }
}

EVENT_TRACE_LOGFILEW LogFile(ULONG mode) {
    EVENT_TRACE_LOGFILEW logFile{};
    logFile.ProcessTraceMode = mode | PROCESS_TRACE_MODE_EVENT_RECORD;
    logFile.EventRecordCallback = DeliverEvent;
    return logFile;
}

}  // namespace

EVENT_TRACE_LOGFILEW RealTimeLogFile(const std::wstring& sessionName) {
    EVENT_TRACE_LOGFILEW logFile = LogFile(PROCESS_TRACE_MODE_REAL_TIME);
    logFile.LoggerName = const_cast<wchar_t*>(sessionName.c_str());
    return logFile;
}

EVENT_TRACE_LOGFILEW TraceFileLogFile(const std::wstring& path) {
    EVENT_TRACE_LOGFILEW logFile = LogFile(0);
    logFile.LogFileName = const_cast<wchar_t*>(path.c_str());
    return logFile;
}

bool ConsumerHandle::Open(EVENT_TRACE_LOGFILEW& logFile) {
    Close();
    handle_ = api_.OpenTrace(&logFile);
    return IsOpen();
}

void ConsumerHandle::Close() {
    if (IsOpen()) {
        api_.CloseTrace(std::exchange(handle_, INVALID_PROCESSTRACE_HANDLE));
    }
}

ULONG ProcessEvents(logonmon::EtwConsumeApi& api, TRACEHANDLE handle,
                    const EventCallback& onEvent) {
    struct Delivery {
        const EventCallback* outer;
        ~Delivery() { deliveringTo = outer; }
    } delivery{std::exchange(deliveringTo, &onEvent)};
    return api.ProcessTrace(handle);
}
