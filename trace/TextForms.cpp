#include "trace/TextForms.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <cstdio>

namespace logonmon {

namespace {

constexpr uint64_t kTicksPerMillisecond = 10'000;
constexpr uint64_t kTicksPerSecond = 10'000'000;
constexpr uint64_t kSecondsPerDay = 86'400;
// Days from 1601-01-01 (the FILETIME epoch) to 1970-01-01.
constexpr int64_t kDaysFrom1601To1970 = 134'774;

// Proleptic Gregorian calendar arithmetic on days since 1970-01-01.
int64_t DaysFromCivil(int64_t year, unsigned month, unsigned day) {
    year -= month <= 2 ? 1 : 0;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const unsigned yearOfEra = static_cast<unsigned>(year - era * 400);
    const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + static_cast<int64_t>(dayOfEra) - 719468;
}

void CivilFromDays(int64_t days, int64_t* year, unsigned* month, unsigned* day) {
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned dayOfEra = static_cast<unsigned>(days - era * 146097);
    const unsigned yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned monthIndex = (5 * dayOfYear + 2) / 153;
    *day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
    *month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    *year = static_cast<int64_t>(yearOfEra) + era * 400 + (*month <= 2 ? 1 : 0);
}

bool IsLeapYear(unsigned year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

unsigned DaysInMonth(unsigned year, unsigned month) {
    static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Units up to the first null, at most `maxUnits`; nothing beyond is read.
template <typename Unit>
size_t UnitsBeforeNull(const Unit* text, size_t maxUnits) {
    size_t units = 0;
    while (units < maxUnits && text[units] != 0) {
        ++units;
    }
    return units;
}

std::wstring WideFromAscii(const char* text) {
    std::wstring wide;
    for (; *text != '\0'; ++text) {
        wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*text)));
    }
    return wide;
}

}  // namespace

SYSTEMTIME FileTimeToUtcSystemTime(uint64_t fileTime) {
    const uint64_t seconds = fileTime / kTicksPerSecond;
    const uint64_t daysSince1601 = seconds / kSecondsPerDay;
    const uint64_t secondOfDay = seconds % kSecondsPerDay;
    // The date of the day asked for last, kept per thread: times come in
    // runs of the same day.
    thread_local struct {
        uint64_t daysSince1601 = UINT64_MAX;
        int64_t year = 0;
        unsigned month = 0;
        unsigned day = 0;
    } last;
    if (last.daysSince1601 != daysSince1601) {
        last.daysSince1601 = daysSince1601;
        CivilFromDays(static_cast<int64_t>(daysSince1601) - kDaysFrom1601To1970, &last.year,
                      &last.month, &last.day);
    }
    const int64_t year = last.year;
    const unsigned month = last.month;
    const unsigned day = last.day;

    SYSTEMTIME time{};
    time.wYear = static_cast<uint16_t>(year);
    time.wMonth = static_cast<uint16_t>(month);
    // 1601-01-01 was a Monday.
    time.wDayOfWeek = static_cast<uint16_t>((daysSince1601 + 1) % 7);
    time.wDay = static_cast<uint16_t>(day);
    time.wHour = static_cast<uint16_t>(secondOfDay / 3600);
    time.wMinute = static_cast<uint16_t>(secondOfDay / 60 % 60);
    time.wSecond = static_cast<uint16_t>(secondOfDay % 60);
    time.wMilliseconds = static_cast<uint16_t>(fileTime / kTicksPerMillisecond % 1000);
    return time;
}

bool SystemTimeToFileTimeValue(const SYSTEMTIME& time, uint64_t* fileTime) {
    if (time.wYear < 1601 || time.wYear > 30827 || time.wMonth < 1 || time.wMonth > 12 ||
        time.wDay < 1 || time.wDay > DaysInMonth(time.wYear, time.wMonth) || time.wHour > 23 ||
        time.wMinute > 59 || time.wSecond > 59 || time.wMilliseconds > 999) {
        return false;
    }
    const int64_t daysSince1601 =
        DaysFromCivil(time.wYear, time.wMonth, time.wDay) + kDaysFrom1601To1970;
    const uint64_t seconds = static_cast<uint64_t>(daysSince1601) * kSecondsPerDay +
                             time.wHour * 3600u + time.wMinute * 60u + time.wSecond;
    *fileTime = seconds * kTicksPerSecond + time.wMilliseconds * kTicksPerMillisecond;
    return true;
}

