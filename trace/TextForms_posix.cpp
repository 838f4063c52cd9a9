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

bool LocalSystemTimeToFileTime(const SYSTEMTIME& local, uint64_t* fileTime) {
    uint64_t unused = 0;
    if (!SystemTimeToFileTimeValue(local, &unused)) {
        return false;
    }
    std::tm fields{};
    fields.tm_year = local.wYear - 1900;
    fields.tm_mon = local.wMonth - 1;
    fields.tm_mday = local.wDay;
    fields.tm_hour = local.wHour;
    fields.tm_min = local.wMinute;
    fields.tm_sec = local.wSecond;
    fields.tm_isdst = -1;  // the zone's rules decide
    const time_t seconds = std::mktime(&fields);
    if (seconds == -1) {
        return false;
    }
    *fileTime =
        static_cast<uint64_t>(static_cast<int64_t>(seconds) + kSecondsFrom1601To1970) * 10'000'000 +
        local.wMilliseconds * 10'000ull;
    return true;
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
