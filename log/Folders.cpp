#include <windows.h>
#include <shlobj.h>

#include "log/LogWriter.h"

namespace {

constexpr wchar_t kLongPathPrefix[] = L"\\\\?\\";

}  // namespace

uint32_t RecurseCreateFolder(const std::wstring& path) {
    const int result = SHCreateDirectoryExW(nullptr, path.c_str(), nullptr);
    if (result != ERROR_SUCCESS && result != ERROR_ALREADY_EXISTS) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, L"RecurseCreateFolder",
                   "Failed Creating Folder: %ws, 0x%X", path.c_str(), result);
        return static_cast<uint32_t>(result);
    }
    // Echoed also when the folder was already there: each checked path shows.
    LogMessage(nullptr, LOG_LEVEL_TRACE, L"RecurseCreateFolder", "Created Folder: %ws",
               path.c_str());
    return static_cast<uint32_t>(result);
}

std::wstring AddLongPathPrefix(const std::wstring& path) {
    if (path.starts_with(kLongPathPrefix)) {
        return path;
    }
    return kLongPathPrefix + path;
}

std::wstring AddTrailingSeparator(const std::wstring& path) {
    if (!path.empty() && (path.back() == L'\\' || path.back() == L'/')) {
        return path;
    }
    return path + L'\\';
}
