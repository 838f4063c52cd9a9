// Stands in for the ETW controller calls while it lives: records what it is
// passed and fails the calls a test chooses.
#pragma once

#include <windows.h>
#include <evntprov.h>
#include <evntrace.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "trace/EtwControlApi.h"

namespace logonmon::testing {

struct EnableCall {
    TRACEHANDLE handle;
    GUID providerId;
    ULONG controlCode;
    UCHAR level;
    ULONGLONG matchAnyKeyword, matchAllKeyword;
    ULONG timeout;
    ENABLE_TRACE_PARAMETERS parameters;
    EVENT_FILTER_DESCRIPTOR filter;
    std::vector<uint8_t> filterData;  // what the descriptor points at
};

struct ControlCall {
    TRACEHANDLE handle;
    std::wstring sessionName;
    ULONG controlCode;
    std::vector<uint8_t> properties;
};

class RecordingEtwControl final : public EtwControlApi {
  public:
    static constexpr TRACEHANDLE kSessionHandle = 0x5E55;

    RecordingEtwControl() : previous_(SetEtwControl(this)) {}
    ~RecordingEtwControl() override { SetEtwControl(previous_); }

    // A failure also becomes the thread's last error, as with the system.
    ULONG startResult = ERROR_SUCCESS;
    ULONG controlResult = ERROR_SUCCESS;
    size_t failingEnable = SIZE_MAX;  // index of the EnableTraceEx2 call that fails
    ULONG enableFailure = ERROR_ACCESS_DENIED;

    std::vector<std::string> calls;  // "Start", "Enable", "Close:<handle>", "Control"
    std::wstring startedName;
    std::vector<uint8_t> startProperties;
    std::vector<EnableCall> enables;
    std::vector<ControlCall> controls;

    ULONG StartTrace(TRACEHANDLE* handle, const wchar_t* sessionName,
                     EVENT_TRACE_PROPERTIES* properties) override {
        calls.push_back("Start");
        startedName = sessionName;
        startProperties = Bytes(properties);
        *handle = startResult == ERROR_SUCCESS ? kSessionHandle : 0;
        return Result(startResult);
    }
    ULONG ControlTrace(TRACEHANDLE handle, const wchar_t* sessionName,
                       EVENT_TRACE_PROPERTIES* properties, ULONG controlCode) override {
        calls.push_back("Control");
        controls.push_back({handle, sessionName, controlCode, Bytes(properties)});
        return Result(controlResult);
    }
    ULONG EnableTraceEx2(TRACEHANDLE handle, const GUID& providerId, ULONG controlCode, UCHAR level,
                         ULONGLONG matchAnyKeyword, ULONGLONG matchAllKeyword, ULONG timeout,
                         ENABLE_TRACE_PARAMETERS* parameters) override {
        calls.push_back("Enable");
        EnableCall call{handle,          providerId, controlCode, level, matchAnyKeyword,
                        matchAllKeyword, timeout,    *parameters, {},    {}};
        if (parameters->FilterDescCount > 0) {
            call.filter = *parameters->EnableFilterDesc;
            const auto* data = reinterpret_cast<const uint8_t*>(call.filter.Ptr);
            call.filterData.assign(data, data + call.filter.Size);
        }
        enables.push_back(call);
        return Result(enables.size() - 1 == failingEnable ? enableFailure : ERROR_SUCCESS);
    }
    ULONG CloseTrace(TRACEHANDLE handle) override {
        calls.push_back("Close:" + std::to_string(handle));
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
        return {data, data + std::min<size_t>(properties->Wnode.BufferSize, 4216)};
    }

    EtwControlApi* previous_;
};

}  // namespace logonmon::testing
