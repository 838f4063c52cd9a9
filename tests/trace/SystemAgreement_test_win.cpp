// The built-in schemas give what the system's decoder gives.
#include <gtest/gtest.h>

#include <windows.h>

#include "tests/support/EventBuilder.h"
#include "trace/BuiltInSchemaTdh.h"
#include "trace/EventRecordData.h"
#include "trace/Providers.h"
#include "trace/UnsupportedTdh.h"

namespace {

using namespace logonmon;

// Needs Windows with the providers' manifests registered: Wine's TDH aborts
// the process, so under Wine the test only reports that it was skipped.
TEST(SystemAgreementTest, BuiltInSchemasDecodeAsTdhDoes) {
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    if (ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr) {
        GTEST_SKIP() << "no TDH under Wine";
    }
    using namespace plmx::testing;
    std::vector<uint8_t> subscriber = UInt32Bytes(2);
    const std::vector<uint8_t> name = Utf16Bytes(L"Profiles");
    subscriber.insert(subscriber.end(), name.begin(), name.end());
    const struct {
        GUID provider;
        uint16_t id;
        std::vector<uint8_t> payload;
    } events[] = {
        {providers::kWinlogon, 801, UInt32Bytes(12)},
        {providers::kWinlogon, 811, subscriber},
        {providers::kUserProfiles, 5, Utf16Bytes(L"C:\\Users\\u\\ntuser.dat")},
    };
    BuiltInSchemaTdh builtIn(UnsupportedTdh());
    for (const auto& event : events) {
        EventBuilder builder;
        builder.Provider(event.provider).EventId(event.id).Payload(event.payload);
        const EVENT_RECORD& record = builder.Record();
        const EventRecordData bySystem(record);
        const ScopedTdhBinding binding(builtIn);
        const EventRecordData byTable(record);
        EXPECT_EQ(bySystem.providerName + L"|" + bySystem.taskName + L"|" + bySystem.opcodeName,
                  byTable.providerName + L"|" + byTable.taskName + L"|" + byTable.opcodeName)
            << event.id;
        EXPECT_EQ(bySystem.properties, byTable.properties) << event.id;
    }
}

}  // namespace
