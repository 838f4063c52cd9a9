// Stands in for the ETW controller calls while it lives: records what it is
// passed and fails the calls a test chooses.
#pragma once

#include <windows.h>
#include <evntrace.h>

#include <cstdio>
#include <string>
#include <vector>

#include "trace/EtwControlApi.h"
#include "trace/TextForms.h"

namespace logonmon::testing {

class RecordingEtwControl final : public EtwControlApi {
  public:
    static constexpr TRACEHANDLE kSessionHandle = 0x5E55;

    RecordingEtwControl() : previous_(SetEtwControl(this)) {}
    ~RecordingEtwControl() override { SetEtwControl(previous_); }

    // A failure also becomes the thread's last error, as with the system.
    ULONG startResult = ERROR_SUCCESS;
    ULONG stopResult = ERROR_SUCCESS;
    size_t failingEnable = SIZE_MAX;  // index of the EnableTraceEx2 call that fails

    std::vector<std::string> calls;   // "Start <name>", "Enable", "Close <handle>", "Stop <name>"
    std::vector<std::string> blocks;  // the properties of each start and stop, as Block() has them
    // "<provider> <level> <enable property> <filter bytes>" of each provider
    // enabled with the session's handle, default keywords and version 2 parameters.
    std::vector<std::string> enables;

    ULONG StartTrace(TRACEHANDLE* handle, const wchar_t* name,
                     EVENT_TRACE_PROPERTIES* properties) override {
        calls.push_back("Start " + Utf8FromWide(name));
        blocks.push_back(Block(properties));
        *handle = startResult == ERROR_SUCCESS ? kSessionHandle : 0;
        return Result(startResult);
    }
    ULONG ControlTrace(TRACEHANDLE handle, const wchar_t* name, EVENT_TRACE_PROPERTIES* properties,
                       ULONG code) override {
        const bool stopByName = handle == 0 && code == EVENT_TRACE_CONTROL_STOP;
        calls.push_back((stopByName ? "Stop " : "Control? ") + Utf8FromWide(name));
        blocks.push_back(Block(properties));
        return Result(stopResult);
    }
    ULONG EnableTraceEx2(TRACEHANDLE handle, const GUID& provider, ULONG code, UCHAR level,
                         ULONGLONG matchAny, ULONGLONG matchAll, ULONG timeout,
                         ENABLE_TRACE_PARAMETERS* parameters) override {
        calls.push_back("Enable");
        std::string call = Utf8FromWide(GuidText(provider)) + " " + std::to_string(level) + " " +
                           std::to_string(parameters->EnableProperty);
        for (ULONG i = 0; i < parameters->FilterDescCount; ++i) {
            const EVENT_FILTER_DESCRIPTOR& filter = parameters->EnableFilterDesc[i];
            call += filter.Type == 0x80000200 ? " " : " type? ";  // EVENT_FILTER_TYPE_EVENT_ID
            for (ULONG at = 0; at < filter.Size; ++at) {
                const uint8_t byte = reinterpret_cast<const uint8_t*>(filter.Ptr)[at];
                call += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
            }
        }
        const bool plain = handle == kSessionHandle && code == EVENT_CONTROL_CODE_ENABLE_PROVIDER &&
                           matchAny + matchAll + timeout == 0 && parameters->Version == 2;
        enables.push_back(plain ? call : "unexpected " + call);
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
    // "<size> <flags> <clock> <mode> <name> <file>", the texts found at their offsets.
    static std::string Block(const EVENT_TRACE_PROPERTIES* p) {
        const auto* base = reinterpret_cast<const char*>(p);
        const auto text = [base](ULONG offset) {
            return offset == 0 ? "-"
                               : Utf8FromWide(reinterpret_cast<const wchar_t*>(base + offset));
        };
        char fields[64];
        std::snprintf(fields, sizeof fields, "%lu 0x%lx %lu 0x%lx ", p->Wnode.BufferSize,
                      p->Wnode.Flags, p->Wnode.ClientContext, p->LogFileMode);
        return fields + text(p->LoggerNameOffset) + " " + text(p->LogFileNameOffset);
    }

    EtwControlApi* previous_;
};

}  // namespace logonmon::testing
