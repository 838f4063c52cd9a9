#include "app/LogonMonitorRunner.h"

#include <objbase.h>

#include <exception>
#include <optional>
#include <stdexcept>

#include "app/LogSettings.h"
#include "app/Settings.h"
#include "crash/CrashHandler.h"
#include "log/LogWriter.h"
#include "logonmon/CurrentRecord.h"
#include "monitor/LogonMonitor.h"
#include "trace/ResultCode.h"

namespace {

constexpr wchar_t kInitializeFunction[] = L"LogonMonitorRunner::InitializeProcess";

// std::exception carries no text of its own in this runtime.
class StartupFailure : public std::exception {
  public:
    explicit StartupFailure(const char* text) : text_(text) {}
    const char* what() const noexcept override { return text_; }

  private:
    const char* text_;
};

}  // namespace

LogonMonitorRunner::LogonMonitorRunner(ComputerNameQuery queryName) : queryName_(queryName) {}

int LogonMonitorRunner::Run(HANDLE stopEvent, const wchar_t* traceFilePath) {
    try {
        InitializeProcess();
        {
            LogonMonitor monitor;
            if (traceFilePath != nullptr) {
                monitor.RunFile(traceFilePath);
            } else {
                monitor.RunRealTime(stopEvent);
            }
            CloseMainLog();
            logonmon::FreeCurrentRecordSlot();
            RemoveCrashHandler();
            // The crash filter's removal released COM once; start-up took it
            // once: the second release is the program's own.
            CoUninitialize();
        }
    } catch (const std::exception& e) {
        // The main log stays open and COM initialised until the process ends.
        LogMessage(nullptr, LOG_LEVEL_ERROR, L"LogonMonitorRunner::Run", "Fatal error: %s",
                   e.what());
    }
    return 0;
}

void LogonMonitorRunner::InitializeProcess() {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    logonmon::AllocateCurrentRecordSlot();
    Settings::Instance().Load();
    if (!OpenMainLog()) {
        throw StartupFailure("Failed to open main log");
    }
    ComputerNames& names = ComputerNames::Instance();
    if (!QueryName(ComputerNameNetBIOS, names.computerName)) {
        LogMessage(nullptr, LOG_LEVEL_FATAL, kInitializeFunction,
                   "Failed Getting Computer Name: 0x%X", ResultFromWin32(GetLastError()));
        throw StartupFailure("Initializing failed");
    }
    if (!QueryName(ComputerNameDnsFullyQualified, names.fqdn)) {
        LogMessage(nullptr, LOG_LEVEL_FATAL, kInitializeFunction, "Failed Getting FQDN: 0x%X",
                   ResultFromWin32(GetLastError()));
        throw StartupFailure("Initializing failed");
    }
    LogSettings(nullptr);
    InstallCrashHandler();
    LogMessage(nullptr, LOG_LEVEL_TRACE, kInitializeFunction, "Process Id: %d",
               static_cast<int>(GetCurrentProcessId()));
}

bool LogonMonitorRunner::QueryName(COMPUTER_NAME_FORMAT format, std::wstring& name) const {
    DWORD size = 0;
    if (queryName_(format, nullptr, &size) || GetLastError() != ERROR_MORE_DATA) {
        return false;
    }
    name.resize(size);
    if (!queryName_(format, name.data(), &size)) {
        return false;
    }
    name.resize(size);
    return true;
}
