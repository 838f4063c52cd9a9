// Header copies, extended data, the schema protocol, the property map and the
// texts an event supplies to the log.
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <stdexcept>

#include "tests/support/EventBuilder.h"
#include "trace/EventRecordData.h"
#include "trace/TextForms.h"

namespace {

using logonmon::EventRecordData;
using namespace logonmon::etw;
using namespace plmx::testing;

std::vector<std::wstring> Keys(const EventRecordData& data) {
    std::vector<std::wstring> keys;
    for (const auto& entry : data.properties) {
        keys.push_back(entry.first);
    }
    return keys;
}

// Serves the builder's schema after letting a test damage it.
class CorruptingTdh : public FakeTdh {
  public:
    // May also shorten the size reported back.
    std::function<void(TRACE_EVENT_INFO&, uint32_t&)> corrupt;

    uint32_t GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                 uint32_t* bufferSize) override {
        const uint32_t status = FakeTdh::GetEventInformation(event, buffer, bufferSize);
        if (status == kErrorSuccess) {
            corrupt(*buffer, *bufferSize);
        }
        return status;
    }
};

TEST(EventRecordDataTest, CopiesTheHeader) {
    ScopedFakeTdh tdh;
    const GUID activity = GuidFromText(L"11111111-2222-3333-4444-555555555555");
    EventBuilder builder;
    builder.Provider(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}")
        .ActivityId(activity)
        .EventId(5001)
        .ProcessId(0x1a2b)
        .ThreadId(0x3c)
        .Timestamp(133540924280090000)
        .Level(4)
        .Opcode(2);
    const EventRecordData data(builder.Record());
    EXPECT_EQ(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}", logonmon::GuidText(data.providerId));
    EXPECT_EQ(L"{11111111-2222-3333-4444-555555555555}", logonmon::GuidText(data.activityId));
    EXPECT_EQ(5001, data.eventId);
    EXPECT_EQ(0x1a2bu, data.processId);
    EXPECT_EQ(0x3cu, data.threadId);
    EXPECT_EQ(133540924280090000u, data.timestamp);
    EXPECT_EQ(4, data.level);
    EXPECT_EQ(2, data.opcode);
}

TEST(EventRecordDataTest, SessionIdComesFromTheLastTerminalSessionItem) {
    ScopedFakeTdh tdh;
    EventBuilder none;
    const EventRecordData withoutItems(none.ProcessId(0x10).ThreadId(0x20).Record());
    EXPECT_EQ(0xFFFFFFFFu, withoutItems.sessionId);
    EXPECT_EQ(L"0010-0020--1", withoutItems.LogPrefix());

    EventBuilder two;
    two.SessionId(3).ExtendedItem(7, {1, 2, 3, 4}).SessionId(5);
    const EventRecordData withTwo(two.Record());
    EXPECT_EQ(5u, withTwo.sessionId);
    EXPECT_FALSE(withTwo.userSid.has_value());
}

TEST(EventRecordDataTest, MalformedExtendedItemsAreIgnored) {
    ScopedFakeTdh tdh;
    std::vector<uint8_t> sid = SidBytes(L"S-1-5-21-1-2-3");
    std::vector<uint8_t> sidWithTrailingByte = sid;
    sidWithTrailingByte.push_back(0);
    std::vector<uint8_t> truncatedSid(sid.begin(), sid.end() - 1);

    EventBuilder builder;
    builder.SessionId(2)
        .ExtendedItem(kExtTypeTsId, {9, 0})  // too short for a session id
        .UserSid(L"S-1-5-18")
        .ExtendedItem(kExtTypeSid, sidWithTrailingByte)
        .ExtendedItem(kExtTypeSid, truncatedSid)
        .ExtendedItem(kExtTypeSid, {});
    const EventRecordData data(builder.Record());
    EXPECT_EQ(2u, data.sessionId);
    ASSERT_TRUE(data.userSid.has_value());
    EXPECT_EQ(L"S-1-5-18", data.userSid->ToString());

    // Items without data, and a count without an item array.
    EVENT_RECORD record = builder.Record();
    std::vector<EVENT_HEADER_EXTENDED_DATA_ITEM> items(record.ExtendedData,
                                                       record.ExtendedData + 3);
    for (auto& item : items) {
        item.DataPtr = 0;
    }
    record.ExtendedData = items.data();
    record.ExtendedDataCount = 3;
    EXPECT_EQ(0xFFFFFFFFu, EventRecordData(record).sessionId);
    record.ExtendedData = nullptr;
    EXPECT_EQ(0xFFFFFFFFu, EventRecordData(record).sessionId);
}

