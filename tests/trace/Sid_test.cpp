#include <gtest/gtest.h>

#include "trace/Sid.h"

namespace {

using logonmon::Sid;

TEST(SidTest, TextAndBinaryFormsRoundTripAndMalformedInputIsRefused) {
    for (const wchar_t* text :
         {L"S-1-5-18", L"S-1-5-21-3623811015-3361044348-30300820-1013", L"S-1-0",
          L"S-1-4294967295-1", L"S-1-0x010000000000-7",  // 2^32 and more in hexadecimal
          L"S-1-0xFFFFFFFFFFFF-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15"}) {
        const auto sid = Sid::FromString(text);
        ASSERT_TRUE(sid.has_value());
        EXPECT_EQ(text, sid->ToString());
        EXPECT_EQ(sid, Sid::FromBytes(sid->Bytes().data(), sid->Bytes().size()));
    }
    const std::vector<uint8_t> bytes = Sid::FromString(L"S-1-5-32-544")->Bytes();
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0}), bytes);
    std::vector<uint8_t> longer = bytes;  // bytes after the declared length are not the SID's
    longer.push_back(0xAA);
    EXPECT_EQ(bytes, Sid::FromBytes(longer.data(), longer.size())->Bytes());

    for (const wchar_t* text : {L"S-1", L"S-2-5-18", L"S-1-5--1", L"S-1-5-4294967296"}) {
        EXPECT_FALSE(Sid::FromString(text).has_value());
    }
    std::vector<uint8_t> badRevision = bytes, tooManyParts(8 + 16 * 4, 0);
    badRevision[0] = 2;
    tooManyParts[0] = 1;
    tooManyParts[1] = 16;
    EXPECT_FALSE(Sid::FromBytes(bytes.data(), bytes.size() - 1).has_value());
    EXPECT_FALSE(Sid::FromBytes(nullptr, 0).has_value());
    EXPECT_FALSE(Sid::FromBytes(badRevision.data(), badRevision.size()).has_value());
    EXPECT_FALSE(Sid::FromBytes(tooManyParts.data(), tooManyParts.size()).has_value());
}

}  // namespace
