#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "logonmon/PrintfFormat.h"

namespace logonmon {
namespace {

std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = FormatPrintf(format, args);
    va_end(args);
    return text;
}

int FormatToBuffer(char* buffer, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = FormatPrintfToBuffer(buffer, size, format, args);
    va_end(args);
    return length;
}

TEST(PrintfFormatTest, FollowsTheMicrosoftConventions) {
    const uint64_t big = 12345678901234ull;
    const uint32_t noSession = 0xFFFFFFFF;
    EXPECT_EQ(Format("User: %ws\\%ws", L"CORP", L"alice"), "User: CORP\\alice");
    EXPECT_EQ(Format("%S|%ls|%hs|%s", L"wide", L"long", "half", "narrow"), "wide|long|half|narrow");
    EXPECT_EQ(Format("%I64u %I64d %lld", big, -static_cast<int64_t>(big), -5ll),
              "12345678901234 -12345678901234 -5");
    EXPECT_EQ(Format("sessionId=%d", noSession), "sessionId=-1");
    EXPECT_EQ(Format("0x%X %08lX %x", 0x80070005u, 0xABCDu, 255u), "0x80070005 0000ABCD ff");
    EXPECT_EQ(Format("%.2f seconds, %.2f", 123.456f, 0.0051), "123.46 seconds, 0.01");
    EXPECT_EQ(Format("[%-6ws][%9ws][%.3ws]", L"ab", L"ab", L"abcdef"), "[ab    ][       ab][abc]");
    EXPECT_EQ(Format("%-20s|%20s|", "Login", "Profiles"),
              "Login               |            Profiles|");
    EXPECT_EQ(Format("%c%wc %d%%", 'A', L'B', 100), "AB 100%");
    EXPECT_EQ(Format("%*d|%-*d|%*d|", 4, 7, 3, 8, -3, 9), "   7|8  |9  |");
    EXPECT_EQ(
        Format("%ws %s", static_cast<const wchar_t*>(nullptr), static_cast<const char*>(nullptr)),
        "(null) (null)");
}

#ifndef _WIN32
// The C runtime converts wide text through the C locale; here it is UTF-8
// whatever the locale.
TEST(PrintfFormatTest, WideTextBecomesUtf8) {
    EXPECT_EQ(Format("%ws", L"J\u00fcrgen \u00e5 \u4e2d"), "J\xc3\xbcrgen \xc3\xa5 \xe4\xb8\xad");
    EXPECT_EQ(Format("[%-7ws]", L"\u00fcber"),
              "[\xc3\xbc"
              "ber   ]");
}
#endif

TEST(PrintfFormatTest, TruncationInAFixedBuffer) {
    char buffer[8];
    EXPECT_EQ(FormatToBuffer(buffer, sizeof buffer, "%ws", L"1234567"), 7);
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_EQ(FormatToBuffer(buffer, sizeof buffer, "%ws", L"12345678"), -1);
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_EQ(FormatToBuffer(buffer, 0, "x"), -1);
}

}  // namespace
}  // namespace logonmon
