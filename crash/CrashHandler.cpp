#include "crash/CrashHandler.h"

#include <objbase.h>
#include <psapi.h>

#include <cstdint>
#include <iterator>

#include "app/Settings.h"
#include "crash/MiniDump.h"
#include "log/LogWriter.h"

namespace {

// Set once at start-up, read by the filter on the crashing thread.
struct CrashState {
    LPTOP_LEVEL_EXCEPTION_FILTER previousFilter = nullptr;
    HANDLE process = nullptr;  // the pseudo handle, nothing to close
    DWORD processId = 0;
};

CrashState& State() {
    static CrashState state;
    return state;
}

}  // namespace

void InstallCrashHandler() {
    CrashState& state = State();
    state.previousFilter = SetUnhandledExceptionFilter(&NRVUnhandledExceptionFilter);
    SetErrorMode(SetErrorMode(0) | SEM_NOGPFAULTERRORBOX);
    state.process = GetCurrentProcess();
    state.processId = GetCurrentProcessId();
}

void RemoveCrashHandler() {
    SetUnhandledExceptionFilter(State().previousFilter);
    CoUninitialize();
}

LONG WINAPI NRVUnhandledExceptionFilter(EXCEPTION_POINTERS* pointers) {
    const CrashState& state = State();
    wchar_t image[512] = {};
    GetProcessImageFileNameW(state.process, image, static_cast<DWORD>(std::size(image)));
    const EXCEPTION_RECORD* record = pointers->ExceptionRecord;
    LogMessage(nullptr, LOG_LEVEL_ERROR, L"NRVUnhandledExceptionFilter",
               "Exception Occured: Process: %ws, ProcessId: %d, Code: 0x%X, Flags: 0x%X, "
               "Address: 0x%X",
               image, static_cast<int>(state.processId),
               static_cast<unsigned>(record->ExceptionCode),
               static_cast<unsigned>(record->ExceptionFlags),
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(record->ExceptionAddress)));
    if (!Settings::Instance().IsFlagOn(FLAG_DISABLE_MEMORY_DUMPS)) {
        NRVGenerateDumpEx(pointers, kDumpReasonException);
    }
    return EXCEPTION_CONTINUE_SEARCH;
}
