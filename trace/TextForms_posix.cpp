#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>

#include "trace/TextForms.h"

namespace logonmon {

namespace {

constexpr int64_t kSecondsFrom1601To1970 = 11'644'473'600;
constexpr int64_t kSecondsPerHour = 3600;
constexpr uint64_t kUnitsPerSecond = 10'000'000;
// 30827-12-31T23:59:59.9999999.
constexpr uint64_t kLastSystemTime = 0x7FFF35F4F06C7FFF;

int64_t HourOf(int64_t seconds) {
    return (seconds >= 0 ? seconds : seconds - (kSecondsPerHour - 1)) / kSecondsPerHour;
}

// FILETIME units of seconds since 1970.
uint64_t UnitsOf(int64_t seconds) {
    return static_cast<uint64_t>(seconds + kSecondsFrom1601To1970) * kUnitsPerSecond;
}

SYSTEMTIME FromFields(const std::tm& fields, uint16_t milliseconds) {
    SYSTEMTIME time{};
    time.wYear = static_cast<uint16_t>(fields.tm_year + 1900);
    time.wMonth = static_cast<uint16_t>(fields.tm_mon + 1);
    time.wDayOfWeek = static_cast<uint16_t>(fields.tm_wday);
    time.wDay = static_cast<uint16_t>(fields.tm_mday);
    time.wHour = static_cast<uint16_t>(fields.tm_hour);
    time.wMinute = static_cast<uint16_t>(fields.tm_min);
    time.wSecond = static_cast<uint16_t>(fields.tm_sec);
    time.wMilliseconds = milliseconds;
    return time;
}

// Whether the local time of every second of `hour` (since 1970, UTC) is the
// UTC time moved by `offset`: no change of offset within it, and none of the
// leap seconds some zone files count.
bool OffsetHoldsForHour(int64_t hour, int64_t offset) {
    for (const int64_t second :
         {hour * kSecondsPerHour, hour * kSecondsPerHour + kSecondsPerHour - 1}) {
        if (second + offset < -kSecondsFrom1601To1970) {
            return false;  // before the first FILETIME
        }
        std::tm local{};
        const auto asTimeT = static_cast<time_t>(second);
        if (localtime_r(&asTimeT, &local) == nullptr || local.tm_gmtoff != offset) {
            return false;
        }
        const SYSTEMTIME moved = FileTimeToUtcSystemTime(UnitsOf(second + offset));
        const SYSTEMTIME fields = FromFields(local, 0);
        if (moved.wYear != fields.wYear || moved.wMonth != fields.wMonth ||
            moved.wDay != fields.wDay || moved.wHour != fields.wHour ||
            moved.wMinute != fields.wMinute || moved.wSecond != fields.wSecond) {
            return false;
        }
    }
    return true;
}

// The zone as TZ names it: an offset kept under another zone is not used. A
// TZ too long to hold here is never cached under.
struct Zone {
    bool set = false;
    char name[64] = {};
};

std::optional<Zone> CurrentZone() {
    Zone zone;
    const char* tz = std::getenv("TZ");
    if (tz != nullptr) {
        const size_t length = std::strlen(tz);
        if (length >= sizeof zone.name) {
            return std::nullopt;
        }
        zone.set = true;
        std::memcpy(zone.name, tz, length);
    }
    return zone;
}

// Whether TZ names `zone` now; asked on every conversion.
bool IsCurrent(const Zone& zone) {
    const char* tz = std::getenv("TZ");
    return tz == nullptr ? !zone.set : zone.set && std::strcmp(zone.name, tz) == 0;
}

// The zone's offset over one hour, kept from the hour asked for last: a
// trace's times crowd into a few hours, and the C library's conversion is
// what costs.
struct HourOffset {
    Zone zone;
    int64_t hour = INT64_MIN;
    int64_t offset = 0;

