#include <algorithm>

#include "app/LogSettings.h"
#include "log/LogWriter.h"
#include "log/SessionLogArchive.h"
#include "trace/UniqueHandle.h"

namespace {

constexpr wchar_t kFunction[] = L"GetArchivedLogs";

ArchivedLog Record(const WIN32_FIND_DATAW& found) {
    return {found.dwFileAttributes,
            static_cast<int64_t>((uint64_t{found.ftLastWriteTime.dwHighDateTime} << 32) |
                                 found.ftLastWriteTime.dwLowDateTime),
            (uint64_t{found.nFileSizeHigh} << 32) | found.nFileSizeLow, found.cFileName};
}

}  // namespace

bool GetArchivedLogs(const std::wstring& logFolder, std::vector<ArchivedLog>& list) {
    const std::wstring pattern =
        ArchiveSearchPattern(logFolder, ComputerNames::Instance().computerName);
    WIN32_FIND_DATAW found{};
    const UniqueFindHandle search(FindFirstFileW(pattern.c_str(), &found));
    if (search.Get() == INVALID_HANDLE_VALUE) {
        if (GetLastError() == ERROR_FILE_NOT_FOUND) {
            LogMessage(nullptr, LOG_LEVEL_INFO, kFunction,
                       "No files found by FindFirstFile while searching %ws", pattern.c_str());
            return true;
        }
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Failed Searching %ws", pattern.c_str());
        return false;
    }
    std::vector<ArchivedLog> records;
    do {
        records.push_back(Record(found));
    } while (FindNextFileW(search.Get(), &found));
    std::sort(records.begin(), records.end(), [](const ArchivedLog& a, const ArchivedLog& b) {
        return a.lastWriteTime < b.lastWriteTime;
    });
    for (ArchivedLog& record : records) {
        if ((record.attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            list.push_back(std::move(record));
        }
    }
    return true;
}
