// Header copies, extended data, the schema's names and properties, how each
// property in-type is written, and the texts an event supplies to the log.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "tests/support/EventBuilder.h"
#include "trace/EventRecordData.h"
#include "trace/TextForms.h"

namespace {

using logonmon::EventRecordData;
using logonmon::GuidText;
using namespace logonmon::etw;
using namespace plmx::testing;

std::wstring Keys(const EventRecordData& data) {
    std::wstring keys;
    for (const auto& entry : data.properties) {
        keys.append(entry.first).append(L" ");
    }
    return keys;
}

std::string LogPrefix(const EventRecordData& data) {
    char text[EventRecordData::kLogPrefixSize];
    return std::string(text, data.PutLogPrefix(text));
}

std::wstring MessageText(EventRecordData& data) {
    std::wstring text = L"left from the event before";
    data.AssignMessageText(text);
    return text;
}

TEST(EventRecordDataTest, HeaderUserDataLevelAndLogPrefix) {
    ScopedFakeTdh tdh;
    EventBuilder builder;
    builder.Provider(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}").EventId(5001).Opcode(2);
    builder.ActivityId(GuidFromText(L"11111111-2222-3333-4444-555555555555")).Timestamp(1234);
    builder.ProcessId(0x1A2B3).ThreadId(7).SessionId(2).Level(2);
    EVENT_RECORD record = builder.Payload({1, 2, 3}).Record();
    EventRecordData data(record);
    EXPECT_EQ(
        L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538} {11111111-2222-3333-4444-555555555555} "
        L"5001 1234 2",
        GuidText(data.providerId) + L" " + GuidText(data.activityId) + L" " +
            std::to_wstring(data.eventId) + L" " + std::to_wstring(data.timestamp) + L" " +
            std::to_wstring(data.opcode));
    EXPECT_EQ("ERROR 1a2b3-0007-2", data.LevelName() + " " + LogPrefix(data));
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), data.userData);
    const uint32_t override = 9;
    data.sessionIdOverride = &override;
    EXPECT_EQ("1a2b3-0007-9", LogPrefix(data));
    record.UserData = nullptr;  // a length without a buffer is no data
    EXPECT_EQ(0u, EventRecordData(record).userDataLength);

    std::string names;
    for (const uint8_t level : {0, 1, 3, 4, 5, 6}) {
        EventBuilder other;
        names += EventRecordData(other.Level(level).ProcessId(0x10).Record()).LevelName() + " ";
    }
    EXPECT_EQ("NONE CRITICAL WARN INFO VERBOSE 6 ", names);
    EventBuilder withoutSession;
    EXPECT_EQ("0010-0020--1",
              LogPrefix(EventRecordData(withoutSession.ProcessId(0x10).ThreadId(0x20).Record())));
}

TEST(EventRecordDataTest, SessionIdAndUserSidFromExtendedData) {
    const std::vector<uint8_t> sid = SidBytes(L"S-1-5-21-1-2-3");
    const std::vector<uint8_t> system = SidBytes(L"S-1-5-18");
    const struct {
        const char* label;
        std::vector<std::pair<uint16_t, std::vector<uint8_t>>> items;
        std::wstring expected;  // "<session> <SID>", or "throws"
    } cases[] = {
        {"the last TS_ID wins",
         {{3, UInt32Bytes(3)}, {7, {1, 2, 3, 4}}, {3, UInt32Bytes(5)}},
         L"5 "},
        {"a short TS_ID is ignored", {{3, UInt32Bytes(2)}, {3, {9, 0}}}, L"2 "},
        {"a SID longer than its item", {{2, system}, {2, {sid.begin(), sid.end() - 1}}}, L"throws"},
        {"no SID", {{2, {2, 0, 0, 0, 0, 0, 0, 5}}}, L"throws"},
        {"an empty item", {{2, {}}}, L"throws"},
    };
    ScopedFakeTdh tdh;
    for (const auto& c : cases) {
        EventBuilder builder;
        for (const auto& [type, data] : c.items) {
            builder.ExtendedItem(type, data);
        }
        std::wstring result = L"throws";
        try {
            const EventRecordData data(builder.Record());
            result = std::to_wstring(data.sessionId) + L" " +
                     (data.userSid ? data.userSid->ToString() : L"");
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(logonmon::kUserSidCopyFailed, error.what()) << c.label;
        }
        EXPECT_EQ(c.expected, result) << c.label;
    }
}

