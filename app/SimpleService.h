// Runs a callable as the body of a Windows service of its own process: the
// service reports running at once, the body gets an event that the stop
// control sets, and the service reports stopped when the body returns.
#pragma once

#include <windows.h>

#include <functional>
#include <string>

#include "trace/UniqueHandle.h"

class SimpleService {
  public:
    // Takes the stop event's handle; its result becomes the exit code.
    using ServiceBody = std::function<int(void* stopEvent)>;

    // Connects to the service control manager and returns once the service
    // has stopped: the body's result, or -1 when the dispatcher could not be
    // started (as when the program is started from a console).
    static int Run(const std::wstring& serviceName, ServiceBody serviceBody);

    // One per Run, alive for the whole dispatcher lifetime.
    struct SvcContext {
        SERVICE_STATUS_HANDLE statusHandle = nullptr;
        // Auto-reset: a stop that comes before the body waits stays signalled
        // until it does.
        UniqueHandle stopEvent;
        std::wstring serviceName;
        ServiceBody serviceBody;
        int exitCode = 0;

        // Reports `state` to the manager; kUnchangedState reports the
        // current state again.
        void SetServiceStatus(int state);
    };
    static constexpr int kUnchangedState = -1;

    static void StaticServiceMain(SvcContext* context);
    static DWORD WINAPI StaticHandlerEx(DWORD control, DWORD eventType, void* eventData,
                                        void* context);
};
