// How each property in-type is written into the property map.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "tests/support/EventBuilder.h"
#include "trace/EventRecordData.h"
#include "trace/TextForms.h"

namespace {

using logonmon::EventRecordData;
using namespace logonmon::etw;
using namespace plmx::testing;

constexpr wchar_t kWinlogon[] = L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}";
constexpr wchar_t kOther[] = L"{89B1E9F0-5AFF-44A6-9B44-0A07A7CE5845}";

template <typename T>
std::vector<uint8_t> RawBytes(const T& value) {
    std::vector<uint8_t> bytes(sizeof(T));
    std::memcpy(bytes.data(), &value, sizeof(T));
    return bytes;
}

// Decodes one property and returns its stored text.
std::wstring Decode(uint16_t inType, uint16_t outType, std::vector<uint8_t> value,
                    const std::wstring& provider = kOther, const std::wstring& name = L"Value") {
    ScopedFakeTdh tdh;
    EventBuilder builder;
    builder.Provider(provider).Property(
        PropertyDefinition{name, inType, outType, std::move(value)});
    const EventRecordData data(builder.Record());
    const auto entry = data.properties.find(name);
    return entry == data.properties.end() ? L"<missing>" : entry->second;
}

TEST(PropertyValueTest, EachInTypeIsWrittenAsTheReaderFormatsIt) {
    const GUID guid = GuidFromText(L"{01234567-89AB-CDEF-0123-456789ABCDEF}");
    const uint64_t fileTime = 133540924280090000;  // 2024-03-05 06:07:08.009 UTC
    const std::wstring local = logonmon::TimestampText(fileTime, true);
    ASSERT_EQ(std::wstring::npos, local.find(L'Z'));
    const struct {
        const char* label;
        uint16_t inType;
        uint16_t outType;
        std::vector<uint8_t> value;
        std::wstring expected;
    } cases[] = {
        {"unicode string", kInTypeUnicodeString, 0, {'a', 0, 0, 0, 'b', 0, 0, 0}, L"a"},
        {"unicode string trimmed", kInTypeUnicodeString, 0, Utf16Bytes(L" \t a b \r\n"), L"a b"},
        {"ansi string", kInTypeAnsiString, 0, {'a', 'b', 'c', 0}, L"abc"},
        {"ansi string without value", kInTypeAnsiString, 0, {}, L""},
        {"int8 zero-extended", kInTypeInt8, 0, {0xFF}, L"255"},
        {"uint8", kInTypeUInt8, 0, {7}, L"7"},
        {"int16 zero-extended", kInTypeInt16, 0, UInt16Bytes(0xFFFF), L"65535"},
        {"uint16", kInTypeUInt16, 0, UInt16Bytes(0x5000), L"20480"},
        {"uint16 port swapped", kInTypeUInt16, kOutTypePort, UInt16Bytes(0x5000), L"80"},
        {"int16 port swapped", kInTypeInt16, kOutTypePort, UInt16Bytes(0x0102), L"513"},
        {"int32 written unsigned", kInTypeInt32, 0, UInt32Bytes(0xFFFFFFFF), L"4294967295"},
        {"uint32", kInTypeUInt32, 0, UInt32Bytes(123456), L"123456"},
        {"smaller value zero-extended", kInTypeUInt32, 0, {0x02, 0x01}, L"258"},
        {"uint32 ipv4 in memory order", kInTypeUInt32, kOutTypeIpv4, {10, 1, 2, 3}, L"10.1.2.3"},
        {"int32 ipv4", kInTypeInt32, kOutTypeIpv4, {192, 168, 0, 255}, L"192.168.0.255"},
        {"int64 written unsigned", kInTypeInt64, 0, UInt64Bytes(~uint64_t{0}),
         L"18446744073709551615"},
        {"uint64", kInTypeUInt64, 0, UInt64Bytes(0x100000000), L"4294967296"},
        {"float", kInTypeFloat, 0, RawBytes(1.5f), L"1.500000"},
        {"double", kInTypeDouble, 0, RawBytes(-2.25), L"-2.250000"},
        {"boolean", kInTypeBoolean, 0, UInt32Bytes(1), L"1"},
        {"boolean signed", kInTypeBoolean, 0, UInt32Bytes(0xFFFFFFFF), L"-1"},
        {"binary", kInTypeBinary, 0, {0x01, 0xAB, 0x00}, L"01ab00"},
        {"guid braced upper case", kInTypeGuid, 0, RawBytes(guid),
         L"{01234567-89AB-CDEF-0123-456789ABCDEF}"},
        {"pointer", kInTypePointer, 0, UInt64Bytes(0xFFFFF80012345678), L"18446735277921949304"},
        {"filetime zero", kInTypeFileTime, 0, UInt64Bytes(0), L"NULL"},
        {"filetime in local time", kInTypeFileTime, 0, UInt64Bytes(fileTime), local},
        {"systemtime in local time", kInTypeSystemTime, 0,
         RawBytes(SYSTEMTIME{2024, 3, 2, 5, 6, 7, 8, 9}), local},
        {"systemtime invalid", kInTypeSystemTime, 0,
         RawBytes(SYSTEMTIME{2024, 13, 0, 5, 6, 7, 8, 9}), L""},
        {"sid", kInTypeSid, 0, SidBytes(L"S-1-5-21-100-200-300-1001"),
         L"S-1-5-21-100-200-300-1001"},
        {"sid malformed", kInTypeSid, 0, {2, 1, 0, 0, 0, 0, 0, 5, 1, 0, 0, 0}, L""},
        {"hexint32 in memory order", kInTypeHexInt32, 0, UInt32Bytes(0x0000ABCD), L"cdab0000"},
        {"hexint64 in memory order", kInTypeHexInt64, 0, UInt64Bytes(0x0102030405060708),
         L"0807060504030201"},
        {"counted string as bytes", kInTypeCountedString, 0, {4, 0, 'h', 0}, L"04006800"},
        {"counted ansi string as bytes", kInTypeCountedAnsiString, 0, {2, 0, 'h'}, L"020068"},
        {"hex dump", kInTypeHexDump, 0, {0xDE, 0xAD}, L"dead"},
        {"null in-type", kInTypeNull, 0, {1, 2}, L""},
        {"unknown in-type", 299, 0, {1, 2}, L""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, Decode(c.inType, c.outType, c.value)) << c.label;
    }
}

