// Stands in for the ETW controller calls while it lives: records what it is
// passed and fails the calls a test chooses.
#pragma once

#include <windows.h>
#include <evntrace.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "trace/EtwControlApi.h"
#include "trace/TextForms.h"

namespace logonmon::testing {

struct EnableCall {
    TRACEHANDLE handle;
    GUID providerId;
    ULONG controlCode;
    UCHAR level;
    ULONGLONG keywordsAndTimeout;  // match-any, match-all and timeout added up
    ENABLE_TRACE_PARAMETERS parameters;
    ULONG filterType;
    std::vector<uint8_t> filter;  // what the filter descriptor points at
};

class RecordingEtwControl final : public EtwControlApi {
  public:
    static constexpr TRACEHANDLE kSessionHandle = 0x5E55;

    RecordingEtwControl() : previous_(SetEtwControl(this)) {}
    ~RecordingEtwControl() override { SetEtwControl(previous_); }

    // A failure also becomes the thread's last error, as with the system.
    ULONG startResult = ERROR_SUCCESS;
    ULONG stopResult = ERROR_SUCCESS;
    size_t failingEnable = SIZE_MAX;  // index of the EnableTraceEx2 call that fails

    // "Start <name>", "Enable", "Close <handle>", "Stop <name>"
    std::vector<std::string> calls;
    std::vector<uint8_t> startBlock, stopBlock;  // the properties passed
    std::vector<EnableCall> enables;

    ULONG StartTrace(TRACEHANDLE* handle, const wchar_t* name,
                     EVENT_TRACE_PROPERTIES* properties) override {
        calls.push_back("Start " + Utf8FromWide(name));
        startBlock = Bytes(properties);
        *handle = startResult == ERROR_SUCCESS ? kSessionHandle : 0;
        return Result(startResult);
    }
    ULONG ControlTrace(TRACEHANDLE handle, const wchar_t* name, EVENT_TRACE_PROPERTIES* properties,
                       ULONG code) override {
        const bool stopByName = handle == 0 && code == EVENT_TRACE_CONTROL_STOP;
        calls.push_back((stopByName ? "Stop " : "Control? ") + Utf8FromWide(name));
        stopBlock = Bytes(properties);
        return Result(stopResult);
    }
    ULONG EnableTraceEx2(TRACEHANDLE handle, const GUID& providerId, ULONG code, UCHAR level,
                         ULONGLONG matchAny, ULONGLONG matchAll, ULONG timeout,
                         ENABLE_TRACE_PARAMETERS* parameters) override {
        calls.push_back("Enable");
        EnableCall call{handle,      providerId, code, level, matchAny + matchAll + timeout,
                        *parameters, 0,          {}};
        if (parameters->FilterDescCount > 0) {
            const EVENT_FILTER_DESCRIPTOR& filter = *parameters->EnableFilterDesc;
            const auto* data = reinterpret_cast<const uint8_t*>(filter.Ptr);
            call.filterType = filter.Type;
            call.filter.assign(data, data + filter.Size);
        }
        enables.push_back(call);
        return Result(enables.size() - 1 == failingEnable ? ERROR_ACCESS_DENIED : ERROR_SUCCESS);
    }
    ULONG CloseTrace(TRACEHANDLE handle) override {
        calls.push_back("Close " + std::to_string(handle));
        return ERROR_SUCCESS;
    }

  private:
    static ULONG Result(ULONG result) {
        if (result != ERROR_SUCCESS) {
            SetLastError(result);
        }
        return result;
    }
    // As far as the block's own size says, at most the 4,216 bytes allocated.
    static std::vector<uint8_t> Bytes(const EVENT_TRACE_PROPERTIES* properties) {
        const auto* data = reinterpret_cast<const uint8_t*>(properties);
        return {data, data + std::min<ULONG>(properties->Wnode.BufferSize, 4216)};
    }

    EtwControlApi* previous_;
};

}  // namespace logonmon::testing
