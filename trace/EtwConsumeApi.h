// The ETW consumer calls behind one replaceable interface, beside the
// controller's, so that the consumer code runs unchanged against a fake that
// delivers records the way a real session does.
#pragma once

#include <windows.h>
#include <evntrace.h>

namespace logonmon {

class EtwConsumeApi {
  public:
    virtual ~EtwConsumeApi() = default;

    // INVALID_PROCESSTRACE_HANDLE on failure, with the thread's last error set.
    virtual TRACEHANDLE OpenTrace(EVENT_TRACE_LOGFILEW* logFile) = 0;
    // Delivers the records to the log file's callback on the calling thread;
    // returns when the session ended, the handle was closed or it failed.
    virtual ULONG ProcessTrace(TRACEHANDLE handle) = 0;
    virtual ULONG CloseTrace(TRACEHANDLE handle) = 0;
};

// The system's OpenTraceW, ProcessTrace and CloseTrace.
EtwConsumeApi& SystemEtwConsume();

}  // namespace logonmon