TEST(EventRecordDataTest, CopiesUserData) {
    ScopedFakeTdh tdh;
    EventBuilder builder;
    builder.Payload({1, 2, 3});
    EVENT_RECORD record = builder.Record();
    const EventRecordData data(record);
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), data.userData);
    EXPECT_EQ(3u, data.userDataLength);

    EventBuilder empty;
    const EventRecordData noData(empty.Record());
    EXPECT_TRUE(noData.userData.empty());
    EXPECT_EQ(0u, noData.userDataLength);

    // A length without a buffer is taken as no data.
    record.UserData = nullptr;
    const EventRecordData lengthOnly(record);
    EXPECT_TRUE(lengthOnly.userData.empty());
    EXPECT_EQ(0u, lengthOnly.userDataLength);
}

TEST(EventRecordDataTest, WithoutSchemaOnlyTheHeaderIsKnown) {
    ScopedFakeTdh tdh;
    EventBuilder builder;
    builder.Level(4).Payload({1});
    EventRecordData data(builder.Record());
    EXPECT_EQ(1, tdh.fake.eventInformationCalls);
    EXPECT_EQ(nullptr, data.EventInformation());
    EXPECT_TRUE(data.properties.empty());
    EXPECT_TRUE(data.propertyNames.empty());
    EXPECT_EQ(L"", data.providerName);
    EXPECT_EQ(L"", data.taskName);
    EXPECT_EQ(nullptr, data.eventName);
    EXPECT_EQ(L"", data.MessageText());
    EXPECT_EQ(L"INFO", data.LevelName());
}

TEST(EventRecordDataTest, ReadsNamesFromTheSchema) {
    ScopedFakeTdh tdh;
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
    EXPECT_EQ(2, tdh.fake.eventInformationCalls);  // size query, then the real one
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
    builder.Property(L"b", L"1")
        .Property(L"ABC", L"2")
        .Property(L"ab", L"3")
        .Property(L"_x", L"4")
        .Property(L"Event", L"5")
        .Property(L"event", L"6")
        .Property(L"\u00C9", L"7")
        .Property(L"\u00E9", L"8");
    EventRecordData data(builder.Record());
    // Lower-case folding puts '_' (0x5F) before letters; a prefix sorts first.
    EXPECT_EQ(
        (std::vector<std::wstring>{L"_x", L"ab", L"ABC", L"b", L"Event", L"\u00C9", L"\u00E9"}),
        Keys(data));
    EXPECT_EQ(L"6", data.properties[L"EVENT"]);
    EXPECT_EQ(L"7", data.properties[L"\u00C9"]);
    EXPECT_EQ(L"8", data.properties[L"\u00E9"]);
}

TEST(EventRecordDataTest, LevelNames) {
    const std::pair<uint8_t, std::wstring> cases[] = {
        {0, L"NONE"}, {1, L"CRITICAL"}, {2, L"ERROR"}, {3, L"WARN"},
        {4, L"INFO"}, {5, L"VERBOSE"},  {6, L"6"},     {255, L"255"}};
    ScopedFakeTdh tdh;
    for (const auto& [level, name] : cases) {
        EventBuilder builder;
        EXPECT_EQ(name, EventRecordData(builder.Level(level).Record()).LevelName());
    }
}

TEST(EventRecordDataTest, LogPrefixUsesTheOverride) {
    ScopedFakeTdh tdh;
    EventBuilder builder;
    EventRecordData data(builder.ProcessId(0x12345).ThreadId(7).SessionId(2).Record());
    EXPECT_EQ(L"12345-0007-2", data.LogPrefix());
    const uint32_t override = 9;
    data.sessionIdOverride = &override;
    EXPECT_EQ(L"12345-0007-9", data.LogPrefix());
}

struct MessageCase {
    std::wstring messageTemplate;
    std::wstring expected;
};

