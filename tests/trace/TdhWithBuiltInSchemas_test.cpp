// The system's decoder first; the built-in schemas for the events it has no
// schema for, said once.
#include <gtest/gtest.h>

#include "tests/support/EventBuilder.h"
#include "trace/BuiltInSchemaTdh.h"
#include "trace/EventRecordData.h"
#include "trace/Providers.h"
#include "trace/TdhWithBuiltInSchemas.h"
#include "trace/UnsupportedTdh.h"

namespace {

using namespace plmx::testing;
namespace providers = logonmon::providers;

TEST(TdhWithBuiltInSchemasTest, BuiltInSchemasFillWhatTheSystemLacks) {
    FakeTdh system;  // knows only the events built with a schema
    logonmon::BuiltInSchemaTdh builtIn(logonmon::UnsupportedTdh());
    int notices = 0;
    logonmon::TdhWithBuiltInSchemas tdh(system, builtIn, [&](const EVENT_RECORD&) { ++notices; });
    const logonmon::ScopedTdhBinding binding(tdh);

    const struct {
        uint16_t id;
        std::vector<uint8_t> payload;
        std::wstring systemsEvent;  // empty: the system has no schema
        std::wstring expected;
    } cases[] = {
        {5001, UInt32Bytes(12), L"Login", L"Login"},
        {801, UInt32Bytes(12), L"", L"StartShell"},
        {801, UInt32Bytes(2), L"", L"Login"},
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
    EXPECT_EQ(1, notices);
}

}  // namespace
