#include <gtest/gtest.h>

#include "trace/Sid.h"

namespace {

using logonmon::Sid;

TEST(SidTest, TextAndBinaryFormsRoundTrip) {
    const std::wstring texts[] = {
        L"S-1-5-18",
        L"S-1-5-21-3623811015-3361044348-30300820-1013",
        L"S-1-0",  // no sub-authority
        L"S-1-4294967295-1",
        L"S-1-0x010000000000-7",  // authorities of 2^32 and more are hexadecimal
        L"S-1-0xFFFFFFFFFFFF-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15",
    };
    for (const std::wstring& text : texts) {
        const auto sid = Sid::FromString(text);
        ASSERT_TRUE(sid.has_value());
        EXPECT_EQ(text, sid->ToString());
        const auto copy = Sid::FromBytes(sid->Bytes().data(), sid->Bytes().size());
        ASSERT_TRUE(copy.has_value());
        EXPECT_EQ(*sid, *copy);
    }
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0}),
              Sid::FromString(L"S-1-5-32-544")->Bytes());
}

TEST(SidTest, RejectsMalformedInput) {
    for (const wchar_t* text : {L"S-1", L"S-2-5-18", L"S-1-5--1", L"S-1-5-4294967296"}) {
        EXPECT_FALSE(Sid::FromString(text).has_value());
    }
    const std::vector<uint8_t> bytes = Sid::FromString(L"S-1-5-21-1")->Bytes();
    EXPECT_FALSE(Sid::FromBytes(bytes.data(), bytes.size() - 1).has_value());
    EXPECT_FALSE(Sid::FromBytes(nullptr, 0).has_value());
    std::vector<uint8_t> badRevision = bytes;
    badRevision[0] = 2;
    EXPECT_FALSE(Sid::FromBytes(badRevision.data(), badRevision.size()).has_value());
    std::vector<uint8_t> tooManyParts(8 + 16 * 4, 0);
    tooManyParts[0] = 1;
    tooManyParts[1] = 16;
    EXPECT_FALSE(Sid::FromBytes(tooManyParts.data(), tooManyParts.size()).has_value());
    // Bytes after the declared length are not part of the SID.
    std::vector<uint8_t> longer = bytes;
    longer.push_back(0xAA);
    EXPECT_EQ(bytes, Sid::FromBytes(longer.data(), longer.size())->Bytes());
}

}  // namespace
