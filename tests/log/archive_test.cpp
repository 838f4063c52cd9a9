#include <gtest/gtest.h>

#include <windows.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/LogSettings.h"
#include "app/Settings.h"
#include "log/LogWriter.h"
#include "log/SessionLog.h"
#include "log/SessionLogArchive.h"
#include "tests/support/LogFiles.h"

using namespace plmx::testing;
using Lines = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

constexpr char kArchive[] = "plmx__DESK01_alice_11_23_2026__09_05_07_0042.txt";

// 23 November 2026, 09:05:07.042 local time.
SYSTEMTIME FixedTime() {
    return {2026, 11, 1, 23, 9, 5, 7, 42};
}

// Stands for the user's token: records what is done with it and gives the
// user's environment, in which %USERNAME% is "alice".
class FakeUser final : public Impersonation {
  public:
    bool Impersonate(HANDLE) override {
        calls.push_back("impersonate");
        if (whileImpersonating) {
            whileImpersonating();
        }
        return allow;
    }
    void Revert() override { calls.push_back("revert"); }
    DWORD ExpandEnvironment(HANDLE token, const std::wstring& text,
                            std::wstring* expanded) override {
        if (token == nullptr) {
            return Impersonation::ExpandEnvironment(token, text, expanded);
        }
        *expanded = text;
        expanded->replace(text.find(L"%USERNAME%"), 10, L"alice");
        return ERROR_SUCCESS;
    }

    bool allow = true;
    Lines calls;
    std::function<void()> whileImpersonating;
};

void WriteFile(const std::wstring& path, const std::string& text) {
    std::ofstream(fs::path(path), std::ios::binary) << text;
}

// The name the service's own environment gives.
std::wstring ServiceUser() {
    std::wstring name;
    DefaultImpersonation().ExpandEnvironment(nullptr, L"%USERNAME%", &name);
    return name;
}

class ArchiveTest : public ::testing::Test {
  protected:
    ArchiveTest() {
        ComputerNames::Instance().computerName = L"DESK01";
        fs::create_directory(fs::path(remote_.Path() + L"alice"));
        fs::create_directory(fs::path(remote_.Path() + ServiceUser()));
        Settings::Instance().RemoteLogPath = uncRemote_ + L"\\%USERNAME%";
    }
    ~ArchiveTest() override { ComputerNames::Instance() = {}; }

    // Opens session 3's log in the log folder with `text` in it.
    void OpenSession(const std::string& text) {
        ASSERT_TRUE(OpenLog(Settings::Instance().LogPath + L"plmx_session_X_3.txt", session_));
        fputs(text.c_str(), session_.stream);
    }
    uint32_t Roll(const std::wstring& user = L"alice") {
        return RollSessionLogFile(session_, 3, user, token_, system_);
    }
    // The archive's, the upload's and other threads' lines in the main log, as
    // "TAG [source] message".
    Lines Written() {
        Lines lines = Tagged(ReadLines(mainLog_.Path()));
        std::erase_if(lines, [](const std::string& line) {
            return line.find("[RollSessionLogFile]") == std::string::npos &&
                   line.find("[UploadLogFile]") == std::string::npos &&
                   line.find("[Other]") == std::string::npos;
        });
        return lines;
    }
    std::string Destination(const std::wstring& user) {
        return "\\\\?\\UNC\\" + Narrow(uncRemote_.substr(2) + L"\\" + user) +
               "\\DESK01_alice_3_11_23_2026T09_05_07_0042.txt";
    }
    std::string Uploaded(const std::wstring& user) {
        return "TRACE [UploadLogFile] Uploaded Log: Src: " + Narrow(Settings::Instance().LogPath) +
               kArchive + ", Dest: " + Destination(user);
    }

    TempFolder folder_;
    TempFolder remote_;
    ScopedMainLog mainLog_{folder_.Path()};
    SessionLog session_;
    // Any real handle will do: only the fake user looks at it.
    AccessToken token_{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    FakeUser user_;
    const ArchiveSystem system_{user_, &FixedTime};
    // The remote folder through its drive's administrative share.
    const std::wstring uncRemote_ = L"\\\\localhost\\" + remote_.Path().substr(0, 1) + L"$" +
                                    remote_.Path().substr(2, remote_.Path().size() - 3);
};

TEST_F(ArchiveTest, KeepsAtMostTheHistoryDepth) {
    // Archives a<i> of distinct ages, not in name order, beside another computer's.
    constexpr int kAgeInDays[] = {3, 5, 0, 4, 2};
    const std::string a0 = "plmx__DESK01_a0", a2 = "plmx__DESK01_a2", a4 = "plmx__DESK01_a4";
    const std::string bak = "plmx_session_X_3.txt.bak";
    const std::string other = "plmx__OTHERPC_bob_01_01_2020__00_00_00_0000.txt";
    const struct {
        const char* name;
        const wchar_t* user;
        uint32_t depth;
        int archives;
        bool searchFails;
        std::set<std::string> left;
    } cases[] = {
        {"oldest three of five go", L"alice", 3, 5, false, {a2, a4, kArchive, other}},
        {"history nearly full drops the .bak", L"alice", 1, 0, false, {kArchive, other}},
        {"history with room keeps the .bak", L"alice", 3, 1, false, {a0, kArchive, bak, other}},
        {"SYSTEM's log is deleted", L"SYSTEM", 10, 0, false, {bak, other}},
        {"failed search falls back to .bak", L"alice", 3, 0, true, {bak, other}},
    };
    Settings::Instance().RemoteLogPath.clear();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::wstring folder = folder_.Path() + fs::path(c.name).wstring() + L"\\";
        fs::create_directory(fs::path(folder));
        Settings::Instance().LogPath = L"\\\\?\\" + folder;
        Settings::Instance().LogHistoryDepth = c.depth;
        OpenSession("lines");
        WriteFile(folder + fs::path(bak).wstring(), "older");
        WriteFile(folder + fs::path(other).wstring(), "");
        for (int i = 0; i < c.archives; ++i) {
            const std::wstring path = folder + L"plmx__DESK01_a" + std::to_wstring(i);
            WriteFile(path, "");
            fs::last_write_time(
                path, fs::file_time_type::clock::now() - std::chrono::hours(24 * kAgeInDays[i]));
        }
        if (c.searchFails) {
            Settings::Instance().LogPath += L"missing\\";
        }

        EXPECT_EQ(Roll(c.user), 0u);
        std::set<std::string> left;
        for (const auto& entry : fs::directory_iterator(folder)) {
            left.insert(entry.path().filename().string());
        }
        EXPECT_EQ(left, c.left);
    }
}