TEST(EventRecordDataTest, SchemaNamesAndProperties) {
    ScopedFakeTdh tdh;
    EventBuilder none;
    EventRecordData withoutSchema(none.Level(4).Record());
    EXPECT_EQ(nullptr, withoutSchema.EventInformation());
    EXPECT_EQ(L"", Keys(withoutSchema) + withoutSchema.providerName + MessageText(withoutSchema));

    EventBuilder builder;
    builder.ProviderName(L"Microsoft-Windows-Winlogon").TaskName(L"SessionNotification");
    builder.OpcodeName(L"  win:Start \t").EventName(L"NotifyLogon").RelatedName(L"Parent");
    builder.Property(L"First", L"1").Property(PropertyDefinition{L"Nested", 0, 0, {}, true});
    builder.Property(L"Third", L"3");
    EventRecordData data(builder.Record());
    // Structures keep their slot but are neither named nor decoded.
    EXPECT_EQ(
        L"Microsoft-Windows-Winlogon|SessionNotification|win:Start|NotifyLogon|Parent|"
        L"NotifyLogon|Parent|First||Third||First name related Third ",
        data.providerName + L"|" + data.taskName + L"|" + data.opcodeName + L"|" +
            data.EventName() + L"|" + data.RelatedName() + L"|" + data.properties[L"name"] + L"|" +
            data.properties[L"related"] + L"|" + data.PropertyName(0) + L"|" +
            data.PropertyName(1) + L"|" + data.PropertyName(2) + L"|" + data.PropertyName(3) +
            L"|" + Keys(data));

    // A schema cached under one binding is not served under the next.
    EventBuilder cached;
    EXPECT_EQ(
        L"First",
        EventRecordData(cached.EventId(42).DecodingSource(0).TaskName(L"First").Record()).taskName);
    {
        ScopedFakeTdh next;
        EventBuilder again;
        EXPECT_EQ(L"Renamed",
                  EventRecordData(again.EventId(42).DecodingSource(0).TaskName(L"Renamed").Record())
                      .taskName);
    }

    // Keys ignore ASCII case only: '_' (0x5F) sorts before letters, a prefix first.
    EventBuilder mixed;
    for (const wchar_t* name :
         {L"b", L"ABC", L"ab", L"_x", L"Event", L"event", L"\u00C9", L"\u00E9"}) {
        mixed.Property(name, name);
    }
    EventRecordData folded(mixed.Record());
    EXPECT_EQ(L"_x ab ABC b Event \u00C9 \u00E9 ", Keys(folded));
    EXPECT_EQ(L"event", folded.properties[L"EVENT"]);
}

