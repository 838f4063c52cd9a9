// A stand-in for the ETW controller calls that records what it is passed and
// fails the calls a test chooses. Installed for its lifetime.
#pragma once

#include <windows.h>
#include <evntprov.h>
#include <evntrace.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "trace/EtwControlApi.h"

namespace logonmon::testing {

struct EnableCall {
    TRACEHANDLE handle;
    GUID providerId;
    ULONG controlCode;
    UCHAR level;
    ULONGLONG matchAnyKeyword;
    ULONGLONG matchAllKeyword;
    ULONG timeout;
    ENABLE_TRACE_PARAMETERS parameters;
    EVENT_FILTER_DESCRIPTOR filter;
    // The bytes the filter descriptor points at.
    std::vector<uint8_t> filterData;
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
    RecordingEtwControl(const RecordingEtwControl&) = delete;
    RecordingEtwControl& operator=(const RecordingEtwControl&) = delete;

    // Results to give; a failure also becomes the thread's last error, as
    // the system's calls leave it.
    ULONG startResult = ERROR_SUCCESS;
    ULONG controlResult = ERROR_SUCCESS;
    // Index of the EnableTraceEx2 call that fails with enableFailure.
    size_t failingEnable = SIZE_MAX;
    ULONG enableFailure = ERROR_ACCESS_DENIED;

    // Call names in order: "Start", "Enable", "Close", "Control".
    std::vector<std::string> calls;
    std::wstring startedName;
    std::vector<uint8_t> startProperties;
    std::vector<EnableCall> enables;
    std::vector<ControlCall> controls;
    std::vector<TRACEHANDLE> closed;

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
        if (parameters->FilterDescCount > 0 && parameters->EnableFilterDesc != nullptr) {
            call.filter = *parameters->EnableFilterDesc;
            const auto* data = reinterpret_cast<const uint8_t*>(call.filter.Ptr);
            call.filterData.assign(data, data + call.filter.Size);
        }
        const bool fails = enables.size() == failingEnable;
        enables.push_back(std::move(call));
        return Result(fails ? enableFailure : ERROR_SUCCESS);
    }

    ULONG CloseTrace(TRACEHANDLE handle) override {
        calls.push_back("Close");
        closed.push_back(handle);
        return ERROR_SUCCESS;
    }

  private:
    static ULONG Result(ULONG result) {
        if (result != ERROR_SUCCESS) {
            SetLastError(result);
        }
        return result;
    }

    // The block as far as its own size says, at most the 4,216 bytes the
    // session code allocates.
    static std::vector<uint8_t> Bytes(const EVENT_TRACE_PROPERTIES* properties) {
        const auto* data = reinterpret_cast<const uint8_t*>(properties);
        const size_t size = std::min<size_t>(properties->Wnode.BufferSize, 4216);
        return std::vector<uint8_t>(data, data + size);
    }

    EtwControlApi* previous_;
};

}  // namespace logonmon::testing
