#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "trace/TextForms.h"

namespace {

using namespace logonmon;

TEST(TextFormsTest, TimestampsAndTheirCalendar) {
    const std::pair<uint64_t, std::wstring> cases[] = {
        {133540924280090000, L"2024-03-05T06:07:08:009Z"},  // a Tuesday
        {10000, L"1601-01-01T00:00:00:001Z"},
        {125963423999990000, L"2000-02-29T23:59:59:999Z"},
        {2650467743999990000, L"9999-12-31T23:59:59:999Z"},
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
TEST(TextFormsTest, LocalTimestampsFollowTheTimeZone) {
    const char* previous = std::getenv("TZ");
    const std::string saved = previous != nullptr ? previous : "";
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
    tzset();
    // Winter and summer time, and back from the local calendar.
    for (const auto& [fileTime, text] :
         {std::pair{133497936001230000ull, L"2024-01-15T07:00:00:123"},
          std::pair{133655184004560000ull, L"2024-07-15T08:00:00:456"}}) {
        EXPECT_EQ(text, TimestampText(fileTime, true));
        uint64_t back = 0;
        ASSERT_TRUE(LocalSystemTimeToFileTime(
            UtcToLocalSystemTime(FileTimeToUtcSystemTime(fileTime)), &back));
        EXPECT_EQ(fileTime, back);
    }
    previous != nullptr ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
}
#endif

TEST(TextFormsTest, GuidsAndTextConversions) {
    const GUID guid{0xDBE9B383, 0x7CF3, 0x4331, {0x91, 0xCC, 0xA3, 0xCB, 0x16, 0xA3, 0xB5, 0x38}};
    EXPECT_EQ(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}", GuidText(guid));
    EXPECT_EQ(L"DBE9B383-7CF3-4331-91CC-A3CB16A3B538", GuidText(guid, false));
    const char16_t text[] = u"a\U0001F600\u00E9\0ignored";
    EXPECT_EQ("a\xF0\x9F\x98\x80\xC3\xA9", Utf8FromWide(WideFromUtf16(text)));
    EXPECT_EQ("a", Utf8FromWide(WideFromUtf16(text, 1)));
    const char16_t lone[] = {u'x', 0xD800, u'y', 0};               // an unpaired surrogate
    const char16_t edges[] = {0xD800, 0xDC00, 0xDBFF, 0xDFFF, 0};  // U+10000 and U+10FFFF
    EXPECT_EQ("x\xEF\xBF\xBDy", Utf8FromWide(WideFromUtf16(lone)));
    EXPECT_EQ("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", Utf8FromWide(WideFromUtf16(edges)));
    EXPECT_EQ(L"plain text", WideFromAnsi("plain text"));
}

}  // namespace
