// Header copies, extended data, the schema's names and properties, and the
// texts an event supplies to the log.
#include <gtest/gtest.h>

#include <functional>

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

TEST(EventRecordDataTest, CopiesTheHeaderAndTheUserData) {
    ScopedFakeTdh tdh;
    EventBuilder builder;
    builder.Provider(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}").EventId(5001).Opcode(2);
    builder.ActivityId(GuidFromText(L"11111111-2222-3333-4444-555555555555")).Timestamp(1234);
    EVENT_RECORD record = builder.Payload({1, 2, 3}).Record();
    const EventRecordData data(record);
    EXPECT_EQ(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538} {11111111-2222-3333-4444-555555555555}",
              GuidText(data.providerId) + L" " + GuidText(data.activityId));
    EXPECT_EQ("5001 1234 2 3", std::to_string(data.eventId) + " " + std::to_string(data.timestamp) +
                                   " " + std::to_string(data.opcode) + " " +
                                   std::to_string(data.userDataLength));
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), data.userData);
    record.UserData = nullptr;  // a length without a buffer is no data
    EXPECT_EQ(0u, EventRecordData(record).userDataLength);
}

TEST(EventRecordDataTest, SessionIdAndUserSidFromExtendedData) {
    const std::vector<uint8_t> sid = SidBytes(L"S-1-5-21-1-2-3");
    std::vector<uint8_t> padded = sid;
    padded.push_back(0);
    const std::vector<uint8_t> system = SidBytes(L"S-1-5-18");
    const struct {
        const char* label;
        std::vector<std::pair<uint16_t, std::vector<uint8_t>>> items;
        std::wstring expected;  // "<session> <SID>", or "throws"
    } cases[] = {
        {"none", {}, L"4294967295 "},
        {"the last TS_ID wins",
         {{3, UInt32Bytes(3)}, {7, {1, 2, 3, 4}}, {3, UInt32Bytes(5)}},
         L"5 "},
        {"a short TS_ID is ignored", {{3, UInt32Bytes(2)}, {3, {9, 0}}}, L"2 "},
        {"bytes after the SID are left out", {{2, padded}}, L"4294967295 S-1-5-21-1-2-3"},
        {"the last SID wins", {{2, sid}, {2, system}}, L"4294967295 S-1-5-18"},
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
    EXPECT_EQ(L"", Keys(withoutSchema) + withoutSchema.providerName + withoutSchema.MessageText());

    EventBuilder builder;
    builder.ProviderName(L"Microsoft-Windows-Winlogon")
        .TaskName(L"SessionNotification")
        .OpcodeName(L"  win:Start \t")
        .EventName(L"NotifyLogon")
        .RelatedName(L"Parent")
        .Property(L"First", L"1")
        .Property(PropertyDefinition{L"Nested", 0, 0, {}, true})
        .Property(L"Third", L"3");
    EventRecordData data(builder.Record());
    EXPECT_EQ(L"Microsoft-Windows-Winlogon", data.providerName);
    EXPECT_EQ(L"SessionNotification", data.taskName);
    EXPECT_EQ(L"win:Start", data.opcodeName);
    EXPECT_EQ(L"NotifyLogon", data.EventName());
    EXPECT_EQ(L"Parent", data.RelatedName());
    EXPECT_EQ(L"NotifyLogon", data.properties[L"name"]);
    EXPECT_EQ(L"Parent", data.properties[L"related"]);
    // Structures keep their slot but are neither named nor decoded.
    EXPECT_EQ(L"First||Third|", data.PropertyName(0) + L"|" + data.PropertyName(1) + L"|" +
                                    data.PropertyName(2) + L"|" + data.PropertyName(3));
    EXPECT_EQ(L"First name related Third ", Keys(data));

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

TEST(EventRecordDataTest, LevelNamesAndLogPrefix) {
    ScopedFakeTdh tdh;
    std::wstring names;
    for (const uint8_t level : {0, 1, 2, 3, 4, 5, 6, 255}) {
        EventBuilder builder;
        names += EventRecordData(builder.Level(level).Record()).LevelName() + L" ";
    }
    EXPECT_EQ(L"NONE CRITICAL ERROR WARN INFO VERBOSE 6 255 ", names);

    EventBuilder withoutSession;
    EXPECT_EQ(L"0010-0020--1",
              EventRecordData(withoutSession.ProcessId(0x10).ThreadId(0x20).Record()).LogPrefix());
    EventBuilder builder;
    EventRecordData data(builder.ProcessId(0x12345).ThreadId(7).SessionId(2).Record());
    EXPECT_EQ(L"12345-0007-2", data.LogPrefix());
    const uint32_t override = 9;
    data.sessionIdOverride = &override;
    EXPECT_EQ(L"12345-0007-9", data.LogPrefix());
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
        {withTemplate(L"User %2 in %1."), L"User B in A."},
        {withTemplate(L"%10|%01|%0|%"), L"J|A|0|"},
        {withTemplate(L"%3 and %12"), L" and "},  // a structure, and beyond the properties
        {withTemplate(L"line one\r\nline two\n"), L"line one line two "},
        {[](EventBuilder& b) {
             b.OpcodeName(L"Start").TaskName(L"Logon").EventName(L"LogonStart");
             b.Property(L"User", L"bob").Property(L"Opcode", L"x").Property(L"TASK", L"y");
             b.Property(L"Empty", L"").Property(L"Unprintable", L"\u0001z");
         },
         L"Start Logon Name: LogonStart, , , User: bob"},
        {[](EventBuilder& b) { b.TaskName(L"Logon").EventName(L"Logon").Property(L"A", L"1"); },
         L"Logon, A: 1"},
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
        EXPECT_EQ(expected, EventRecordData(builder.Record()).MessageText());
    }
}

}  // namespace