namespace {

// Two digits of `value`, below 100.
wchar_t* PutTwoDigits(wchar_t* out, unsigned value) {
    out[0] = static_cast<wchar_t>(L'0' + value / 10);
    out[1] = static_cast<wchar_t>(L'0' + value % 10);
    return out + 2;
}

}  // namespace

void AssignTimestampText(std::wstring& text, uint64_t fileTime, bool local) {
    if (fileTime == 0) {
        text.assign(L"NULL");
        return;
    }
    const SYSTEMTIME time =
        local ? FileTimeToLocalSystemTime(fileTime) : FileTimeToUtcSystemTime(fileTime);
    // "%04d-%02d-%02dT%02d:%02d:%02d:%03d", written by hand: decoding a trace
    // writes one for every time property.
    wchar_t wide[32];
    wchar_t* out = wide;
    if (time.wYear < 10000) {
        out = PutTwoDigits(PutTwoDigits(out, time.wYear / 100u), time.wYear % 100u);
    } else {
        char year[8];
        out = std::copy(year, PutDecimal(year, time.wYear), out);
    }
    *out++ = L'-';
    out = PutTwoDigits(out, time.wMonth);
    *out++ = L'-';
    out = PutTwoDigits(out, time.wDay);
    *out++ = L'T';
    out = PutTwoDigits(out, time.wHour);
    *out++ = L':';
    out = PutTwoDigits(out, time.wMinute);
    *out++ = L':';
    out = PutTwoDigits(out, time.wSecond);
    *out++ = L':';
    *out++ = static_cast<wchar_t>(L'0' + time.wMilliseconds / 100u);
    out = PutTwoDigits(out, time.wMilliseconds % 100u);
    if (!local) {
        *out++ = L'Z';
    }
    // Cleared and appended: the text is never part of what it is set to.
    text.clear();
    text.append(wide, static_cast<size_t>(out - wide));
}

std::wstring TimestampText(uint64_t fileTime, bool local) {
    std::wstring text;
    AssignTimestampText(text, fileTime, local);
    return text;
}

