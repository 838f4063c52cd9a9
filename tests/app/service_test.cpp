// The service wrapper as the service control manager meets it: a service
// host built on it is installed in the test prefix, started, asked and
// stopped; its log and reported states are observed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/app/InstalledService.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogFiles.h"

namespace plmx::testing {
namespace {

using ::testing::ElementsAre;

const std::wstring kServiceHost = BuildTreePath(SERVICE_HOST);

// "<level> [<function>] <message>" of the wrapper's lines from the start
// that reached running: starts that Wine's busy manager gave up on just after
// the prefix booted leave failed handler registrations before it.
std::vector<std::string> WrapperLines(const TempFolder& folder) {
    std::vector<std::string> lines;
    for (const std::string& line : Tagged(ReadLines(folder.Path() + L"plmx.txt"))) {
        if (line.find("[SimpleService::") == std::string::npos) {
            continue;
        }
        if (line.find("RegisterServiceCtrlHandlerEx(") != std::string::npos) {
            lines.clear();
            continue;
        }
        lines.push_back(line);
    }
    return lines;
}

std::wstring HostCommandLine(const wchar_t* name, const TempFolder& folder, int delayMs,
                             int result) {
    std::wstring logFolder = folder.Path();
    logFolder.pop_back();  // a backslash before the closing quote would escape it
    return L"\"" + kServiceHost + L"\" " + name + L" \"" + logFolder + L"\" " +
           std::to_wstring(delayMs) + L" " + std::to_wstring(result);
}

TEST(ServiceTest, RunsTheBodyUntilStoppedAnsweringInterrogateAndIgnoringOtherControls) {
    TempFolder folder;
    InstalledService service(L"PlmxTestWrapper", HostCommandLine(L"PlmxTestWrapper", folder, 0, 7));
    ASSERT_EQ(service.Start(), ERROR_SUCCESS);
    ASSERT_EQ(service.WaitFor(SERVICE_RUNNING), static_cast<DWORD>(SERVICE_RUNNING));

    EXPECT_EQ(service.Control(SERVICE_CONTROL_INTERROGATE), ERROR_SUCCESS);
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_RUNNING));
    service.Control(128);  // a user-defined control, passed on by the manager
    EXPECT_EQ(service.Control(SERVICE_CONTROL_STOP), ERROR_SUCCESS);
    EXPECT_EQ(service.WaitFor(SERVICE_STOPPED), static_cast<DWORD>(SERVICE_STOPPED));

    constexpr char kSetStatus[] =
        "DEBUG [SimpleService::SvcContext::SetServiceStatus] Setting service status to ";
    EXPECT_THAT(
        WrapperLines(folder),
        ElementsAre(std::string(kSetStatus) + "4",
                    "TRACE [SimpleService::StaticHandlerEx] Received SERVICE_CONTROL_INTERROGATE",
                    std::string(kSetStatus) + "-1",
                    "ERROR [SimpleService::StaticHandlerEx] Ignored Service Request: 0x80",
                    "TRACE [SimpleService::StaticHandlerEx] STOP: Received SERVICE_CONTROL_STOP",
                    std::string(kSetStatus) + "3",
                    "FATAL [SimpleService::StaticServiceMain] Service stopped, result: 7",
                    std::string(kSetStatus) + "1"));
}

TEST(ServiceTest, AStopSentBeforeTheBodyWaitsIsNotLost) {
    TempFolder folder;
    InstalledService service(L"PlmxTestEarlyStop",
                             HostCommandLine(L"PlmxTestEarlyStop", folder, 1500, 0));
    ASSERT_EQ(service.Start(), ERROR_SUCCESS);
    ASSERT_EQ(service.WaitFor(SERVICE_RUNNING), static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_EQ(service.Control(SERVICE_CONTROL_STOP), ERROR_SUCCESS);

    EXPECT_EQ(service.WaitFor(SERVICE_STOPPED), static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_THAT(WrapperLines(folder),
                ::testing::Contains("FATAL [SimpleService::StaticServiceMain] "
                                    "Service stopped, result: 0"));
}

TEST(ServiceTest, StartedFromAConsoleTheDispatcherFailsWithMinusOne) {
    TempFolder folder;
    std::wstring arguments = HostCommandLine(L"PlmxTestConsole", folder, 0, 0);
    arguments.erase(0, kServiceHost.size() + 3);
    EXPECT_EQ(RunProgram(kServiceHost, arguments).exitCode, static_cast<DWORD>(-1));
    EXPECT_THAT(WrapperLines(folder),
                ElementsAre("ERROR [SimpleService::Run] StartServiceCtrlDispatcher failed, "
                            "win32 error 1063"));
}

}  // namespace
}  // namespace plmx::testing
