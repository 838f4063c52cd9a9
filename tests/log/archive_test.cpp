#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

#include "app/LogSettings.h"
#include "log/SessionLog.h"
#include "log/SessionLogArchive.h"
#include "tests/support/LogFiles.h"

using namespace plmx::testing;
using Lines = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

constexpr char kArchive[] = "plmx__DESK01_alice_11_23_2026__09_05_07_0042.txt";
constexpr wchar_t kCopy[] = L"DESK01_alice_3_11_23_2026T09_05_07_0042.txt";

SYSTEMTIME FixedTime() {
    return {2026, 11, 1, 23, 9, 5, 7, 42};
}

// The user's token: records what is done with it; in its environment
// %USERNAME% is "alice".
struct FakeUser final : Impersonation {
    bool Impersonate(HANDLE) override {
        calls += "impersonate ";
        return allow;
    }
    void Revert() override { calls += "revert"; }
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
    std::string calls;
};

void WriteFile(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// Session 3's log is archived beside older archives a<i> (of distinct ages,
// not in name order), its earlier fallback and another computer's archive,
// then copied to the remote folder, named by %USERNAME%, as the user, who is
// reverted to the service on every path.
struct Case {
    const char* name;
    uint32_t flags = FLAG_ENABLE_USER_LOG_FOLDERS;
    const wchar_t* user = L"alice";
    uint32_t depth = 10;
    int archives = 0;
    bool allow = true;
    const char* text = "lines";     // of the session log
    const char* earlier = nullptr;  // already at the destination
    bool remote = true;
    const Lines* lines = nullptr;  // the archive's and the upload's lines, if checked
    const char* calls = "impersonate revert";
    std::set<std::string> left = {};  // in the log folder, if checked
    const char* copy = "lines";       // at the destination afterwards
};

TEST(ArchiveTest, ArchivesKeepsTheHistoryDepthAndUploadsACopyAsTheUser) {
    TempFolder folder, remote;
    ScopedMainLog mainLog{folder.Path()};
    ComputerNames::Instance().computerName = L"DESK01";
    // Any real handle will do: only the fake user looks at it.
    const AccessToken token{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    FakeUser identity;
    const ArchiveSystem system{identity, &FixedTime};
    const std::wstring unc = L"\\\\localhost\\" + remote.Path().substr(0, 1) + L"$" +
                             remote.Path().substr(2, remote.Path().size() - 3);
    constexpr int kAgeInDays[] = {3, 5, 0, 4, 2};
    const std::string a0 = "plmx__DESK01_a0", a2 = "plmx__DESK01_a2", a4 = "plmx__DESK01_a4";
    const std::string bak = "plmx_session_X_3.txt.bak";
    const std::string other = "plmx__OTHERPC_bob_01_01_2020__00_00_00_0000.txt";
    std::wstring service;
    DefaultImpersonation().ExpandEnvironment(nullptr, L"%USERNAME%", &service);
    const std::string log = Narrow(Settings::Instance().LogPath);
    const auto route = [&](const std::wstring& user) {
        return "Src: " + log + kArchive + ", Dest: \\\\?\\UNC\\" +
               Narrow(unc.substr(2) + L"\\" + user + L"\\" + kCopy);
    };
    const std::string uploaded = "TRACE [UploadLogFile] Uploaded Log: ";
    const std::string src = "Src: " + log + "plmx_session_X_3.txt";
    const Lines asService = {uploaded + route(service)}, asUser = {uploaded + route(L"alice")};
    const Lines exists = {
        "ERROR [UploadLogFile] Failed Uploading Log: " + route(L"alice") + ", 0x80070050",
        "ERROR [RollSessionLogFile] Failed Uploading Log File: " + src + ", Dest: " + Narrow(unc) +
            "\\alice, 0x80070050"};
    const Lines refused = {"ERROR [UploadLogFile] Failed Impersonating: User: alice, SessionId: 3",
                           uploaded + route(L"alice")};
    const Lines empty = {"ERROR [RollSessionLogFile] Log File Was Empty: Path: " + src.substr(5) +
                         ", HRESULT: 0x0, Size: 0"};
    const Lines blank = {
        "INFO [RollSessionLogFile] Upload is disabled because RemoteLogPath is blank: " + src};
    const Case cases[] = {
        {.name = "oldest 3 of 5 go", .depth = 3, .archives = 5, .left = {a2, a4, kArchive, other}},
        {.name = "history nearly full drops .bak", .depth = 1, .left = {kArchive, other}},
        {.name = "room keeps .bak", .depth = 3, .archives = 1, .left = {a0, kArchive, bak, other}},
        {.name = "SYSTEM", .user = L"SYSTEM", .calls = "", .left = {bak, other}, .copy = nullptr},
        {.name = "service's environment", .flags = 0, .lines = &asService},
        {.name = "user's environment", .lines = &asUser},
        {.name = "never over a file", .earlier = "earlier", .lines = &exists, .copy = "earlier"},
        {.name = "refused", .allow = false, .lines = &refused, .calls = "impersonate "},
        {.name = "empty log", .text = "", .lines = &empty, .calls = "", .copy = nullptr},
        {.name = "blank remote", .remote = false, .lines = &blank, .calls = "", .copy = nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (const auto& entry : fs::directory_iterator(folder.Path())) {
            if (entry.path().filename().string().starts_with("plmx_")) {
                fs::remove(entry.path());
            }
        }
        const fs::path destination =
            remote.Path() + (c.flags != 0 ? L"alice" : service) + L"\\" + kCopy;
        fs::remove_all(fs::path(remote.Path()));
        fs::create_directories(destination.parent_path());
        if (c.earlier) {
            WriteFile(destination, c.earlier);
        }
        WriteFile(folder.Path() + fs::path(bak).wstring(), "older");
        WriteFile(folder.Path() + fs::path(other).wstring(), "");
        for (int i = 0; i < c.archives; ++i) {
            const fs::path path = folder.Path() + L"plmx__DESK01_a" + std::to_wstring(i);
            WriteFile(path, "");
            fs::last_write_time(
                path, fs::file_time_type::clock::now() - std::chrono::hours(24 * kAgeInDays[i]));
        }
        SessionLog session;
        ASSERT_TRUE(OpenLog(fs::path(log).wstring() + L"plmx_session_X_3.txt", session));
        fputs(c.text, session.stream);
        Settings::Instance().Flags = c.flags;
        Settings::Instance().LogHistoryDepth = c.depth;
        Settings::Instance().RemoteLogPath = c.remote ? unc + L"\\%USERNAME%" : L"";
        identity.allow = c.allow;
        identity.calls.clear();
        const size_t before = ReadLines(mainLog.Path()).size();

        RollSessionLogFile(session, 3, c.user, token, system);

        const Lines all = Tagged(ReadLines(mainLog.Path()));
        Lines written;
        std::copy_if(all.begin() + before, all.end(), std::back_inserter(written), [](auto& line) {
            return line.find("[RollSessionLogFile]") != std::string::npos ||
                   line.find("[UploadLogFile]") != std::string::npos;
        });
        EXPECT_EQ(written, c.lines ? *c.lines : written);
        EXPECT_EQ(identity.calls, c.calls);
        std::set<std::string> left;
        for (const auto& entry : fs::directory_iterator(folder.Path())) {
            left.insert(entry.path().filename().string());
        }
        left.erase("plmx.txt");
        EXPECT_EQ(left, c.left.empty() ? left : c.left);
        EXPECT_EQ(fs::exists(destination) ? ReadFileBytes(destination) : "<none>",
                  c.copy ? c.copy : "<none>");
    }
    // The upload's own line throws (the main log cannot roll: a folder holds
    // the backup's name); the user is reverted all the same.
    CreateDirectoryW(mainLog.BackupPath().c_str(), nullptr);
    Settings::Instance().LogMaxSize = 0;
    identity.calls.clear();
    EXPECT_THROW(UploadLogFile(L"alice", 3, mainLog.Path(), unc, token, system),
                 std::runtime_error);
    EXPECT_EQ(identity.calls, "impersonate revert");
    ComputerNames::Instance() = {};
}

}  // namespace
