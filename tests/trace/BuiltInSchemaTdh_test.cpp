// Events decoded through the built-in schemas: property values found by
// walking the payload, the names TDH would report, the fallback for events the
// table does not know, and the system's decoder put first.
#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/EventBuilder.h"
#include "trace/BuiltInSchemaTdh.h"
#include "trace/EventRecordData.h"
#include "trace/Providers.h"
#include "trace/TdhWithBuiltInSchemas.h"
#include "trace/UnsupportedTdh.h"

namespace {

using logonmon::EventRecordData;
using namespace plmx::testing;
namespace providers = logonmon::providers;

std::vector<uint8_t> Concat(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> bytes;
    for (const auto& part : parts) {
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    return bytes;
}

// A UTF-16 field of `units` units, zero-filled after the text, cut to `keep` bytes.
std::vector<uint8_t> FixedUtf16(const std::wstring& text, size_t units, size_t keep = SIZE_MAX) {
    std::vector<uint8_t> bytes = Utf16Bytes(text);
    bytes.resize(std::min(units * 2, keep), 0);
    return bytes;
}

// Decodes through the built-in schemas; events they do not know go to a fake
// that serves the schema the builder gave them.
struct BuiltInDecoder {
    FakeTdh fallback;
    logonmon::BuiltInSchemaTdh tdh{fallback};
    logonmon::ScopedTdhBinding binding{tdh};
};

// Layouts the sample traces do not show: an ANSI name after 64-bit counters,
// fixed-length fields, and short payloads, which still decode: the processor
// judges them.
TEST(BuiltInSchemaTdhTest, PropertiesComeFromTheirPlaceInThePayload) {
    const BuiltInDecoder decoder;
    const std::vector<uint8_t> zeros(20, 0);
    const struct {
        GUID provider;
        uint16_t id;
        std::vector<uint8_t> payload;
        std::wstring expected;  // "Name=value" pairs
    } cases[] = {
        {providers::kKernelProcess, 2,
         Concat({UInt32Bytes(4242),
                 zeros,
                 UInt32Bytes(1),
                 UInt32Bytes(7),
                 std::vector<uint8_t>(16, 0),
                 {'G', 'P', 0}}),
         L"ProcessID=4242 HandleCount=7 ImageName=GP"},
        {providers::kRemoteAgent, 16,
         Concat({UInt32Bytes(3), std::vector<uint8_t>(16, 0xAB), FixedUtf16(L"Desk", 512),
                 FixedUtf16(L"Agent", 512), FixedUtf16(L"Ready", 512)}),
         L"Reserved=abababababababababababababababab Product=Desk Component=Agent Event=Ready"},
        {providers::kRemoteAgent, 11, Concat({UInt32Bytes(3), FixedUtf16(L"APP", 64, 127)}),
         L"SessionId=3 SessionType=APP"},
        {providers::kLocalSessionManager, 21, {'D', 0, 'O', 0}, L"User=DO SessionID=0 Address="},
    };
    for (const auto& c : cases) {
        EventBuilder builder;
        EventRecordData data(
            builder.Provider(c.provider).EventId(c.id).Payload(c.payload).Record());
        std::wstringstream pairs(c.expected);
        for (std::wstring pair; pairs >> pair;) {
            const size_t equals = pair.find(L'=');
            EXPECT_EQ(pair.substr(equals + 1), data.properties[pair.substr(0, equals)]) << pair;
        }
    }
}

TEST(BuiltInSchemaTdhTest, NamesAsTdhReportsThemAndUnknownEventsGoToTheFallback) {
    logonmon::TdhApi& outside = logonmon::CurrentTdh();
    { const BuiltInDecoder inner; }
    EXPECT_EQ(&outside, &logonmon::CurrentTdh());  // an ended binding restores the one before
    BuiltInDecoder decoder;
    // A buffer too small for the schema is refused, and the size needed told.
    EventBuilder winlogon;
    const EVENT_RECORD& record = winlogon.Provider(providers::kWinlogon).EventId(801).Record();
    TRACE_EVENT_INFO small{};
    uint32_t size = sizeof small;
    EXPECT_EQ(decoder.tdh.GetEventInformation(record, &small, &size),
              logonmon::etw::kErrorInsufficientBuffer);
    EXPECT_GT(size, sizeof small);
    const struct {
        GUID provider;
        uint16_t id;
        uint8_t version;
        std::wstring names;  // provider, task, opcode; then the "Event" property
    } cases[] = {
        // Task 0 has no name; an event without an opcode has win:Info.
        {providers::kUserProfiles, 5, 0, L"Microsoft-Windows-User Profiles Service||Info|"},
        {providers::kRemoteAgent, 11, 0, L"|||"},
        {providers::kWinlogon, 801, 1, L"|Served||Login"},       // an unknown version
        {providers::kWinlogon, 5001, 0, L"|Served||Login"},      // an event not consumed
        {providers::kUserProfilesThreads, 2, 0, L"|Served||2"},  // a provider without a manifest
    };
    for (const auto& c : cases) {
        EventBuilder builder;
        builder.Provider(c.provider).EventId(c.id).Version(c.version).TaskName(L"Served");
        EventRecordData data(builder.Property(UInt32Property(L"Event", 2)).Record());
        ASSERT_NE(nullptr, data.EventInformation()) << c.id;
        EXPECT_EQ(c.names, data.providerName + L"|" + data.taskName + L"|" + data.opcodeName +
                               L"|" + data.properties[L"Event"])
            << c.id;
    }
    // An unknown event without a schema is asked about again only where its
    // schema may appear meanwhile.
    for (const bool mayAppear : {true, false}) {
        BuiltInDecoder fresh;
        fresh.fallback.schemasMayAppear = mayAppear;
        EventBuilder bare;
        EventRecordData(bare.Provider(providers::kUserProfilesThreads).EventId(3).Record());
        EventBuilder described;
        EventRecordData data(described.Provider(providers::kUserProfilesThreads)
                                 .EventId(3)
                                 .Property(UInt32Property(L"Event", 2))
                                 .Record());
        EXPECT_EQ(mayAppear ? L"2" : L"", data.properties[L"Event"]) << mayAppear;
    }
}

// The built-in schemas serve the events the system has no schema for, said once.
TEST(TdhWithBuiltInSchemasTest, BuiltInSchemasFillWhatTheSystemLacks) {
    FakeTdh system;  // knows only the events built with a schema
    logonmon::BuiltInSchemaTdh builtIn(logonmon::UnsupportedTdh());
    std::vector<uint16_t> noticed;
    logonmon::TdhWithBuiltInSchemas tdh(system, builtIn, [&](const EVENT_RECORD& event) {
        noticed.push_back(event.EventHeader.EventDescriptor.Id);
    });
    const logonmon::ScopedTdhBinding binding(tdh);
    // An event that neither knows is no reason for the notice.
    EventBuilder unknown;
    const logonmon::EventRecordData none(
        unknown.Provider(providers::kWinlogon).EventId(9999).Record());

    const struct {
        uint16_t id;
        std::vector<uint8_t> payload;
        std::wstring systemsEvent;  // empty: the system has no schema
        std::wstring expected;
    } cases[] = {
        {5001, UInt32Bytes(12), L"Login", L"Login"},
        {801, UInt32Bytes(12), L"", L"StartShell"},
        {812, UInt32Bytes(3), L"", L"Logoff"},
        {801, UInt32Bytes(12), L"Login", L"StartShell"},  // a kind already found wanting
    };
    for (const auto& c : cases) {
        EventBuilder builder;
        builder.Provider(providers::kWinlogon).EventId(c.id).Payload(c.payload);
        if (!c.systemsEvent.empty()) {
            builder.DecodingSource(0).Property(L"Event", c.systemsEvent);
        }
        const logonmon::EventRecordData data(builder.Record());
        const auto found = data.properties.find(L"Event");
        ASSERT_NE(found, data.properties.end()) << c.id;
        EXPECT_EQ(c.expected, found->second) << c.id;
    }
    EXPECT_EQ(noticed, std::vector<uint16_t>{801});
}

}  // namespace
