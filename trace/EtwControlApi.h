// The ETW controller calls behind one replaceable interface, so that the
// session code runs unchanged against a recording fake.
#pragma once

#include <windows.h>
#include <evntrace.h>

namespace logonmon {

class EtwControlApi {
  public:
    virtual ~EtwControlApi() = default;

    virtual ULONG StartTrace(TRACEHANDLE* handle, const wchar_t* sessionName,
                             EVENT_TRACE_PROPERTIES* properties) = 0;
    virtual ULONG ControlTrace(TRACEHANDLE handle, const wchar_t* sessionName,
                               EVENT_TRACE_PROPERTIES* properties, ULONG controlCode) = 0;
    virtual ULONG EnableTraceEx2(TRACEHANDLE handle, const GUID& providerId, ULONG controlCode,
                                 UCHAR level, ULONGLONG matchAnyKeyword, ULONGLONG matchAllKeyword,
                                 ULONG timeout, ENABLE_TRACE_PARAMETERS* parameters) = 0;
    virtual ULONG CloseTrace(TRACEHANDLE handle) = 0;
};

// The binding in use: the system's unless replaced.
EtwControlApi& EtwControl();
// Replaces the binding (nullptr restores the system's) and returns the
// previous one.
EtwControlApi* SetEtwControl(EtwControlApi* api);

}  // namespace logonmon
