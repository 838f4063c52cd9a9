#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "tests/support/EventBuilder.h"
#include "trace/TextForms.h"

namespace {

using namespace logonmon;

constexpr uint64_t k2024_03_05_060708_009 = 133540924280090000;

TEST(TextFormsTest, UtcTimestamps) {
    const std::pair<uint64_t, std::wstring> cases[] = {
        {k2024_03_05_060708_009, L"2024-03-05T06:07:08:009Z"},
        {10000, L"1601-01-01T00:00:00:001Z"},
        {125963423999990000, L"2000-02-29T23:59:59:999Z"},
        {2650467743999990000, L"9999-12-31T23:59:59:999Z"},
    };
    for (const auto& [fileTime, text] : cases) {
        EXPECT_EQ(text, TimestampText(fileTime, false));
    }
    EXPECT_EQ(L"NULL", TimestampText(0, false));
    EXPECT_EQ(L"NULL", TimestampText(0, true));
}

#ifndef _WIN32
// Sets the process's time zone for one test.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* current = std::getenv("TZ")) {
            previous_ = current;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        if (previous_) {
            setenv("TZ", previous_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

  private:
    std::optional<std::string> previous_;
};

TEST(TextFormsTest, LocalTimestampsFollowTheTimeZone) {
    ScopedTimeZone zone("EST5EDT,M3.2.0,M11.1.0");
    EXPECT_EQ(L"2024-01-15T07:00:00:123", TimestampText(133497936001230000, true));
    EXPECT_EQ(L"2024-07-15T08:00:00:456", TimestampText(133655184004560000, true));
    const SYSTEMTIME local = UtcToLocalSystemTime(FileTimeToUtcSystemTime(133497936001230000));
    EXPECT_EQ(1, local.wDayOfWeek);  // a Monday
}
#endif

TEST(TextFormsTest, SystemTimeAndFileTimeAgree) {
    const uint64_t fileTimes[] = {10000, 125963423999990000, k2024_03_05_060708_009,
                                  2650467743999990000};
    for (const uint64_t fileTime : fileTimes) {
        const SYSTEMTIME time = FileTimeToUtcSystemTime(fileTime);
        uint64_t back = 0;
        ASSERT_TRUE(SystemTimeToFileTimeValue(time, &back));
        EXPECT_EQ(fileTime, back);
    }
    const SYSTEMTIME time = FileTimeToUtcSystemTime(k2024_03_05_060708_009);
    EXPECT_EQ(2024, time.wYear);
    EXPECT_EQ(3, time.wMonth);
    EXPECT_EQ(2, time.wDayOfWeek);  // a Tuesday
    EXPECT_EQ(5, time.wDay);
    EXPECT_EQ(9, time.wMilliseconds);
    EXPECT_EQ(1, FileTimeToUtcSystemTime(0).wDayOfWeek);  // 1601-01-01 was a Monday

    const SYSTEMTIME invalid[] = {
        {2023, 2, 0, 29, 0, 0, 0, 0}, {1900, 2, 0, 29, 0, 0, 0, 0},   {2024, 0, 0, 1, 0, 0, 0, 0},
        {2024, 4, 0, 31, 0, 0, 0, 0}, {2024, 1, 0, 1, 24, 0, 0, 0},   {2024, 1, 0, 1, 0, 60, 0, 0},
        {2024, 1, 0, 1, 0, 0, 60, 0}, {2024, 1, 0, 1, 0, 0, 0, 1000}, {1600, 12, 0, 31, 0, 0, 0, 0},
    };
    for (const SYSTEMTIME& t : invalid) {
        uint64_t fileTime = 0;
        EXPECT_FALSE(SystemTimeToFileTimeValue(t, &fileTime))
            << t.wYear << "-" << t.wMonth << "-" << t.wDay << " " << t.wHour << ":" << t.wMinute;
    }
    uint64_t leapDay = 0;
    EXPECT_TRUE(SystemTimeToFileTimeValue({2000, 2, 0, 29, 0, 0, 0, 0}, &leapDay));
}

TEST(TextFormsTest, GuidTextIsUpperCase) {
    const GUID guid = plmx::testing::GuidFromText(L"{dbe9b383-7cf3-4331-91cc-a3cb16a3b538}");
    EXPECT_EQ(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}", GuidText(guid));
    EXPECT_EQ(L"DBE9B383-7CF3-4331-91CC-A3CB16A3B538", GuidText(guid, false));
    EXPECT_EQ(L"{00000000-0000-0000-0000-000000000000}", GuidText(GUID{}));
}

TEST(TextFormsTest, TextConversions) {
    const char16_t text[] = u"a\U0001F600\u00E9\0ignored";
    EXPECT_EQ("a\xF0\x9F\x98\x80\xC3\xA9", Utf8FromWide(WideFromUtf16(text)));
    EXPECT_EQ("a", Utf8FromWide(WideFromUtf16(text, 1)));
    EXPECT_EQ(L"", WideFromUtf16(static_cast<const char16_t*>(nullptr)));
    // An unpaired surrogate cannot be encoded.
    const char16_t lone[] = {u'x', 0xD800, u'y', 0};
    EXPECT_EQ("x\xEF\xBF\xBDy", Utf8FromWide(WideFromUtf16(lone)));
    EXPECT_EQ(L"plain text", WideFromAnsi("plain text"));
    EXPECT_EQ(L"", WideFromAnsi(""));
}

}  // namespace
