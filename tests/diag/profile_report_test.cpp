#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "diag/ProfileReport.h"
#include "log/SessionLog.h"
#include "logonmon/SessionContext.h"
#include "tests/support/LogFiles.h"

using namespace plmx::testing;
using Lines = std::vector<std::string>;

namespace {

struct FakeImpersonation : Impersonation {
    bool Impersonate(HANDLE token) override {
        calls += "impersonate ";
        return token != nullptr;
    }
    void Revert() override { calls += "revert"; }
    std::string calls;
};

TEST(ProfileReportTest, CountsFilesBySizeAndReportsTheVolumeAsTheUser) {
    TempFolder folder;
    ScopedMainLog log(folder.Path());
    FakeImpersonation impersonation;
    logonmon::SESSION_CONTEXT session;
    session.sessionId = 3;
    const auto report = [&](const std::wstring& profile) {
        const size_t before = LinesFrom(log.Path(), "").size();
        session.localProfilePath = profile;
        LogProfileSize(session, impersonation);
        const Lines lines = LinesFrom(log.Path(), "");
        return Lines(lines.begin() + before, lines.end());
    };
    const std::wstring root = folder.Path() + L"profile";
    for (const wchar_t* sub : {L"", L"\\AppData", L"\\AppData\\Roaming", L"\\Desktop"}) {
        ASSERT_TRUE(CreateDirectoryW((root + sub).c_str(), nullptr));
    }
    // Sparse on the host's file system.
    for (const auto& [path, size] : {std::pair{L"\\ntuser.dat", 1048575ull},
                                     {L"\\AppData\\Roaming\\one.bin", 1048576ull},
                                     {L"\\Desktop\\big.vhd", 1073741824ull},
                                     {L"\\Desktop\\ten.bin", 10 * 1048576ull}}) {
        std::ofstream{std::filesystem::path(root + path)};
        std::filesystem::resize_file(root + path, size);
    }
    // A folder that cannot be searched loses only its own figures; the report
    // goes on. (Wine lets its root user search any folder, so a missing
    // folder stands for an unreadable one.)
    Lines lines = report(root + L"\\gone");
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0],
              "ERROR FindFirstFile Failed: Path: " + Narrow(root) + "\\gone\\*, 0x80070003");
    EXPECT_EQ(lines[1], "INFO Profile Size: 0.00MB, Files: 0, Folders: 0. sessionId=3");

    lines = report(root);
    const DiskStatistics& disk = session.sessionLog->disk;
    EXPECT_GT(disk.totalBytes, 0u);
    const Lines expected = {
        "INFO Profile Size: 1036.00MB, Files: 4, Folders: 3. sessionId=3",
        "INFO File Size Distribution For sessionId=3:",
        "INFO   0 to < 1MB: 1",
        "INFO   1MB to < 10MB: 1",
        "INFO   10MB to < 100MB: 1",
        "INFO   100MB to < 1GB: 0",
        "INFO   1GB to < 10GB: 1",
        "INFO   >= 10GB: 0",
        "INFO No user token available.  Collecting user-independent free disk space metrics.",
        "INFO Disk Space Metrics For User Profile Volume:"};
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 10), expected);
    EXPECT_EQ(lines.back(),
              "INFO Total Disk Space: " + std::to_string(disk.totalBytes >> 30) + " GB");
    EXPECT_EQ(impersonation.calls, "");
}

}  // namespace
