// Header copies, extended data, the schema protocol, the property map and the
// texts an event supplies to the log.
#include <gtest/gtest.h>

#include <functional>

#include "tests/support/EventBuilder.h"
#include "trace/EventRecordData.h"
#include "trace/TextForms.h"

namespace {

using logonmon::EventRecordData;
using namespace logonmon::etw;
using namespace plmx::testing;

using Build = std::function<void(EventBuilder&)>;

std::vector<std::wstring> Keys(const EventRecordData& data) {
    std::vector<std::wstring> keys;
    for (const auto& entry : data.properties) {
        keys.emplace_back(entry.first);
    }
    return keys;
}

TEST(EventRecordDataTest, CopiesTheHeaderAndTheUserData) {
    ScopedFakeTdh tdh;
    EventBuilder builder;
    builder.Provider(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}")
        .ActivityId(GuidFromText(L"11111111-2222-3333-4444-555555555555"))
        .EventId(5001)
        .ProcessId(0x1a2b)
        .ThreadId(0x3c)
        .Timestamp(133540924280090000)
        .Level(4)
        .Opcode(2)
        .Payload({1, 2, 3});
    EVENT_RECORD record = builder.Record();
    const EventRecordData data(record);
    EXPECT_EQ(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}", logonmon::GuidText(data.providerId));
    EXPECT_EQ(L"{11111111-2222-3333-4444-555555555555}", logonmon::GuidText(data.activityId));
    EXPECT_EQ(5001, data.eventId);
    EXPECT_EQ(0x1a2bu, data.processId);
    EXPECT_EQ(0x3cu, data.threadId);
    EXPECT_EQ(133540924280090000u, data.timestamp);
    EXPECT_EQ(4, data.level);
    EXPECT_EQ(2, data.opcode);
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), data.userData);
    EXPECT_EQ(3u, data.userDataLength);

    // A length without a buffer is taken as no data.
    record.UserData = nullptr;
    const EventRecordData lengthOnly(record);
    EXPECT_TRUE(lengthOnly.userData.empty());
    EXPECT_EQ(0u, lengthOnly.userDataLength);
}

TEST(EventRecordDataTest, SessionIdAndUserSidFromExtendedData) {
    using Items = std::vector<std::pair<uint16_t, std::vector<uint8_t>>>;
    const std::vector<uint8_t> sid = SidBytes(L"S-1-5-21-1-2-3");
    std::vector<uint8_t> sidAndPadding = sid;
    sidAndPadding.push_back(0);
    const std::vector<uint8_t> truncatedSid(sid.begin(), sid.end() - 1);
    const std::vector<uint8_t> system = SidBytes(L"S-1-5-18");
    const struct {
        const char* label;
        Items items;
        uint32_t sessionId;
        std::wstring sidText;  // empty: no SID
        bool fails = false;
    } cases[] = {
        {"none", {}, 0xFFFFFFFF, L""},
        {"the last TS_ID wins",
         {{kExtTypeTsId, UInt32Bytes(3)}, {7, {1, 2, 3, 4}}, {kExtTypeTsId, UInt32Bytes(5)}},
         5,
         L""},
        {"a short TS_ID is ignored",
         {{kExtTypeTsId, UInt32Bytes(2)}, {kExtTypeTsId, {9, 0}}},
         2,
         L""},
        {"bytes after the SID are left out",
         {{kExtTypeSid, sidAndPadding}},
         0xFFFFFFFF,
         L"S-1-5-21-1-2-3"},
        {"the last SID wins", {{kExtTypeSid, sid}, {kExtTypeSid, system}}, 0xFFFFFFFF, L"S-1-5-18"},
        // An item that holds no whole SID fails the event.
        {"a SID longer than its item",
         {{kExtTypeSid, system}, {kExtTypeSid, truncatedSid}},
         0,
         L"",
         true},
        {"no SID", {{kExtTypeSid, {2, 0, 0, 0, 0, 0, 0, 5}}}, 0, L"", true},
        {"an empty item", {{kExtTypeSid, {}}}, 0, L"", true},
    };
    ScopedFakeTdh tdh;
    for (const auto& c : cases) {
        EventBuilder builder;
        for (const auto& [type, data] : c.items) {
            builder.ExtendedItem(type, data);
        }
        if (c.fails) {
            try {
                const EventRecordData data(builder.Record());
                ADD_FAILURE() << c.label;
            } catch (const std::runtime_error& error) {
                EXPECT_STREQ(logonmon::kUserSidCopyFailed, error.what()) << c.label;
            }
            continue;
        }
        const EventRecordData data(builder.Record());
        EXPECT_EQ(c.sessionId, data.sessionId) << c.label;
        EXPECT_EQ(c.sidText, data.userSid ? data.userSid->ToString() : L"") << c.label;
    }
}

