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

TEST(PrintfFormatTest, FollowsTheMicrosoftConventions) {
    EXPECT_EQ(Format("%ws\\%S|%ls|%hs|%s|%c%wc %d%%", L"CORP", L"wide", L"long", "half", "narrow",
                     'A', L'B', 100),
              "CORP\\wide|long|half|narrow|AB 100%");
    EXPECT_EQ(Format("%I64u %I64d %lld", 12345678901234ull, -12345678901234ll, -5ll),
              "12345678901234 -12345678901234 -5");
    EXPECT_EQ(Format("%d 0x%X %08lX %x", 0xFFFFFFFFu, 0x80070005u, 0xABCDu, 255u),
              "-1 0x80070005 0000ABCD ff");
    EXPECT_EQ(Format("[%-6ws][%9ws][%.3ws]", L"ab", L"ab", L"abcdef"), "[ab    ][       ab][abc]");
    EXPECT_EQ(Format("%*d|%-*d|%*d|", 4, 7, 3, 8, -3, 9), "   7|8  |9  |");
    EXPECT_EQ(
        Format("%ws %s", static_cast<const wchar_t*>(nullptr), static_cast<const char*>(nullptr)),
        "(null) (null)");
}

#ifndef _WIN32
// The C runtime converts wide text through the C locale; here it is UTF-8
// whatever the locale.
TEST(PrintfFormatTest, WideTextBecomesUtf8) {
    EXPECT_EQ(Format("[%-7ws]", L"J\u00fc \u4e2d"), "[J\xc3\xbc \xe4\xb8\xad   ]");
    EXPECT_EQ(Format("%ws", L"Logon script 1\u00e9 2 3 4 5 6 7 8 9 10"),
              "Logon script 1\xc3\xa9 2 3 4 5 6 7 8 9 10");
    // A lone surrogate becomes U+FFFD.
    EXPECT_EQ(Format("%ws", L"\U00010000\U0010FFFF\xD800"),
              "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF\xEF\xBF\xBD");
}
#endif

int FormatToBuffer(char* buffer, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = FormatPrintfToBuffer(buffer, size, format, args);
    va_end(args);
    return length;
}

TEST(PrintfFormatTest, TruncationInAFixedBuffer) {
    char buffer[8];
    EXPECT_EQ(FormatToBuffer(buffer, sizeof buffer, "%ws", L"1234567"), 7);
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_EQ(FormatToBuffer(buffer, sizeof buffer, "%ws", L"12345678"), -1);
    EXPECT_EQ(FormatToBuffer(buffer, sizeof buffer, "%ws", L"12345678901234567890"), -1);
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_EQ(FormatToBuffer(buffer, sizeof buffer, "%.2f", 1234.5), 7);
    EXPECT_STREQ(buffer, "1234.50");
    EXPECT_EQ(FormatToBuffer(buffer, 0, "x"), -1);
}

}  // namespace
}  // namespace logonmon
