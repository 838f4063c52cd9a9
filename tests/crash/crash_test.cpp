#include <windows.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "tests/support/ChildProcess.h"
#include "tests/support/LogFiles.h"

namespace plmx::testing {
namespace {

namespace fs = std::filesystem;
using namespace ::testing;

constexpr char kEarlierDump[] =
    "PLMX_MINIDUMP_1_2_0xC0000005_ACCESS_VIOLATION_01_01_2024__00_00_00_0000.dmp";
constexpr char kOldSchemeFile[] = "NRVLOGONSERVICE_MINIDUMP_1.dmp";
constexpr char kOldSchemeFolder[] = "NRVLOGONSERVICE_MINIDUMP_2.dmp";

TEST(CrashTest, FaultsAreLoggedAndDumpedUnlessDumpsAreOffADumpPurgingTheOlderNaming) {
    TempFolder folder;
    const fs::path data = fs::path(folder.Path()) / "dumps";
    fs::create_directories(data / kOldSchemeFolder);
    std::ofstream(data / kEarlierDump) << "x";
    std::ofstream(data / kOldSchemeFile) << "x";
    SetFileAttributesW((data / kOldSchemeFile).c_str(), FILE_ATTRIBUTE_READONLY);
    const auto crash = [&data](const wchar_t* mode) {
        const ProgramRun run =
            RunProgram(L"" CRASHING_PROGRAM, L"\"" + data.parent_path().wstring() + L"\" " + mode);
        EXPECT_EQ(run.exitCode, 0xC0000005u) << Narrow(mode);
        return run;
    };
    const auto faultLine = [](const ProgramRun& run) {
        return ::testing::MatchesRegex(
            "ERROR \\[NRVUnhandledExceptionFilter\\] Exception Occured: Process: .*, ProcessId: " +
            std::to_string(run.processId) + ", Code: 0xC0000005, Flags: 0x0, Address: 0x\\w+");
    };

    const ProgramRun off = crash(L"nodumps");
    const ProgramRun on = crash(L"dumps");
    const std::string thread = std::to_string(on.mainThreadId);
    const std::string dump = "PLMX_MINIDUMP_" + std::to_string(on.processId) + "_" + thread +
                             "_0xC0000005_ACCESS_VIOLATION_03_02_2024__14_03_07_0089.dmp";
    EXPECT_TRUE(fs::exists(data / kEarlierDump));
    EXPECT_FALSE(fs::exists(data / kOldSchemeFile) || fs::exists(data / kOldSchemeFolder));
    EXPECT_EQ(ReadFileBytes((data / dump).wstring()), "type 0x7 thread " + thread + " pointers 1");
    const std::string prefix = "\\\\?\\" + Narrow(data.wstring()) + "\\";
    EXPECT_THAT(Tagged(ReadLines(folder.Path() + L"plmx.txt")),
                ElementsAre(StartsWith("INFO [OpenMainLog] "), faultLine(off),
                            StartsWith("INFO [OpenMainLog] "), faultLine(on),
                            "INFO [NRVPurgeDumps] Found " + prefix + kOldSchemeFile,
                            "INFO [NRVPurgeDumps] Cleared RO Bit: " + prefix + kOldSchemeFile,
                            "INFO [NRVPurgeDumps] Found " + prefix + kOldSchemeFolder,
                            "ERROR [NRVGenerateDumpEx] Opened Dump File: " + prefix + dump,
                            "INFO [NRVGenerateDumpEx] MiniDumpWriteDump Succeeded"));
}

}  // namespace
}  // namespace plmx::testing