TEST_F(ArchiveTest, UploadsACopyAsTheUserOnlyWhenThereIsOneToMake) {
    const std::string src = Narrow(Settings::Instance().LogPath) + "plmx_session_X_3.txt";
    const std::wstring service = ServiceUser();
    const Lines asService = {Uploaded(service)};
    const Lines asUser = {Uploaded(L"alice")};
    const Lines refused = {"ERROR [UploadLogFile] Failed Impersonating: User: alice, SessionId: 3",
                           Uploaded(service)};
    const Lines exists = {
        "ERROR [UploadLogFile] Failed Uploading Log: Src: " + Narrow(Settings::Instance().LogPath) +
            kArchive + ", Dest: " + Destination(service) + ", 0x80070050",
        "ERROR [RollSessionLogFile] Failed Uploading Log File: Src: " + src +
            ", Dest: " + Narrow(uncRemote_ + L"\\" + service) + ", 0x80070050"};
    const Lines empty = {"ERROR [RollSessionLogFile] Log File Was Empty: Path: " + src +
                         ", HRESULT: 0x0, Size: 0"};
    const Lines blank = {
        "INFO [RollSessionLogFile] Upload is disabled because RemoteLogPath is blank: Src: " + src};
    const Lines both = {"impersonate", "revert"};
    const Lines tried = {"impersonate"};
    const struct {
        const char* name;
        uint32_t flags;
        bool blankRemote;
        bool allow;
        const char* text;     // of the session log
        const char* earlier;  // already at the destination
        Lines lines;
        Lines calls;
        const char* copy;  // at the destination afterwards
    } cases[] = {
        {"service's environment", 0, false, true, "lines", nullptr, asService, both, "lines"},
        {"user's environment", FLAG_ENABLE_USER_LOG_FOLDERS, false, true, "lines", nullptr, asUser,
         both, "lines"},
        {"never over an existing file", 0, false, true, "lines", "earlier", exists, both,
         "earlier"},
        {"impersonation refused", 0, false, false, "lines", nullptr, refused, tried, "lines"},
        {"empty log", 0, false, true, "", nullptr, empty, {}, nullptr},
        {"blank remote path", 0, true, true, "lines", nullptr, blank, {}, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::wstring user = c.flags != 0 ? L"alice" : service;
        const fs::path destination =
            remote_.Path() + user + L"\\DESK01_alice_3_11_23_2026T09_05_07_0042.txt";
        fs::remove(destination);
        if (c.earlier) {
            WriteFile(destination.wstring(), c.earlier);
        }
        Settings::Instance().Flags = c.flags;
        if (c.blankRemote) {
            Settings::Instance().RemoteLogPath.clear();
        }
        user_.allow = c.allow;
        user_.calls.clear();
        OpenSession(c.text);
        const size_t before = Written().size();

        Roll();
        const Lines written = Written();
        EXPECT_EQ(Lines(written.begin() + before, written.end()), c.lines);
        EXPECT_EQ(user_.calls, c.calls);
        EXPECT_EQ(ReadFileBytes(Settings::Instance().LogPath + fs::path(kArchive).wstring()),
                  c.text);
        EXPECT_EQ(fs::exists(destination) ? ReadFileBytes(destination) : "<none>",
                  c.copy ? c.copy : "<none>");
    }
}

TEST_F(ArchiveTest, NoOtherLineIsWrittenWhileTheUploadImpersonates) {
    std::future<void> other;
    user_.whileImpersonating = [&] {
        other = std::async(std::launch::async,
                           [] { LogMessage(nullptr, LOG_LEVEL_INFO, L"Other", "meanwhile"); });
        EXPECT_EQ(other.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    };
    OpenSession("lines");
    Roll();
    other.wait();
    const Lines written = Written();
    EXPECT_EQ(Lines(written.end() - 2, written.end()),
              (Lines{Uploaded(ServiceUser()), "INFO [Other] meanwhile"}));
}

TEST_F(ArchiveTest, RevertsAlsoWhenTheUploadsOwnLineThrows) {
    // That line makes the main log roll, which fails: a folder holds the
    // backup's name.
    CreateDirectoryW(mainLog_.BackupPath().c_str(), nullptr);
    Settings::Instance().LogMaxSize = 0;
    WriteFile(folder_.Path() + L"source.txt", "lines");
    EXPECT_THROW(UploadLogFile(L"alice", 3, folder_.Path() + L"source.txt", uncRemote_ + L"\\alice",
                               token_, system_),
                 std::runtime_error);
    EXPECT_EQ(user_.calls, (Lines{"impersonate", "revert"}));
}

}  // namespace
