#include "log/ArchiveNames.h"

#include <algorithm>
#include <cwchar>
#include <iterator>

#include "trace/TextForms.h"

namespace {

constexpr wchar_t kArchivePrefix[] = L"plmx__";
constexpr wchar_t kUncPrefix[] = L"\\\\?\\UNC\\";

// "MM_DD_YYYY", `separator`, "HH_MM_SS_mmmm".
std::wstring DateTimeText(const SYSTEMTIME& time, const wchar_t* separator) {
    wchar_t text[64];
    swprintf(text, std::size(text), L"%.2d_%.2d_%.4d%ls%.2d_%.2d_%.2d_%.4d", time.wMonth, time.wDay,
             time.wYear, separator, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
    return text;
}

}  // namespace

SYSTEMTIME CurrentLocalTime() {
    SYSTEMTIME local;
    GetLocalTime(&local);
    return local;
}

std::wstring ArchiveName(const std::wstring& logFolder, const std::wstring& host,
                         const std::wstring& user, const SYSTEMTIME& localTime) {
    return logFolder + kArchivePrefix + host + L"_" + user + L"_" + DateTimeText(localTime, L"__") +
           L".txt";
}

std::wstring ArchiveSearchPattern(const std::wstring& logFolder, const std::wstring& host) {
    const std::wstring folder = logFolder.ends_with(L'\\') ? logFolder : logFolder + L'\\';
    return folder + kArchivePrefix + host + L"_*";
}

std::wstring UploadDestination(const std::wstring& remoteFolder, const std::wstring& host,
                               const std::wstring& user, uint32_t sessionId,
                               const SYSTEMTIME& localTime) {
    const std::wstring share = remoteFolder.substr(std::min<size_t>(2, remoteFolder.size()));
    return kUncPrefix + share + L"\\" + host + L"_" + user + L"_" +
           std::to_wstring(static_cast<int>(sessionId)) + L"_" + DateTimeText(localTime, L"T") +
           L".txt";
}
