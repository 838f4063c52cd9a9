#include "trace/EtwControlApi.h"

namespace logonmon {
namespace {

class SystemEtwControl final : public EtwControlApi {
  public:
    ULONG StartTrace(TRACEHANDLE* handle, const wchar_t* sessionName,
                     EVENT_TRACE_PROPERTIES* properties) override {
        return ::StartTraceW(handle, sessionName, properties);
    }
    ULONG ControlTrace(TRACEHANDLE handle, const wchar_t* sessionName,
                       EVENT_TRACE_PROPERTIES* properties, ULONG controlCode) override {
        return ::ControlTraceW(handle, sessionName, properties, controlCode);
    }
    ULONG EnableTraceEx2(TRACEHANDLE handle, const GUID& providerId, ULONG controlCode, UCHAR level,
                         ULONGLONG matchAnyKeyword, ULONGLONG matchAllKeyword, ULONG timeout,
                         ENABLE_TRACE_PARAMETERS* parameters) override {
        return ::EnableTraceEx2(handle, &providerId, controlCode, level, matchAnyKeyword,
                                matchAllKeyword, timeout, parameters);
    }
    ULONG CloseTrace(TRACEHANDLE handle) override { return ::CloseTrace(handle); }
};

SystemEtwControl systemEtwControl;
EtwControlApi* currentEtwControl = &systemEtwControl;

}  // namespace

EtwControlApi& EtwControl() {
    return *currentEtwControl;
}

EtwControlApi* SetEtwControl(EtwControlApi* api) {
    EtwControlApi* previous = currentEtwControl;
    currentEtwControl = api != nullptr ? api : &systemEtwControl;
    return previous;
}

}  // namespace logonmon