TEST(PropertyValueTest, WinlogonNotificationsAreNamed) {
    const wchar_t* const names[] = {
        L"CreateSession", L"TerminateSession", L"Login",        L"Logoff",     L"Lock",
        L"Unlock",        L"StartSSAsUser",    L"StopSSAsUser", L"Disconnect", L"Reconnect",
        L"StartSSAsNone", L"StopSSAsNone",     L"StartShell",   L"EndShell"};
    for (uint32_t value = 0; value < 14; ++value) {
        EXPECT_EQ(names[value], Decode(kInTypeUInt32, 0, UInt32Bytes(value), kWinlogon, L"Event"));
    }
    const struct {
        const wchar_t* provider;
        const wchar_t* name;
        uint16_t inType;
        uint32_t value;
        std::wstring expected;
    } cases[] = {
        {kWinlogon, L"eVENT", kInTypeUInt32, 4, L"Lock"},
        {kWinlogon, L"Event", kInTypeUInt32, 14, L"14"},
        {kOther, L"Event", kInTypeUInt32, 2, L"2"},
        {kWinlogon, L"Events", kInTypeUInt32, 2, L"2"},
        {kWinlogon, L"Event", kInTypeInt32, 2, L"2"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, Decode(c.inType, 0, UInt32Bytes(c.value), c.provider, c.name))
            << logonmon::Utf8FromWide(c.name) << " " << c.value;
    }
}

TEST(PropertyValueTest, ReadFailuresThrowTheReadersText) {
    const struct {
        uint16_t inType;
        uint32_t failSizeWith;
        uint32_t failValueWith;
        std::vector<uint8_t> value;
        const char* expected;
    } cases[] = {
        {kInTypeUInt32, 0, 0, UInt64Bytes(1), "GetValue failed"},  // larger than its reader
        {kInTypeUInt32, kErrorNotFound, 0, UInt32Bytes(1), "GetValue failed"},
        {kInTypeUInt32, 0, kErrorNotFound, UInt32Bytes(1), "GetValue failed"},
        {kInTypeUnicodeString, kErrorNotFound, 0, UInt32Bytes(1), "GetValueAlloc failed"},
        {kInTypeBinary, 0, kErrorNotFound, UInt32Bytes(1), "GetValueAlloc failed"},
    };
    for (const auto& c : cases) {
        ScopedFakeTdh tdh;
        tdh.fake.failPropertySizeWith = c.failSizeWith;
        tdh.fake.failPropertyWith = c.failValueWith;
        EventBuilder builder;
        builder.Property(PropertyDefinition{L"Value", c.inType, 0, c.value});
        try {
            EventRecordData data(builder.Record());
            ADD_FAILURE() << "no exception for in-type " << c.inType;
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(c.expected, e.what()) << "in-type " << c.inType;
        }
    }
}

}  // namespace
