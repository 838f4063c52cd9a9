// Brings the process up (COM, the current-record slot, settings, main log,
// computer names, crash filter), runs the logon monitor live or on a trace
// file, and tears the process down again.
#pragma once

#include <windows.h>

#include <string>

class LogonMonitorRunner {
  public:
    // GetComputerNameExW's signature; replaceable so that a test can make
    // the name query fail.
    using ComputerNameQuery = BOOL(WINAPI*)(COMPUTER_NAME_FORMAT, LPWSTR, LPDWORD);

    explicit LogonMonitorRunner(ComputerNameQuery queryName = &GetComputerNameExW);

    // Runs the monitor on `traceFilePath`, or live until `stopEvent` is
    // signalled when the path is null. Always 0; a failed start-up is logged.
    int Run(HANDLE stopEvent, const wchar_t* traceFilePath);
    // Throws std::exception when the process cannot be brought up.
    void InitializeProcess();

  private:
    // The two-call protocol: the size first (which must fail with
    // ERROR_MORE_DATA), then the name.
    bool QueryName(COMPUTER_NAME_FORMAT format, std::wstring& name) const;

    ComputerNameQuery queryName_;
};
