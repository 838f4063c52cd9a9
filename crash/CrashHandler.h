// The process's unhandled-exception filter: one log line and a memory dump
// when the program crashes, and no error dialog waiting for a click.
#pragma once

#include <windows.h>

// Installs the filter, keeping the one it replaces, and switches off the
// system's fault dialog.
void InstallCrashHandler();
// Puts the previous filter back and ends the thread's COM use (the
// counterpart of start-up's COM initialisation).
void RemoveCrashHandler();

// Logs the exception and, unless dumps are switched off, writes a dump;
// returns 0 so that the system goes on to end the process.
LONG WINAPI NRVUnhandledExceptionFilter(EXCEPTION_POINTERS* pointers);
