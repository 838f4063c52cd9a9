// Files per second through the profile walk against a bare recursive
// FindFirstFileW/FindNextFileW walk of the same generated profile (50,000
// files in 2,000 folders), alternating, best of several rounds.
//
//   profile_walk_bench [folder]
//
// A given folder keeps the generated profile for later runs; without one, a
// new folder under the temporary directory is used and removed afterwards.

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "diag/ProfileReport.h"

namespace {

constexpr int kTopFolders = 40;
constexpr int kSubFolders = 49;  // each top folder holds 49 more: 2,000 in all
constexpr int kFilesPerFolder = 25;
constexpr int kRounds = 5;

using Clock = std::chrono::steady_clock;

double Seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

void MakeFiles(const std::wstring& folder) {
    CreateDirectoryW(folder.c_str(), nullptr);
    for (int i = 0; i < kFilesPerFolder; ++i) {
        const std::wstring path = folder + L"\\file" + std::to_wstring(i) + L".dat";
        const HANDLE file =
            CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        DWORD written = 0;
        WriteFile(file, path.c_str(), static_cast<DWORD>(i * 8), &written, nullptr);
        CloseHandle(file);
    }
}

void MakeProfile(const std::wstring& root) {
    // Complete when the last file made exists.
    const std::wstring last = root + L"\\top" + std::to_wstring(kTopFolders - 1) + L"\\sub" +
                              std::to_wstring(kSubFolders - 1) + L"\\file" +
                              std::to_wstring(kFilesPerFolder - 1) + L".dat";
    if (GetFileAttributesW(last.c_str()) != INVALID_FILE_ATTRIBUTES) {
        return;
    }
    CreateDirectoryW(root.c_str(), nullptr);
    for (int top = 0; top < kTopFolders; ++top) {
        const std::wstring topFolder = root + L"\\top" + std::to_wstring(top);
        MakeFiles(topFolder);
        for (int sub = 0; sub < kSubFolders; ++sub) {
            MakeFiles(topFolder + L"\\sub" + std::to_wstring(sub));
        }
    }
}

// The plain recursive walk the profile walk is measured against.
void BareWalk(const std::wstring& folder, uint32_t& files) {
    WIN32_FIND_DATAW entry;
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (search == INVALID_HANDLE_VALUE) {
        return;
    }
    do {
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            ++files;
        } else if (wcscmp(entry.cFileName, L".") != 0 && wcscmp(entry.cFileName, L"..") != 0) {
            BareWalk(folder + L"\\" + entry.cFileName, files);
        }
    } while (FindNextFileW(search, &entry));
    FindClose(search);
}

std::wstring NewTempFolder() {
    wchar_t temp[MAX_PATH + 1];
    GetTempPathW(MAX_PATH + 1, temp);
    return std::wstring(temp) + L"plmx-profile-bench-" + std::to_wstring(GetCurrentProcessId());
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const bool ownFolder = argc < 2;
    const std::wstring root = ownFolder ? NewTempFolder() : argv[1];
    const Clock::time_point made = Clock::now();
    MakeProfile(root);
    printf("profile %ls ready in %.1f s\n", root.c_str(), Seconds(Clock::now() - made));

    double walk = 1e30, bare = 1e30;
    uint32_t walkFiles = 0, bareFiles = 0;
    for (int round = 0; round < kRounds; ++round) {
        ProfileStatistics statistics;
        Clock::time_point start = Clock::now();
        GetProfileSize(root, statistics);
        walk = std::min(walk, Seconds(Clock::now() - start));
        walkFiles = statistics.files;

        bareFiles = 0;
        start = Clock::now();
        BareWalk(root, bareFiles);
        bare = std::min(bare, Seconds(Clock::now() - start));
    }
    printf("best of %d rounds, %u files\n", kRounds, walkFiles);
    printf("profile walk: %.0f files/s\n", walkFiles / walk);
    printf("bare walk:    %.0f files/s\n", bareFiles / bare);
    printf("profile walk time against the bare walk: %.2f\n", walk / bare);
    if (ownFolder) {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(root), ignored);
    }
    return walkFiles == bareFiles ? 0 : 1;
}
