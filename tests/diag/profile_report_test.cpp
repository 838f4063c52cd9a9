#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdio>
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

// A file of `size` bytes, sparse on the host's file system.
void MakeFile(const std::wstring& path, uint64_t size) {
    std::ofstream{std::filesystem::path(path)};
    std::filesystem::resize_file(path, size);
}

// Records that the report impersonated with the token and reverted.
class FakeImpersonation : public Impersonation {
  public:
    bool Impersonate(HANDLE token) override {
        calls += "impersonate ";
        return token != nullptr;
    }
    void Revert() override { calls += "revert"; }
    std::string calls;
};

class ProfileReportTest : public ::testing::Test {
  protected:
    Lines Report(const std::wstring& profile) {
        session_.sessionId = 3;
        session_.localProfilePath = profile;
        LogProfileSize(session_, impersonation_);
        return LinesFrom(log_.Path(), "");
    }

    TempFolder folder_;
    ScopedMainLog log_{folder_.Path()};
    logonmon::SESSION_CONTEXT session_;
    FakeImpersonation impersonation_;
};

TEST_F(ProfileReportTest, CountsFilesBySizeSkipsLinksAndSurvivesUnsearchableFolders) {
    const std::wstring root = folder_.Path() + L"profile";
    for (const std::wstring& path :
         {root, root + L"\\AppData", root + L"\\AppData\\Roaming", root + L"\\Desktop"}) {
        ASSERT_TRUE(CreateDirectoryW(path.c_str(), nullptr));
    }
    MakeFile(root + L"\\ntuser.dat", 1048575);
    MakeFile(root + L"\\AppData\\Roaming\\one.bin", 1048576);
    MakeFile(root + L"\\Desktop\\big.vhd", 1073741824);
    MakeFile(root + L"\\Desktop\\ten.bin", 10 * 1048576);
    // Where the system can make one, a link back into the profile must
    // change nothing (Wine's call succeeds without making a link).
    CreateSymbolicLinkW((root + L"\\Link").c_str(), (root + L"\\Desktop").c_str(),
                        SYMBOLIC_LINK_FLAG_DIRECTORY);
    const std::string sizes[] = {"  0 to < 1MB: 1",      "  1MB to < 10MB: 1",
                                 "  10MB to < 100MB: 1", "  100MB to < 1GB: 0",
                                 "  1GB to < 10GB: 1",   "  >= 10GB: 0"};
    Lines lines = Report(root);
    ASSERT_GE(lines.size(), 8u);
    EXPECT_EQ(lines[1], "INFO Profile Size: 1036.00MB, Files: 4, Folders: 3. sessionId=3");
    for (size_t i = 0; i < std::size(sizes); ++i) {
        EXPECT_EQ(lines[3 + i], "INFO " + sizes[i]);
    }

    // A folder that cannot be searched loses only its own figures; the
    // report goes on. (Wine lets its root user search any folder, so the
    // missing folder stands for an unreadable one.)
    lines = Report(root + L"\\gone");
    const auto failed =
        std::find(lines.begin(), lines.end(),
                  "ERROR FindFirstFile Failed: Path: " + Narrow(root) + "\\gone\\*, 0x80070003");
    ASSERT_NE(failed, lines.end());
    EXPECT_EQ(failed[1], "INFO Profile Size: 1036.00MB, Files: 4, Folders: 3. sessionId=3");
}

TEST_F(ProfileReportTest, EmptyProfileAndDiskLinesWithAndWithoutAToken) {
    const std::wstring empty = folder_.Path() + L"empty";
    ASSERT_TRUE(CreateDirectoryW(empty.c_str(), nullptr));
    Lines lines = Report(empty);
    lines.erase(lines.begin());  // the main log's opening line
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(lines[0], "INFO Profile Size: 0.00MB, Files: 0, Folders: 0. sessionId=3");
    EXPECT_EQ(lines[1], "INFO File Size Distribution For sessionId=3:");
    EXPECT_EQ(Lines(lines.begin() + 8, lines.begin() + 10),
              (Lines{"INFO No user token available.  Collecting user-independent free disk "
                     "space metrics.",
                     "INFO Disk Space Metrics For User Profile Volume:"}));
    const DiskStatistics& disk = session_.sessionLog->disk;
    EXPECT_EQ(lines.back(),
              "INFO Total Disk Space: " + std::to_string(disk.totalBytes >> 30) + " GB");
    EXPECT_GT(disk.totalBytes, 0u);
    EXPECT_EQ(impersonation_.calls, "");

    // With the user's token the query runs as the user, who is reverted to
    // the service also when the query fails.
    HANDLE token = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, &token));
    session_.sessionLog->userToken.Reset(token);
    DiskStatistics ignored;
    const uint32_t result =
        GetDiskMetrics(session_, L"Q:\\no such volume\\", ignored, impersonation_);
    EXPECT_EQ(impersonation_.calls, "impersonate revert");
    char code[16];
    snprintf(code, sizeof(code), "0x%X", result);
    EXPECT_EQ(result & 0xFFFF0000u, 0x80070000u);
    EXPECT_EQ(LinesFrom(log_.Path(), "GetDiskMetrics").back(),
              "ERROR Failed Retreiving Disk Metrics: Q:\\no such volume\\, " + std::string(code));
}

}  // namespace
