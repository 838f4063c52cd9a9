#include <ctime>

#include "trace/TextForms.h"

namespace logonmon {

namespace {

constexpr int64_t kSecondsFrom1601To1970 = 11'644'473'600;

}  // namespace

SYSTEMTIME UtcToLocalSystemTime(const SYSTEMTIME& utc) {
    uint64_t fileTime = 0;
    if (!SystemTimeToFileTimeValue(utc, &fileTime)) {
        return utc;
    }
    const time_t seconds =
        static_cast<time_t>(static_cast<int64_t>(fileTime / 10'000'000) - kSecondsFrom1601To1970);
    std::tm local{};
    if (localtime_r(&seconds, &local) == nullptr) {
        return utc;
    }
    SYSTEMTIME time{};
    time.wYear = static_cast<uint16_t>(local.tm_year + 1900);
    time.wMonth = static_cast<uint16_t>(local.tm_mon + 1);
    time.wDayOfWeek = static_cast<uint16_t>(local.tm_wday);
    time.wDay = static_cast<uint16_t>(local.tm_mday);
    time.wHour = static_cast<uint16_t>(local.tm_hour);
    time.wMinute = static_cast<uint16_t>(local.tm_min);
    time.wSecond = static_cast<uint16_t>(local.tm_sec);
    time.wMilliseconds = utc.wMilliseconds;
    return time;
}

// Without a code page to consult, each byte is taken as the character of the
// same number (Latin-1).
std::wstring WideFromAnsi(const char* text) {
    std::wstring wide;
    for (; text != nullptr && *text != '\0'; ++text) {
        wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*text)));
    }
    return wide;
}

}  // namespace logonmon
