#include "crash/PurgeDumps.h"

#include <windows.h>

#include <cwchar>
#include <memory>
#include <new>

#include "log/LogWriter.h"
#include "trace/ResultCode.h"
#include "trace/UniqueHandle.h"

namespace {

constexpr wchar_t kFunction[] = L"NRVPurgeDumps";
constexpr size_t kPathCapacity = 512;
constexpr uint32_t kOutOfMemory = 0x8007000E;

uint32_t LastResult() {
    return ResultFromWin32(GetLastError());
}

// Deletes one match, clearing its read-only bit first; failures are logged
// and the purge goes on.
void DeleteMatch(const wchar_t* path, DWORD attributes) {
    LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "Found %ws", path);
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0) {
        const DWORD writable = attributes & ~FILE_ATTRIBUTE_READONLY;
        if (SetFileAttributesW(path, writable != 0 ? writable : FILE_ATTRIBUTE_NORMAL)) {
            LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "Cleared RO Bit: %ws", path);
        } else {
            LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Failed Clearing RO Bit: %ws, 0x%X",
                       path, LastResult());
        }
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        if (!RemoveDirectoryW(path)) {
            LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Failed Deleting Folder: %ws, 0x%X",
                       path, LastResult());
        }
    } else if (!DeleteFileW(path)) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Failed Deleting File: %ws, 0x%X", path,
                   LastResult());
    }
}

}  // namespace

uint32_t NRVPurgeDumps(const std::wstring& folder, const wchar_t* pattern) {
    const std::unique_ptr<wchar_t[]> path(new (std::nothrow) wchar_t[kPathCapacity]);
    if (!path) {
        return kOutOfMemory;
    }
    const std::wstring prefix = AddTrailingSeparator(folder);
    WIN32_FIND_DATAW match;
    const UniqueFindHandle find(FindFirstFileW((prefix + pattern).c_str(), &match));
    if (find.Get() == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND) {
            return 0;
        }
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Find Failed: 0x%X",
                   ResultFromWin32(error));
        return ResultFromWin32(error);
    }
    do {
        _snwprintf(path.get(), kPathCapacity - 1, L"%ls%ls", prefix.c_str(), match.cFileName);
        path[kPathCapacity - 1] = L'\0';
        DeleteMatch(path.get(), match.dwFileAttributes);
    } while (FindNextFileW(find.Get(), &match));

    const DWORD error = GetLastError();
    if (error != ERROR_NO_MORE_FILES) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Failed: 0x%X", ResultFromWin32(error));
        return ResultFromWin32(error);
    }
    return 0;
}