    bool Holds(int64_t wanted) const { return hour == wanted && IsCurrent(zone); }
};

// The whole seconds from 1970 to `time` read as UTC; none for fields out of
// range.
std::optional<int64_t> SecondsSince1970(const SYSTEMTIME& time) {
    uint64_t fileTime = 0;
    if (!SystemTimeToFileTimeValue(time, &fileTime)) {
        return std::nullopt;
    }
    return static_cast<int64_t>(fileTime / kUnitsPerSecond) - kSecondsFrom1601To1970;
}

// mktime of a local time, the zone's rules deciding daylight saving time.
std::optional<int64_t> MakeTime(const SYSTEMTIME& local) {
    std::tm fields{};
    fields.tm_year = local.wYear - 1900;
    fields.tm_mon = local.wMonth - 1;
    fields.tm_mday = local.wDay;
    fields.tm_hour = local.wHour;
    fields.tm_min = local.wMinute;
    fields.tm_sec = local.wSecond;
    fields.tm_isdst = -1;
    const time_t seconds = std::mktime(&fields);
    if (seconds == -1) {
        return std::nullopt;
    }
    return static_cast<int64_t>(seconds);
}

}  // namespace

SYSTEMTIME FileTimeToLocalSystemTime(uint64_t fileTime) {
    // Beyond the last SYSTEMTIME, as Windows refuses to convert: the UTC fields.
    if (fileTime > kLastSystemTime) {
        return FileTimeToUtcSystemTime(fileTime);
    }
    const int64_t seconds =
        static_cast<int64_t>(fileTime / kUnitsPerSecond) - kSecondsFrom1601To1970;
    const uint64_t belowSecond = fileTime % kUnitsPerSecond;
    thread_local HourOffset last;
    const int64_t hour = HourOf(seconds);
    if (last.Holds(hour)) {
        return FileTimeToUtcSystemTime(UnitsOf(seconds + last.offset) + belowSecond);
    }
    std::tm local{};
    const auto asTimeT = static_cast<time_t>(seconds);
    if (localtime_r(&asTimeT, &local) == nullptr) {
        return FileTimeToUtcSystemTime(fileTime);
    }
    const std::optional<Zone> zone = CurrentZone();
    if (zone && OffsetHoldsForHour(hour, local.tm_gmtoff)) {
        last = {*zone, hour, local.tm_gmtoff};
    }
    return FromFields(local, static_cast<uint16_t>(belowSecond / 10'000));
}

bool LocalSystemTimeToFileTime(const SYSTEMTIME& local, uint64_t* fileTime) {
    // The local time read as if it were UTC: its distance from the epoch in
    // local seconds.
    const std::optional<int64_t> since1970 = SecondsSince1970(local);
    if (!since1970) {
        return false;
    }
    const int64_t localSeconds = *since1970;
    // Kept by local hour, where mktime found the offset the same from the
    // hour's start to its end.
    thread_local HourOffset last;
    const int64_t hour = HourOf(localSeconds);
    int64_t seconds = 0;
    if (last.Holds(hour) && localSeconds - last.offset != -1) {
        // mktime's -1 is its failure too: that second is never given.
        seconds = localSeconds - last.offset;
    } else {
        const std::optional<int64_t> made = MakeTime(local);
        if (!made) {
            return false;
        }
        seconds = *made;
        const int64_t offset = localSeconds - seconds;
        const int64_t start = hour * kSecondsPerHour;
        const std::optional<int64_t> first = MakeTime(FileTimeToUtcSystemTime(UnitsOf(start)));
        const std::optional<int64_t> end =
            MakeTime(FileTimeToUtcSystemTime(UnitsOf(start + kSecondsPerHour - 1)));
        const std::optional<Zone> zone = CurrentZone();
        if (zone && first == start - offset && end == start + kSecondsPerHour - 1 - offset) {
            last = {*zone, hour, offset};
        }
    }
    *fileTime = UnitsOf(seconds) + local.wMilliseconds * 10'000ull;
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
