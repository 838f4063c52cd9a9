#include "trace/EtwConsumeApi.h"

namespace logonmon {
namespace {

class SystemEtwConsumeApi final : public EtwConsumeApi {
  public:
    TRACEHANDLE OpenTrace(EVENT_TRACE_LOGFILEW* logFile) override { return ::OpenTraceW(logFile); }
    ULONG ProcessTrace(TRACEHANDLE handle) override {
        return ::ProcessTrace(&handle, 1, nullptr, nullptr);
    }
    ULONG CloseTrace(TRACEHANDLE handle) override { return ::CloseTrace(handle); }
};

}  // namespace

EtwConsumeApi& SystemEtwConsume() {
    static SystemEtwConsumeApi api;
    return api;
}

}  // namespace logonmon
