// Text forms of times, SIDs and strings.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "trace/Sid.h"
#include "trace/TextForms.h"

namespace {

using namespace logonmon;

TEST(TextFormsTest, TimestampsAndTheirCalendar) {
    const std::pair<uint64_t, std::wstring> cases[] = {
        {133540924280090000, L"2024-03-05T06:07:08:009Z"},  // a Tuesday
        {10000, L"1601-01-01T00:00:00:001Z"},
        {125963423999990000, L"2000-02-29T23:59:59:999Z"},
        {2650467743999990000, L"9999-12-31T23:59:59:999Z"},
        {2650467744001230000, L"10000-01-01T00:00:00:123Z"},
    };
    for (const auto& [fileTime, text] : cases) {
        EXPECT_EQ(text, TimestampText(fileTime, false));
        uint64_t back = 0;
        ASSERT_TRUE(SystemTimeToFileTimeValue(FileTimeToUtcSystemTime(fileTime), &back));
        EXPECT_EQ(fileTime, back);
    }
    EXPECT_EQ(L"NULL", TimestampText(0, false) + TimestampText(0, true).substr(4));
    EXPECT_EQ(2, FileTimeToUtcSystemTime(133540924280090000).wDayOfWeek);
    for (const SYSTEMTIME& time :
         {SYSTEMTIME{2023, 2, 0, 29, 0, 0, 0, 0}, SYSTEMTIME{1900, 2, 0, 29, 0, 0, 0, 0},
          SYSTEMTIME{2024, 1, 0, 1, 0, 0, 0, 1000}}) {
        uint64_t fileTime = 0;
        EXPECT_FALSE(SystemTimeToFileTimeValue(time, &fileTime)) << time.wYear;
    }
}

#ifndef _WIN32
// Local times across both changes of a zone with daylight saving time, which
// here fall in the middle of an hour, as the C library converts them one by
// one.
TEST(TextFormsTest, LocalTimesAcrossDaylightSavingChanges) {
    const std::string saved = getenv("TZ") != nullptr ? getenv("TZ") : "";
    setenv("TZ", "CET-1CEST,M3.5.0/2:30,M10.5.0/3:30", 1);
    tzset();
    constexpr uint64_t kMinute = 600'000'000;
    for (const uint64_t change : {133563222000000000ull, 133744662000000000ull}) {
        for (uint64_t utc = change - 150 * kMinute; utc <= change + 150 * kMinute;
             utc += 7 * kMinute + 10'000) {
            const time_t seconds = static_cast<time_t>(utc / 10'000'000 - 11'644'473'600);
            std::tm expected{};
            localtime_r(&seconds, &expected);
            const SYSTEMTIME local = FileTimeToLocalSystemTime(utc);
            EXPECT_EQ(expected.tm_hour, local.wHour) << utc;
            EXPECT_EQ(expected.tm_min, local.wMinute) << utc;
            uint64_t back = 0;
            ASSERT_TRUE(LocalSystemTimeToFileTime(local, &back));
            // The hour repeated in autumn reads as either of its two times.
            const int minute = local.wHour * 60 + local.wMinute;
            const bool repeated = local.wMonth == 10 && minute >= 150 && minute < 210;
            constexpr uint64_t kHour = 60 * kMinute;
            EXPECT_TRUE(back == utc || (repeated && (back == utc + kHour || back == utc - kHour)))
                << utc;
        }
    }
    // A zone of the same names and offset with other rules: nothing kept
    // under the first is used.
    constexpr uint64_t kQuarterPastTwo = 133563249000000000;
    EXPECT_EQ(4, FileTimeToLocalSystemTime(kQuarterPastTwo).wHour);
    setenv("TZ", "CET-1CEST,M3.5.0/5,M10.5.0/3", 1);
    tzset();
    EXPECT_EQ(3, FileTimeToLocalSystemTime(kQuarterPastTwo).wHour);
    // Times beyond the last SYSTEMTIME keep their UTC fields.
    EXPECT_EQ(0, FileTimeToLocalSystemTime(0x7FFF35F4F06C8000).wHour);
    setenv("TZ", saved.c_str(), 1);
    if (saved.empty()) {
        unsetenv("TZ");
    }
    tzset();
}
#endif

TEST(TextFormsTest, TextConversions) {
    const char16_t text[] = u"a\U0001F600\u00E9\0ignored";
    EXPECT_EQ("a\xF0\x9F\x98\x80\xC3\xA9", Utf8FromWide(WideFromUtf16(text)));
    EXPECT_EQ("a", Utf8FromWide(WideFromUtf16(text, 1)));
    const char16_t lone[] = {u'x', 0xD800, 0xE000, 0};             // an unpaired surrogate
    const char16_t edges[] = {0xD800, 0xDC00, 0xDBFF, 0xDFFF, 0};  // U+10000 and U+10FFFF
    EXPECT_EQ("x\xEF\xBF\xBD\xEE\x80\x80", Utf8FromWide(WideFromUtf16(lone)));
    EXPECT_EQ("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", Utf8FromWide(WideFromUtf16(edges)));
    EXPECT_EQ(L"plain text", WideFromAnsi("plain text"));
}

TEST(SidTest, TextAndBinaryFormsRoundTripAndMalformedInputIsRefused) {
    for (const wchar_t* text : {L"S-1-5-18", L"S-1-0", L"S-1-4294967295-1",
                                L"S-1-0x010000000000-7",  // 2^32 and more in hexadecimal
                                L"S-1-0xFFFFFFFFFFFF-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15"}) {
        const auto sid = Sid::FromString(text);
        ASSERT_TRUE(sid.has_value());
        EXPECT_EQ(text, sid->ToString());
        EXPECT_EQ(sid, Sid::FromBytes(sid->Bytes().data(), sid->Bytes().size()));
    }
    const auto sid = Sid::FromString(L"S-1-5-32-544");
    std::vector<uint8_t> bytes(sid->Bytes().begin(), sid->Bytes().end());
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0}), bytes);
    bytes.push_back(0xAA);  // bytes after the declared length are not the SID's
    EXPECT_EQ(L"S-1-5-32-544", Sid::FromBytes(bytes.data(), bytes.size())->ToString());
    for (const wchar_t* text :
         {L"S-1", L"X-1-5-18", L"S-2-5-18", L"S-1-5--1", L"S-1-5-4294967296"}) {
        EXPECT_FALSE(Sid::FromString(text).has_value());
    }
    std::vector<uint8_t> tooManyParts(8 + 16 * 4, 0);
    tooManyParts[0] = 1;
    tooManyParts[1] = 16;
    EXPECT_FALSE(Sid::FromBytes(bytes.data(), 15).has_value());
    EXPECT_FALSE(Sid::FromBytes(nullptr, 0).has_value());
    bytes[0] = 2;
    EXPECT_FALSE(Sid::FromBytes(bytes.data(), bytes.size()).has_value());
    EXPECT_FALSE(Sid::FromBytes(tooManyParts.data(), tooManyParts.size()).has_value());
}

}  // namespace
