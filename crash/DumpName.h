// Names of the memory dumps written after a crash.
#pragma once

#include <windows.h>

#include <string>

// The exception's short name ("ACCESS_VIOLATION"); for codes without one
// the system's NTDLL message text, else "UNKNOWN".
std::wstring ExceptionName(DWORD code);

// "<folder>\PLMX_MINIDUMP_<process>_<thread>_0x<code>_<name>_<MM>_<DD>_<YYYY>__<hh>_<mm>_<ss>_<msec>.dmp",
// cut to the 512 characters the name may have.
std::wstring DumpFileName(const std::wstring& folder, DWORD processId, DWORD threadId, DWORD code,
                          const std::wstring& exceptionName, const SYSTEMTIME& localTime);
