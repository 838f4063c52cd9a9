// How each property in-type is written into the property map, and the
// reader's texts when a value cannot be read.
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/EventBuilder.h"
#include "trace/EventRecordData.h"
#include "trace/TextForms.h"

namespace {

using namespace logonmon::etw;
using namespace plmx::testing;

constexpr wchar_t kWinlogon[] = L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}";
constexpr wchar_t kOther[] = L"{89B1E9F0-5AFF-44A6-9B44-0A07A7CE5845}";

// One property's stored text, or the text of what reading it threw.
std::wstring Decode(PropertyDefinition property, const wchar_t* provider = kOther,
                    uint32_t failSizeWith = 0, uint32_t failValueWith = 0) {
    ScopedFakeTdh tdh;
    tdh.fake.failPropertySizeWith = failSizeWith;
    tdh.fake.failPropertyWith = failValueWith;
    EventBuilder builder;
    const std::wstring name = property.name;
    try {
        const logonmon::EventRecordData data(
            builder.Provider(provider).Property(property).Record());
        const auto found = data.properties.find(name);
        return found != data.properties.end() ? found->second : L"(absent)";
    } catch (const std::runtime_error& error) {
        return logonmon::WideFromAnsi(error.what());
    }
}

TEST(PropertyValueTest, EachInTypeIsWrittenAsTheReaderFormatsIt) {
    const GUID guid = GuidFromText(L"{01234567-89AB-CDEF-0123-456789ABCDEF}");
    const uint64_t fileTime = 133540924280090000;  // 2024-03-05 06:07:08.009 UTC
    const std::wstring local = logonmon::TimestampText(fileTime, true);
    ASSERT_EQ(std::wstring::npos, local.find(L'Z'));
    const struct {
        uint16_t inType;
        uint16_t outType;
        std::vector<uint8_t> value;
        std::wstring expected;
    } cases[] = {
        {kInTypeUnicodeString, 0, {'a', 0, 0, 0, 'b', 0, 0, 0}, L"a"},
        {kInTypeUnicodeString, 0, Utf16Bytes(L" \t a b \r\n"), L"a b"},  // trimmed
        {kInTypeAnsiString, 0, {'a', 'b', 'c', 0}, L"abc"},
        {kInTypeAnsiString, 0, {}, L""},
        {kInTypeInt8, 0, {0xFF}, L"255"},  // zero-extended
        {kInTypeInt16, 0, {0xFF, 0xFF}, L"65535"},
        {kInTypeUInt16, 0, {0x00, 0x50}, L"20480"},
        {kInTypeInt16, kOutTypePort, {0x00, 0x50}, L"80"},  // network order swapped
        {kInTypeInt32, 0, UInt32Bytes(0xFFFFFFFF), L"4294967295"},
        {kInTypeUInt32, 0, {0x02, 0x01}, L"258"},  // a smaller value zero-extended
        {kInTypeUInt32, kOutTypeIpv4, {10, 1, 2, 3}, L"10.1.2.3"},
        {kInTypeInt64, 0, UInt64Bytes(~uint64_t{0}), L"18446744073709551615"},
        {kInTypeUInt64, 0, UInt64Bytes(0x100000000), L"4294967296"},
        {kInTypeFloat, 0, RawBytes(1.5f), L"1.500000"},
        {kInTypeDouble, 0, RawBytes(-2.25), L"-2.250000"},
        {kInTypeBoolean, 0, UInt32Bytes(0xFFFFFFFF), L"-1"},
        {kInTypeBinary, 0, {0x01, 0xAB, 0x00}, L"01ab00"},
        {kInTypeGuid, 0, RawBytes(guid), L"{01234567-89AB-CDEF-0123-456789ABCDEF}"},
        {kInTypePointer, 0, UInt64Bytes(0xFFFFF80012345678), L"18446735277921949304"},
        {kInTypeFileTime, 0, UInt64Bytes(0), L"NULL"},
        {kInTypeFileTime, 0, UInt64Bytes(fileTime), local},
        {kInTypeSystemTime, 0, RawBytes(SYSTEMTIME{2024, 3, 2, 5, 6, 7, 8, 9}), local},
        {kInTypeSystemTime, 0, RawBytes(SYSTEMTIME{2024, 13, 0, 5, 6, 7, 8, 9}), L""},
        {kInTypeSid, 0, SidBytes(L"S-1-5-21-100-200-300-1001"), L"S-1-5-21-100-200-300-1001"},
        {kInTypeSid, 0, {2, 1, 0, 0, 0, 0, 0, 5, 1, 0, 0, 0}, L""},
        {kInTypeHexInt32, 0, UInt32Bytes(0x0000ABCD), L"cdab0000"},  // in memory order
        {kInTypeHexInt64, 0, UInt64Bytes(0x0102030405060708), L"0807060504030201"},
        {kInTypeCountedString, 0, {4, 0, 'h', 0}, L"04006800"},
        {kInTypeCountedAnsiString, 0, {2, 0, 'h'}, L"020068"},
        {kInTypeHexDump, 0, {0xDE, 0xAD}, L"dead"},
        {kInTypeNull, 0, {1, 2}, L""},
        {299, 0, {1, 2}, L""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, Decode({L"Value", c.inType, c.outType, c.value})) << c.inType;
    }
}

TEST(PropertyValueTest, WinlogonNotificationsAreNamedAndReadFailuresThrowTheReadersText) {
    const struct {
        const wchar_t* provider;
        PropertyDefinition property;
        std::wstring expected;
        uint32_t failSizeWith = 0, failValueWith = 0;
    } cases[] = {
        {kWinlogon, UInt32Property(L"Event", 0), L"CreateSession"},
        {kWinlogon, UInt32Property(L"eVENT", 13), L"EndShell"},
        {kWinlogon, UInt32Property(L"Event", 14), L"14"},
        {kOther, UInt32Property(L"Event", 2), L"2"},
        {kWinlogon, UInt32Property(L"Events", 2), L"2"},
        {kWinlogon, {L"Event", kInTypeInt32, 0, UInt32Bytes(2)}, L"2"},
        {kOther, {L"V", kInTypeUInt32, 0, UInt64Bytes(1)}, L"GetValue failed"},  // too large
        {kOther, UInt32Property(L"V", 1), L"GetValue failed", kErrorNotFound},
        {kOther, UInt32Property(L"V", 1), L"GetValue failed", 0, kErrorNotFound},
        {kOther, StringProperty(L"V", L"x"), L"GetValueAlloc failed", kErrorNotFound},
        {kOther, {L"V", kInTypeBinary, 0, {1}}, L"GetValueAlloc failed", 0, kErrorNotFound},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, Decode(c.property, c.provider, c.failSizeWith, c.failValueWith))
            << logonmon::Utf8FromWide(c.property.name);
    }
}

}  // namespace