TEST(EventRecordDataTest, MessageTemplates) {
    const MessageCase cases[] = {
        {L"%1%%%x\r\n", L"A%x "},
        {L"User %2 in %1.", L"User B in A."},
        {L"%10|%01|%0|%", L"J|A|0|"},
        {L"%3 and %12", L" and "},  // a structure, and beyond the properties
        {L"line one\r\nline two\n", L"line one line two "},
        {L"100%% sure", L"100% sure"},
    };
    for (const MessageCase& c : cases) {
        ScopedFakeTdh tdh;
        EventBuilder builder;
        builder.Message(c.messageTemplate)
            .Property(L"P1", L"A")
            .Property(L"P2", L"B")
            .Property(PropertyDefinition{L"P3", 0, 0, {}, true});
        for (wchar_t value = L'D'; value <= L'J'; ++value) {
            builder.Property(L"P" + std::to_wstring(value - L'D' + 4), std::wstring(1, value));
        }
        EventRecordData data(builder.Record());
        EXPECT_EQ(c.expected, data.MessageText()) << logonmon::Utf8FromWide(c.messageTemplate);
    }
}

struct FallbackCase {
    const char* label;
    std::function<void(EventBuilder&)> build;
    std::wstring expected;
};

TEST(EventRecordDataTest, MessageFallsBackToNames) {
    const FallbackCase cases[] = {
        {"opcode, task, name and properties",
         [](EventBuilder& b) {
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
        {"name equal to the task",
         [](EventBuilder& b) { b.TaskName(L"Logon").EventName(L"Logon").Property(L"A", L"1"); },
         L"Logon, A: 1"},
        {"no task: no leading separator",
         [](EventBuilder& b) { b.Property(L"A", L"1").Property(L"B", L"2"); }, L"A: 1, B: 2"},
        {"a one-character task takes no separator",
         [](EventBuilder& b) { b.TaskName(L"T").EventName(L"N").Property(L"A", L"1"); },
         L"TName: N, A: 1"},
        {"related is listed", [](EventBuilder& b) { b.OpcodeName(L"Info").RelatedName(L"Up"); },
         L"Info related: Up"},
        {"template without text",
         [](EventBuilder& b) { b.Message(L"%2").TaskName(L"Task").Property(L"A", L"1"); },
         L"Task, A: 1"},
    };
    for (const FallbackCase& c : cases) {
        ScopedFakeTdh tdh;
        EventBuilder builder;
        c.build(builder);
        EventRecordData data(builder.Record());
        EXPECT_EQ(c.expected, data.MessageText()) << c.label;
    }
}

TEST(EventRecordDataTest, SchemaOffsetsOutsideTheBufferAreAbsent) {
    CorruptingTdh tdh;
    logonmon::ScopedTdhBinding binding(tdh);
    EventBuilder builder;
    builder.ProviderName(L"Provider")
        .TaskName(L"Task")
        .EventName(L"Event")
        .Message(L"%1")
        .Property(L"First", L"1")
        .Property(L"Second", L"2")
        .Property(L"Third", L"3");
    tdh.corrupt = [](TRACE_EVENT_INFO& info, uint32_t& size) {
        info.ProviderNameOffset = size + 100;
        info.TaskNameOffset += 1;  // odd
        info.EventPropertyInfoArray[0].NameOffset = 0xFFFFFFFF;
        size -= 2;  // the last name, "Third", loses its terminator
    };
    EventRecordData data(builder.Record());
    EXPECT_EQ(L"", data.providerName);
    EXPECT_EQ(L"", data.taskName);
    EXPECT_EQ(L"Event", data.EventName());
    ASSERT_EQ(3u, data.propertyNames.size());
    EXPECT_EQ(nullptr, data.propertyNames[0]);
    EXPECT_EQ(L"Second", data.PropertyName(1));
    EXPECT_EQ(nullptr, data.propertyNames[2]);
    EXPECT_EQ((std::vector<std::wstring>{L"name", L"Second"}), Keys(data));
    EXPECT_EQ(L"Name: Event, Second: 2", data.MessageText());
}

TEST(EventRecordDataTest, PropertyEntriesBeyondTheBufferAreNotRead) {
    CorruptingTdh tdh;
    logonmon::ScopedTdhBinding binding(tdh);
    EventBuilder builder;
    builder.EventName(L"Event").Property(L"First", L"1").Property(L"Second", L"2");
    tdh.corrupt = [](TRACE_EVENT_INFO& info, uint32_t& size) {
        info.TopLevelPropertyCount = 0x7FFFFFFF;
        // Only the entries remain; every text lies beyond the end.
        size = offsetof(TRACE_EVENT_INFO, EventPropertyInfoArray) + 2 * sizeof(EVENT_PROPERTY_INFO);
    };
    EventRecordData data(builder.Record());
    EXPECT_EQ((std::vector<const WCHAR*>{nullptr, nullptr}), data.propertyNames);
    EXPECT_TRUE(data.properties.empty());
}

}  // namespace
