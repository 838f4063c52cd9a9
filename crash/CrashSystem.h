// What a crash report takes from the system, replaceable so that a test can
// pin the dump's name and keep the dump small.
#pragma once

#include <windows.h>
#include <dbghelp.h>

class CrashSystem {
  public:
    virtual ~CrashSystem() = default;
    // The system time in UTC converted with the machine's current time zone.
    virtual SYSTEMTIME LocalTime() = 0;
    // MiniDumpWriteDump without user streams or callback; false with the
    // thread's last error set on failure.
    virtual bool WriteDump(HANDLE process, DWORD processId, HANDLE file, MINIDUMP_TYPE type,
                           MINIDUMP_EXCEPTION_INFORMATION* exception) = 0;
};

// The binding in use: the system's unless replaced.
CrashSystem& CrashSystemInUse();
// Replaces the binding (nullptr restores the system's) and returns the
// previous one.
CrashSystem* SetCrashSystem(CrashSystem* system);
