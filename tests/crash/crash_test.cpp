#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "crash/DumpName.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogFiles.h"

namespace {

using plmx::testing::Narrow;
using plmx::testing::ReadLines;
using plmx::testing::Tagged;
using plmx::testing::TempFolder;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::StartsWith;

namespace fs = std::filesystem;

constexpr char kEarlierDump[] =
    "PLMX_MINIDUMP_1_2_0xC0000005_ACCESS_VIOLATION_01_01_2024__00_00_00_0000.dmp";
constexpr char kOldSchemeFile[] = "NRVLOGONSERVICE_MINIDUMP_1.dmp";
constexpr char kOldSchemeFolder[] = "NRVLOGONSERVICE_MINIDUMP_2.dmp";

void Touch(const fs::path& path) {
    std::ofstream(path) << "x";
}

std::set<std::string> Names(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

// The data folder with a dump of this program's naming, and a read-only file
// and an empty folder of the older naming that a dump's purge removes.
fs::path PrepareDataFolder(const std::wstring& base) {
    const fs::path data = fs::path(base) / "dumps";
    fs::create_directory(data);
    Touch(data / kEarlierDump);
    Touch(data / kOldSchemeFile);
    SetFileAttributesW((data / kOldSchemeFile).c_str(), FILE_ATTRIBUTE_READONLY);
    fs::create_directory(data / kOldSchemeFolder);
    return data;
}

// Wine starts its debugger after a crash unless the configured one cannot be
// found; that saves seconds per crash. The configured one is restored.
class NoPostMortemDebugger {
  public:
    NoPostMortemDebugger() {
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, kAeDebugKey, 0, nullptr, 0, KEY_READ | KEY_WRITE,
                        nullptr, &key_, nullptr);
        DWORD size = sizeof(saved_);
        hadValue_ = RegQueryValueExW(key_, L"Debugger", nullptr, nullptr,
                                     reinterpret_cast<BYTE*>(saved_), &size) == ERROR_SUCCESS;
        Set(L"plmx-no-such-debugger.exe");
    }
    ~NoPostMortemDebugger() {
        if (hadValue_) {
            Set(saved_);
        } else {
            RegDeleteValueW(key_, L"Debugger");
        }
        RegCloseKey(key_);
    }
    NoPostMortemDebugger(const NoPostMortemDebugger&) = delete;
    NoPostMortemDebugger& operator=(const NoPostMortemDebugger&) = delete;

  private:
    static constexpr wchar_t kAeDebugKey[] =
        L"Software\\Microsoft\\Windows NT\\CurrentVersion\\AeDebug";

    void Set(const wchar_t* debugger) {
        RegSetValueExW(key_, L"Debugger", 0, REG_SZ, reinterpret_cast<const BYTE*>(debugger),
                       static_cast<DWORD>((wcslen(debugger) + 1) * sizeof(wchar_t)));
    }

    HKEY key_ = nullptr;
    wchar_t saved_[512] = {};
    bool hadValue_ = false;
};

TEST(CrashTest, AFaultLeavesItsLineAndADumpNamedForItOrOnlyTheLineWithDumpsOff) {
    const struct {
        const wchar_t* mode;
        bool dumped;
    } cases[] = {{L"dumps", true}, {L"nodumps", false}};
    const NoPostMortemDebugger noDebugger;
    for (const auto& c : cases) {
        TempFolder folder;
        const fs::path data = PrepareDataFolder(folder.Path());
        const auto run =
            plmx::testing::RunProgram(plmx::testing::BuildTreePath(CRASHING_PROGRAM),
                                      L"\"" + data.parent_path().wstring() + L"\" " + c.mode);
        EXPECT_EQ(run.exitCode, 0xC0000005u);

        const std::string dump = "PLMX_MINIDUMP_" + std::to_string(run.processId) + "_" +
                                 std::to_string(run.mainThreadId) +
                                 "_0xC0000005_ACCESS_VIOLATION_03_02_2024__14_03_07_0089.dmp";
        const std::vector<std::string> lines = Tagged(ReadLines(folder.Path() + L"plmx.txt"));
        EXPECT_THAT(lines, Contains(AllOf(
                               StartsWith("ERROR [NRVUnhandledExceptionFilter] Exception Occured: "
                                          "Process: "),
                               HasSubstr(", ProcessId: " + std::to_string(run.processId) +
                                         ", Code: 0xC0000005, Flags: 0x0, Address: 0x"))));
        if (!c.dumped) {
            EXPECT_EQ(lines.size(), 2u);
            EXPECT_EQ(Names(data),
                      (std::set<std::string>{kEarlierDump, kOldSchemeFile, kOldSchemeFolder}));
            SetFileAttributesW((data / kOldSchemeFile).c_str(), FILE_ATTRIBUTE_NORMAL);
            continue;
        }
        const std::string dataText = "\\\\?\\" + Narrow(data.wstring());
        EXPECT_THAT(lines,
                    IsSupersetOf(std::vector<std::string>{
                        "INFO [NRVPurgeDumps] Found " + dataText + "\\" + kOldSchemeFile,
                        "INFO [NRVPurgeDumps] Cleared RO Bit: " + dataText + "\\" + kOldSchemeFile,
                        "ERROR [NRVGenerateDumpEx] Opened Dump File: " + dataText + "\\" + dump,
                        "INFO [NRVGenerateDumpEx] MiniDumpWriteDump Succeeded"}));
        EXPECT_EQ(Names(data), (std::set<std::string>{kEarlierDump, dump}));
        EXPECT_EQ(plmx::testing::ReadFileBytes((data / dump).wstring()),
                  "type 0x7 thread " + std::to_string(run.mainThreadId) + " pointers 1");
    }
}

TEST(CrashTest, ExceptionsWithoutAShortNameAreNamedByTheSystemOrUnknown) {
    EXPECT_EQ(ExceptionName(0xC00000FD), L"STACK_OVERFLOW");
    EXPECT_EQ(ExceptionName(0x80000001), L"GUARD_PAGE");
    EXPECT_EQ(ExceptionName(0x2BADC0DE), L"UNKNOWN");
}

}  // namespace