TEST(EventRecordDataTest, SchemaNamesAndProperties) {
    ScopedFakeTdh tdh;
    EventBuilder none;
    EventRecordData withoutSchema(none.Level(4).Record());
    EXPECT_EQ(1, tdh.fake.eventInformationCalls.load());
    EXPECT_EQ(nullptr, withoutSchema.EventInformation());
    EXPECT_TRUE(withoutSchema.properties.empty());
    EXPECT_TRUE(withoutSchema.providerName.empty() && withoutSchema.taskName.empty());
    EXPECT_EQ(L"", withoutSchema.MessageText());

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
    EXPECT_EQ(3, tdh.fake.eventInformationCalls.load());  // a size query, then the real one
    ASSERT_NE(nullptr, data.EventInformation());
    EXPECT_EQ(L"Microsoft-Windows-Winlogon", data.providerName);
    EXPECT_EQ(L"SessionNotification", data.taskName);
    EXPECT_EQ(L"win:Start", data.opcodeName);
    EXPECT_EQ(L"NotifyLogon", data.EventName());
    EXPECT_EQ(L"Parent", data.RelatedName());
    EXPECT_EQ(L"NotifyLogon", data.properties[L"name"]);
    EXPECT_EQ(L"Parent", data.properties[L"related"]);
    // Structures keep their slot but are neither named nor decoded.
    ASSERT_EQ(3u, data.propertyNames.size());
    EXPECT_EQ(L"First", data.PropertyName(0));
    EXPECT_EQ(nullptr, data.propertyNames[1]);
    EXPECT_EQ(L"Third", data.PropertyName(2));
    EXPECT_EQ((std::vector<std::wstring>{L"First", L"name", L"related", L"Third"}), Keys(data));
}

TEST(EventRecordDataTest, PropertyKeysIgnoreAsciiCaseOnly) {
    ScopedFakeTdh tdh;
    EventBuilder builder;
    for (const wchar_t* name :
         {L"b", L"ABC", L"ab", L"_x", L"Event", L"event", L"\u00C9", L"\u00E9"}) {
        builder.Property(name, name);
    }
    EventRecordData data(builder.Record());
    // Lower-case folding puts '_' (0x5F) before letters; a prefix sorts first.
    EXPECT_EQ(
        (std::vector<std::wstring>{L"_x", L"ab", L"ABC", L"b", L"Event", L"\u00C9", L"\u00E9"}),
        Keys(data));
    EXPECT_EQ(L"event", data.properties[L"EVENT"]);
}

TEST(EventRecordDataTest, LevelNamesAndLogPrefix) {
    const std::pair<uint8_t, std::wstring> levels[] = {
        {0, L"NONE"}, {1, L"CRITICAL"}, {2, L"ERROR"}, {3, L"WARN"},
        {4, L"INFO"}, {5, L"VERBOSE"},  {6, L"6"},     {255, L"255"}};
    ScopedFakeTdh tdh;
    for (const auto& [level, name] : levels) {
        EventBuilder builder;
        EXPECT_EQ(name, EventRecordData(builder.Level(level).Record()).LevelName());
    }

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

TEST(EventRecordDataTest, MessageTemplates) {
    const std::pair<std::wstring, std::wstring> cases[] = {
        {L"%1%%%x\r\n", L"A%x "},
        {L"User %2 in %1.", L"User B in A."},
        {L"%10|%01|%0|%", L"J|A|0|"},
        {L"%3 and %12", L" and "},  // a structure, and beyond the properties
        {L"line one\r\nline two\n", L"line one line two "},
    };
    ScopedFakeTdh tdh;
    for (const auto& [messageTemplate, expected] : cases) {
        EventBuilder builder;
        builder.Message(messageTemplate)
            .Property(L"P1", L"A")
            .Property(L"P2", L"B")
            .Property(PropertyDefinition{L"P3", 0, 0, {}, true});
        for (wchar_t value = L'D'; value <= L'J'; ++value) {
            builder.Property(L"P" + std::to_wstring(value - L'D' + 4), std::wstring(1, value));
        }
        EventRecordData data(builder.Record());
        EXPECT_EQ(expected, data.MessageText()) << logonmon::Utf8FromWide(messageTemplate);
    }
}

TEST(EventRecordDataTest, MessageFallsBackToNames) {
    const std::pair<Build, std::wstring> cases[] = {
        {[](EventBuilder& b) {
             b.OpcodeName(L"Start")
                 .TaskName(L"Logon")
                 .EventName(L"LogonStart")
                 .Property(L"User", L"bob")
                 .Property(L"Opcode", L"x")
                 .Property(L"TASK", L"y")
                 .Property(L"Empty", L"")
                 .Property(L"Unprintable", L"\u0001z");
         },
         L"Start Logon Name: LogonStart, , , User: bob"},
        {[](EventBuilder& b) { b.TaskName(L"Logon").EventName(L"Logon").Property(L"A", L"1"); },
         L"Logon, A: 1"},
        {[](EventBuilder& b) { b.Property(L"A", L"1").Property(L"B", L"2"); }, L"A: 1, B: 2"},
        // A one-character text so far takes no separator.
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
        EXPECT_EQ(expected, data.MessageText());
    }
}

}  // namespace
