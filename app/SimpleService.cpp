#include "app/SimpleService.h"

#include <utility>

#include "log/LogWriter.h"

namespace {

// Only the current state ever changes: the service accepts stop and nothing
// else, and its exit codes, checkpoint and wait hint stay 0.
SERVICE_STATUS serviceStatus{
    SERVICE_WIN32_OWN_PROCESS, SERVICE_STOPPED, SERVICE_ACCEPT_STOP, 0, 0, 0, 0};

// The dispatcher calls the service-main routine without an argument; there
// is one service per process, so the routine finds the context here.
SimpleService::SvcContext* dispatchedContext = nullptr;

void WINAPI DispatchedServiceMain(DWORD, LPWSTR*) {
    SimpleService::StaticServiceMain(dispatchedContext);
}

}  // namespace

int SimpleService::Run(const std::wstring& serviceName, ServiceBody serviceBody) {
    SvcContext context;
    context.serviceName = serviceName;
    context.stopEvent.Reset(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    context.serviceBody = std::move(serviceBody);
    dispatchedContext = &context;

    SERVICE_TABLE_ENTRYW table[] = {{context.serviceName.data(), &DispatchedServiceMain},
                                    {nullptr, nullptr}};
    const BOOL dispatched = StartServiceCtrlDispatcherW(table);
    dispatchedContext = nullptr;
    if (!dispatched) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, L"SimpleService::Run",
                   "StartServiceCtrlDispatcher failed, win32 error %d",
                   static_cast<int>(GetLastError()));
        return -1;
    }
    return context.exitCode;
}

void SimpleService::StaticServiceMain(SvcContext* context) {
    context->statusHandle =
        RegisterServiceCtrlHandlerExW(context->serviceName.c_str(), &StaticHandlerEx, context);
    if (context->statusHandle == nullptr) {
        LogMessage(nullptr, LOG_LEVEL_FATAL, L"SimpleService::StaticServiceMain",
                   "RegisterServiceCtrlHandlerEx(%ws, %p, %p) failed, err %d",
                   context->serviceName.c_str(), reinterpret_cast<void*>(&StaticHandlerEx),
                   static_cast<void*>(context), static_cast<int>(GetLastError()));
        return;
    }
    // No start-pending phase: the body's own start-up runs while the manager
    // already sees the service running.
    context->SetServiceStatus(SERVICE_RUNNING);
    context->exitCode = context->serviceBody(context->stopEvent.Get());
    // Fatal, so that a log limited to fatal lines still shows the stop.
    LogMessage(nullptr, LOG_LEVEL_FATAL, L"SimpleService::StaticServiceMain",
               "Service stopped, result: %d", context->exitCode);
    context->SetServiceStatus(SERVICE_STOPPED);
}

DWORD WINAPI SimpleService::StaticHandlerEx(DWORD control, DWORD, void*, void* context) {
    constexpr wchar_t kFunction[] = L"SimpleService::StaticHandlerEx";
    SvcContext* const service = static_cast<SvcContext*>(context);
    switch (control) {
        case SERVICE_CONTROL_STOP:
            LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "STOP: Received SERVICE_CONTROL_STOP");
            service->SetServiceStatus(SERVICE_STOP_PENDING);
            SetEvent(service->stopEvent.Get());
            break;
        case SERVICE_CONTROL_INTERROGATE:
            LogMessage(nullptr, LOG_LEVEL_TRACE, kFunction, "Received SERVICE_CONTROL_INTERROGATE");
            service->SetServiceStatus(kUnchangedState);
            break;
        default:
            LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Ignored Service Request: 0x%X",
                       static_cast<unsigned>(control));
            break;
    }
    return NO_ERROR;
}

void SimpleService::SvcContext::SetServiceStatus(int state) {
    LogMessage(nullptr, LOG_LEVEL_DEBUG, L"SimpleService::SvcContext::SetServiceStatus",
               "Setting service status to %d", state);
    if (state != kUnchangedState) {
        serviceStatus.dwCurrentState = static_cast<DWORD>(state);
    }
    if (!::SetServiceStatus(statusHandle, &serviceStatus)) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, L"SimpleService::SvcContext::SetServiceStatus",
                   "SetServiceStatus failed, err %d", static_cast<int>(GetLastError()));
    }
}
