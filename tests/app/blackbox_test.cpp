// plmx.exe's console modes and a host on the service wrapper, run as their
// own processes and observed as an administrator would.
#include <gmock/gmock.h>

#include <windows.h>

#include "app/Settings.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogFiles.h"
#include "trace/AutoLogger.h"
#include "trace/SessionNames.h"
#include "trace/UniqueHandle.h"

namespace plmx::testing {
namespace {

const std::wstring kPlmx = L"" PLMX_EXE;
const std::wstring kEntryKey =
    std::wstring(logonmon::kAutoLoggerKey) + L"\\" + logonmon::kFileSessionName;

std::wstring BootEntry() {
    wchar_t fileName[64] = {};
    DWORD size = sizeof(fileName);
    RegGetValueW(HKEY_LOCAL_MACHINE, kEntryKey.c_str(), L"FileName", RRF_RT_REG_SZ, nullptr,
                 fileName, &size);
    return fileName;
}

// Only "/file" opens the main log; the other modes, and a command line that
// is not understood, leave no log and exit with 0. Without arguments the
// program is the service, whose dispatcher fails from a console.
TEST(PlmxTest, ConsoleModesWriteTheBootEntryOrTheMainLogAndExitWithZero) {
    const struct {
        const wchar_t* arguments;
        bool entryBefore;  // made by "/traceOn /persistent C:\before.etl"
        const wchar_t* fileName;
        const char* logLine;  // null: no main log
    } cases[] = {
        {L"/traceOn /persistent C:\\t.etl", false, L"C:\\t.etl", nullptr},
        {L"/TRACEON /PERSISTENT x y C:\\last.etl", false, L"C:\\last.etl", nullptr},
        {L"/traceOn /persistent", false, L"", nullptr},  // a trace file named "/persistent"
        {L"/traceOn /persistent C:\\t.etl", true, L"C:\\before.etl", nullptr},
        {L"/traceOff", true, L"C:\\before.etl", nullptr},
        {L"/traceOff /persistent", true, L"", nullptr},
        {L"/File C:\\missing.etl", false, L"", "TRACE [LogSettings] Flags: 0x100: "},
        {L"", false, L"", nullptr},
    };
    TempFolder folder;
    const std::wstring mainLog = folder.Path() + L"plmx.txt";
    for (const auto& c : cases) {
        SCOPED_TRACE(Narrow(c.arguments));
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kEntryKey.c_str());
        DeleteFileW(mainLog.c_str());
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettingsKeyPath, L"LogPath", REG_SZ,
                        folder.Path().c_str(),
                        static_cast<DWORD>((folder.Path().size() + 1) * sizeof(wchar_t)));
        if (c.entryBefore) {
            ASSERT_EQ(RunProgram(kPlmx, L"/traceOn /persistent C:\\before.etl").exitCode, 0u);
        }
        EXPECT_EQ(RunProgram(kPlmx, c.arguments).exitCode, *c.arguments ? 0u : DWORD(-1));
        EXPECT_EQ(BootEntry(), c.fileName);
        if (c.logLine != nullptr) {
            EXPECT_THAT(Tagged(ReadLines(mainLog)), ::testing::Contains(c.logLine));
        } else {
            EXPECT_EQ(GetFileAttributesW(mainLog.c_str()), INVALID_FILE_ATTRIBUTES);
        }
    }
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kEntryKey.c_str());
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath);
}

constexpr wchar_t kName[] = L"PlmxTestWrapper";

void CloseService(SC_HANDLE service) {
    CloseServiceHandle(service);
}
using ServiceHandle = UniqueAny<SC_HANDLE, &CloseService>;

DWORD Control(SC_HANDLE service, DWORD control) {
    SERVICE_STATUS status;
    return ControlService(service, control, &status) ? ERROR_SUCCESS : GetLastError();
}

DWORD WaitFor(SC_HANDLE service, DWORD state) {
    SERVICE_STATUS status{};
    for (int polls = 0;
         QueryServiceStatus(service, &status) && status.dwCurrentState != state && polls < 600;
         ++polls) {
        Sleep(50);
    }
    return status.dwCurrentState;
}