namespace {

// "00", "01", ... "99": decimal digits are written two at a time.
constexpr auto kDecimalPairs = [] {
    std::array<char, 200> pairs{};
    for (int i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

template <unsigned kBase, typename Unsigned>
int DigitCount(Unsigned value) {
    if constexpr (kBase == 16) {
        return std::max(1, (static_cast<int>(std::bit_width(value)) + 3) / 4);
    } else {
        int count = 1;
        for (uint64_t power = 10; count < 20 && value >= power; power *= 10) {
            ++count;
        }
        return count;
    }
}

// Counts the digits first, then writes them from the last, zeros padding.
template <unsigned kBase, typename Unsigned>
char* PutDigits(char* out, Unsigned value, int width) {
    char* const end = out + std::max(DigitCount<kBase>(value), width);
    char* at = end;
    if constexpr (kBase == 16) {
        do {
            *--at = "0123456789abcdef"[value % 16];
            value /= 16;
        } while (value != 0);
    } else {
        for (; value >= 100; value /= 100) {
            at -= 2;
            std::memcpy(at, &kDecimalPairs[value % 100 * 2], 2);
        }
        if (value >= 10) {
            at -= 2;
            std::memcpy(at, &kDecimalPairs[value * 2], 2);
        } else {
            *--at = static_cast<char>('0' + value);
        }
    }
    while (at != out) {
        *--at = '0';
    }
    return end;
}

}  // namespace

// Values that fit 32 bits, the usual ones, are divided in 32 bits.
char* PutDecimal(char* out, uint64_t value, int width) {
    return value <= UINT32_MAX ? PutDigits<10>(out, static_cast<uint32_t>(value), width)
                               : PutDigits<10>(out, value, width);
}

char* PutHex(char* out, uint64_t value, int width) {
    return value <= UINT32_MAX ? PutDigits<16>(out, static_cast<uint32_t>(value), width)
                               : PutDigits<16>(out, value, width);
}

std::wstring GuidText(const GUID& guid, bool braces) {
    char text[40];
    std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                  static_cast<unsigned>(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0],
                  guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
                  guid.Data4[6], guid.Data4[7]);
    const std::wstring bare = WideFromAscii(text);
    return braces ? L"{" + bare + L"}" : bare;
}

void AppendDecimal(std::wstring& text, uint64_t value) {
    wchar_t digits[20];
    wchar_t* const end = digits + 20;
    wchar_t* start = end;
    do {
        *--start = static_cast<wchar_t>(L'0' + value % 10);
        value /= 10;
    } while (value != 0);
    text.append(start, static_cast<size_t>(end - start));
}

std::wstring WideFromUtf16(const char16_t* text, size_t maxUnits) {
    std::wstring wide;
    // The units past the null need not be readable.
    if (text != nullptr && maxUnits == SIZE_MAX) {
        maxUnits = std::char_traits<char16_t>::length(text);
    }
    AssignWideFromUtf16(wide, text, maxUnits);
    return wide;
}

void AssignWideFromUtf16(std::wstring& wide, const char16_t* text, size_t maxUnits) {
    // One pass finds the end and whether any unit is a surrogate; most texts
    // have none and are then widened unit for unit. Whole blocks without a
    // null or a surrogate are passed over first, a test the compiler can do
    // for a block at once.
    constexpr size_t kBlock = 16;
    size_t units = 0;
    bool surrogates = false;
    if (text != nullptr) {
        for (; maxUnits - units >= kBlock; units += kBlock) {
            bool stop = false;
            for (size_t i = 0; i < kBlock; ++i) {
                const char16_t unit = text[units + i];
                stop |= unit == 0 || (unit & 0xF800) == 0xD800;
            }
            if (stop) {
                break;
            }
        }
    }
    for (; text != nullptr && units < maxUnits && text[units] != 0; ++units) {
        surrogates |= (text[units] & 0xF800) == 0xD800;
    }
    wide.resize(units);
    wchar_t* out = wide.data();
    if (sizeof(wchar_t) == 2 || !surrogates) {
        std::copy(text, text + units, out);
        return;
    }
    for (size_t i = 0; i < units; ++i) {
        const char16_t unit = text[i];
        const bool highSurrogate = unit >= 0xD800 && unit <= 0xDBFF;
        if (highSurrogate && i + 1 < units && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            *out++ = static_cast<wchar_t>(0x10000 + ((char32_t{unit} - 0xD800) << 10) +
                                          (char32_t{text[i + 1]} - 0xDC00));
            ++i;
        } else {
            // An unpaired surrogate is kept as it stands.
            *out++ = static_cast<wchar_t>(unit);
        }
    }
    wide.resize(static_cast<size_t>(out - wide.data()));
}

#ifdef _WIN32
std::wstring WideFromUtf16(const WCHAR* text, size_t maxUnits) {
    if (text == nullptr) {
        return std::wstring();
    }
    return std::wstring(text, UnitsBeforeNull(text, maxUnits));
}
#endif

std::string Utf8FromWide(const std::wstring& text) {
    std::string utf8;
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t codePoint = static_cast<char32_t>(text[i]);
        if constexpr (sizeof(wchar_t) == 2) {
            codePoint &= 0xFFFF;
            if (codePoint >= 0xD800 && codePoint <= 0xDBFF && i + 1 < text.size()) {
                const char32_t low = static_cast<char32_t>(text[i + 1]) & 0xFFFF;
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                }
            }
        }
        if ((codePoint >= 0xD800 && codePoint <= 0xDFFF) || codePoint > 0x10FFFF) {
            codePoint = 0xFFFD;  // not encodable
        }
        if (codePoint < 0x80) {
            utf8.push_back(static_cast<char>(codePoint));
        } else if (codePoint < 0x800) {
            utf8.push_back(static_cast<char>(0xC0 | (codePoint >> 6)));
            utf8.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
        } else if (codePoint < 0x10000) {
            utf8.push_back(static_cast<char>(0xE0 | (codePoint >> 12)));
            utf8.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
            utf8.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
        } else {
            utf8.push_back(static_cast<char>(0xF0 | (codePoint >> 18)));
            utf8.push_back(static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F)));
            utf8.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
            utf8.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
        }
    }
    return utf8;
}

}  // namespace logonmon