// A message template with its inserts; without one, or when it gives
// nothing, text built from the names and properties.
TEST(EventRecordDataTest, MessageText) {
    const auto withTemplate = [](const wchar_t* text) {
        return [text](EventBuilder& b) {
            b.Message(text).Property(L"P1", L"A").Property(L"P2", L"B");
            b.Property(PropertyDefinition{L"P3", 0, 0, {}, true});
            for (wchar_t value = L'D'; value <= L'J'; ++value) {
                b.Property(L"P" + std::to_wstring(value - L'D' + 4), std::wstring(1, value));
            }
        };
    };
    const std::pair<std::function<void(EventBuilder&)>, std::wstring> cases[] = {
        {withTemplate(L"%1%%%x\r\n"), L"A%x "},
        {withTemplate(L"%10|%01|%0|%"), L"J|A|0|"},
        {withTemplate(L"%3 and %12"), L" and "},  // a structure, and beyond the properties
        {withTemplate(L"line one\r\nline two\n"), L"line one line two "},
        {[](EventBuilder& b) {
             b.OpcodeName(L"Start").TaskName(L"Logon").EventName(L"LogonStart");
             b.Property(L"User", L"bob").Property(L"Opcode", L"x").Property(L"TASK", L"y");
             b.Property(L"Empty", L"").Property(L"Unprintable", L"\u0001z");
         },
         L"Start Logon Name: LogonStart, , , User: bob"},
        {[](EventBuilder& b) { b.Property(L"A", L"1").Property(L"B", L"2"); }, L"A: 1, B: 2"},
        // A one-character text so far takes no separator.
        {[](EventBuilder& b) { b.TaskName(L"T").Property(L"A", L"1"); }, L"TA: 1"},
        {[](EventBuilder& b) { b.TaskName(L"T").EventName(L"N").Property(L"A", L"1"); },
         L"TName: N, A: 1"},
        {[](EventBuilder& b) { b.OpcodeName(L"Info").RelatedName(L"Up"); }, L"Info related: Up"},
        {[](EventBuilder& b) { b.Message(L"%2").TaskName(L"Task").Property(L"A", L"1"); },
         L"Task, A: 1"},
    };
    ScopedFakeTdh tdh;
    for (const auto& [build, expected] : cases) {
        EventBuilder builder;
        build(builder);
        EventRecordData data(builder.Record());
        EXPECT_EQ(expected, MessageText(data));
    }
}

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
        {kInTypeInt8, 0, {0xFF}, L"255"},                   // zero-extended
        {kInTypeInt16, kOutTypePort, {0x00, 0x50}, L"80"},  // network order swapped
        {kInTypeInt32, 0, UInt32Bytes(0xFFFFFFFF), L"4294967295"},
        {kInTypeUInt32, kOutTypeIpv4, {10, 1, 2, 3}, L"10.1.2.3"},
        {kInTypeInt64, 0, UInt64Bytes(~uint64_t{0}), L"18446744073709551615"},
        {kInTypeDouble, 0, RawBytes(-2.25), L"-2.250000"},
        {kInTypeBoolean, 0, UInt32Bytes(0xFFFFFFFF), L"-1"},
        {kInTypeBinary, 0, {0x01, 0xAB, 0x00}, L"01ab00"},
        {kInTypeFileTime, 0, UInt64Bytes(0), L"NULL"},
        {kInTypeSystemTime, 0, RawBytes(SYSTEMTIME{2024, 3, 2, 5, 6, 7, 8, 9}), local},
        {kInTypeSystemTime, 0, RawBytes(SYSTEMTIME{2024, 13, 0, 5, 6, 7, 8, 9}), L""},
        {kInTypeSid, 0, {2, 1, 0, 0, 0, 0, 0, 5, 1, 0, 0, 0}, L""},
        {kInTypeHexInt32, 0, UInt32Bytes(0x0000ABCD), L"cdab0000"},  // in memory order
        {kInTypeCountedString, 0, {4, 0, 'h', 0}, L"04006800"},
        {kInTypeHexDump, 0, {0xDE, 0xAD}, L"dead"},
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
        {kWinlogon, UInt32Property(L"eVENT", 13), L"EndShell"},
        {kWinlogon, UInt32Property(L"Event", 14), L"14"},
        {kOther, UInt32Property(L"Event", 2), L"2"},
        {kWinlogon, UInt32Property(L"Events", 2), L"2"},
        {kWinlogon, UInt32Property(L"Even", 2), L"2"},
        {kWinlogon, {L"Event", kInTypeInt32, 0, UInt32Bytes(2)}, L"2"},
        {kOther, {L"V", kInTypeUInt32, 0, UInt64Bytes(1)}, L"GetValue failed"},  // too large
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