// The process a running service runs in, to wait for: it may still write its
// log after the manager reports the service stopped.
UniqueHandle ServiceProcess(SC_HANDLE service) {
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                              sizeof status, &needed)) {
        return UniqueHandle();
    }
    return UniqueHandle(OpenProcess(SYNCHRONIZE, FALSE, status.dwProcessId));
}

// Also one an earlier run left behind.
void Remove(SC_HANDLE manager) {
    const ServiceHandle service(OpenServiceW(manager, kName, SERVICE_ALL_ACCESS));
    if (Control(service.Get(), SERVICE_CONTROL_STOP) == ERROR_SUCCESS) {
        WaitFor(service.Get(), SERVICE_STOPPED);
    }
    DeleteService(service.Get());
}

// Installed as with "sc create"; the body still sleeps when the stop comes,
// which the stop event keeps until the body waits.
TEST(ServiceTest, RunsTheBodyUntilStoppedAnsweringInterrogateAndIgnoringOtherControls) {
    TempFolder folder;
    std::wstring logFolder = folder.Path();
    logFolder.pop_back();  // a backslash before the closing quote would escape it
    const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    Remove(manager.Get());
    const ServiceHandle service(
        CreateServiceW(manager.Get(), kName, kName, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                       SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                       (L"\"" SERVICE_HOST "\" PlmxTestWrapper \"" + logFolder + L"\"").c_str(),
                       nullptr, nullptr, nullptr, nullptr, nullptr));
    // Wine's manager starts its own services for up to a minute after the
    // prefix boots; a start asked for meanwhile finds the database locked.
    for (int tries = 0; !StartServiceW(service.Get(), 0, nullptr) && tries < 2400; ++tries) {
        ASSERT_THAT(GetLastError(),
                    ::testing::AnyOf(ERROR_SERVICE_DATABASE_LOCKED, ERROR_SERVICE_REQUEST_TIMEOUT));
        Sleep(50);
    }
    ASSERT_EQ(WaitFor(service.Get(), SERVICE_RUNNING), static_cast<DWORD>(SERVICE_RUNNING));
    const UniqueHandle process = ServiceProcess(service.Get());
    EXPECT_EQ(Control(service.Get(), SERVICE_CONTROL_INTERROGATE), ERROR_SUCCESS);
    Control(service.Get(), 128);  // a user-defined control, passed on by the manager
    EXPECT_EQ(Control(service.Get(), SERVICE_CONTROL_STOP), ERROR_SUCCESS);
    EXPECT_EQ(WaitFor(service.Get(), SERVICE_STOPPED), static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(WaitForSingleObject(process.Get(), 30000), WAIT_OBJECT_0);
    Remove(manager.Get());

    // The wrapper's lines from the last start that reached running: starts
    // that Wine's busy manager gave up on leave failed registrations, or a
    // service that ran for a moment, before it.
    const std::string setStatus =
        "DEBUG [SimpleService::SvcContext::SetServiceStatus] Setting service status to ";
    std::vector<std::string> lines;
    for (const std::string& line : Tagged(ReadLines(folder.Path() + L"plmx.txt"))) {
        if (line == setStatus + "4") {
            lines.clear();
        }
        if (line.find("[SimpleService::") != std::string::npos) {
            lines.push_back(line);
        }
    }
    EXPECT_THAT(
        lines,
        ::testing::ElementsAre(
            setStatus + "4",
            "TRACE [SimpleService::StaticHandlerEx] Received SERVICE_CONTROL_INTERROGATE",
            setStatus + "-1",
            "ERROR [SimpleService::StaticHandlerEx] Ignored Service Request: 0x80",
            "TRACE [SimpleService::StaticHandlerEx] STOP: Received SERVICE_CONTROL_STOP",
            setStatus + "3", "FATAL [SimpleService::StaticServiceMain] Service stopped, result: 7",
            setStatus + "1"));
}

}  // namespace
}  // namespace plmx::testing
