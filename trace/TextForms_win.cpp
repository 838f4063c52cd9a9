#include "trace/TextForms.h"

namespace logonmon {

SYSTEMTIME FileTimeToLocalSystemTime(uint64_t fileTime) {
    const SYSTEMTIME utc = FileTimeToUtcSystemTime(fileTime);
    SYSTEMTIME local{};
    if (!SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local)) {
        return utc;
    }
    return local;
}

bool LocalSystemTimeToFileTime(const SYSTEMTIME& local, uint64_t* fileTime) {
    uint64_t unused = 0;
    SYSTEMTIME utc{};
    return SystemTimeToFileTimeValue(local, &unused) &&
           TzSpecificLocalTimeToSystemTime(nullptr, &local, &utc) &&
           SystemTimeToFileTimeValue(utc, fileTime);
}

std::wstring WideFromAnsi(const char* text) {
    if (text == nullptr || *text == '\0') {
        return std::wstring();
    }
    const int length = MultiByteToWideChar(CP_THREAD_ACP, 0, text, -1, nullptr, 0);
    if (length <= 1) {
        return std::wstring();
    }
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_THREAD_ACP, 0, text, -1, wide.data(), length);
    wide.resize(static_cast<size_t>(length - 1));
    return wide;
}

}  // namespace logonmon
