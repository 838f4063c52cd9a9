// Consuming a trace: which session or file to open, the open handle's owner,
// and the delivery of each record to a callback on the processing thread.
#pragma once

#include <windows.h>
#include <evntrace.h>

#include <functional>
#include <string>

#include "trace/EtwConsumeApi.h"

using EventCallback = std::function<void(const EVENT_RECORD*)>;

// What to open: the live session of this name, or a saved trace file.
EVENT_TRACE_LOGFILEW RealTimeLogFile(const std::wstring& sessionName);
EVENT_TRACE_LOGFILEW TraceFileLogFile(const std::wstring& path);

// An open consumer handle, closed through the binding that opened it.
class ConsumerHandle {
  public:
    explicit ConsumerHandle(logonmon::EtwConsumeApi& api) : api_(api) {}
    ~ConsumerHandle() { Close(); }
    ConsumerHandle(const ConsumerHandle&) = delete;
    ConsumerHandle& operator=(const ConsumerHandle&) = delete;

    // Opens `logFile`, closing the handle held before; false with the
    // thread's last error set when it cannot be opened.
    bool Open(EVENT_TRACE_LOGFILEW& logFile);
    bool IsOpen() const { return handle_ != INVALID_PROCESSTRACE_HANDLE; }
    TRACEHANDLE Get() const { return handle_; }
    // Closing ends a ProcessTrace in progress on another thread.
    void Close();

  private:
    logonmon::EtwConsumeApi& api_;
    TRACEHANDLE handle_ = INVALID_PROCESSTRACE_HANDLE;
};

// Processes `handle` on this thread, handing every record to `onEvent`;
// returns ProcessTrace's result.
ULONG ProcessEvents(logonmon::EtwConsumeApi& api, TRACEHANDLE handle, const EventCallback& onEvent);
