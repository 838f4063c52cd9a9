// The project's own conversions give what the Windows functions give.
#include <gtest/gtest.h>

#include <windows.h>
#include <objbase.h>
#include <sddl.h>

#include "tests/support/EventBuilder.h"
#include "trace/BuiltInSchemaTdh.h"
#include "trace/EventRecordData.h"
#include "trace/Providers.h"
#include "trace/Sid.h"
#include "trace/TextForms.h"
#include "trace/UnsupportedTdh.h"

namespace {

using namespace logonmon;

TEST(SystemAgreementTest, SidGuidAndTimeTextsMatchTheSystems) {
    // Authorities of 2^32 and more are left out: Wine neither parses nor
    // writes their hexadecimal form as Windows does.
    for (const wchar_t* text : {L"S-1-5-18", L"S-1-5-21-3623811015-3361044348-30300820-1013",
                                L"S-1-5-32-544", L"S-1-16-12288", L"S-1-1-0"}) {
        PSID systemSid = nullptr;
        LPWSTR systemText = nullptr;
        ASSERT_TRUE(ConvertStringSidToSidW(text, &systemSid));
        ASSERT_TRUE(ConvertSidToStringSidW(systemSid, &systemText));
        const auto sid =
            Sid::FromBytes(static_cast<const uint8_t*>(systemSid), GetLengthSid(systemSid));
        EXPECT_EQ(std::wstring(systemText), sid ? sid->ToString() : L"");
        LocalFree(systemText);
        LocalFree(systemSid);
    }

    const GUID guid = {
        0xDBE9B383, 0x7CF3, 0x4331, {0x91, 0xCC, 0xA3, 0xCB, 0x16, 0xA3, 0xB5, 0x38}};
    wchar_t text[64];
    ASSERT_GT(StringFromGUID2(guid, text, 64), 0);
    EXPECT_EQ(std::wstring(text), GuidText(guid, true));

    for (const uint64_t value : {10000ull, 125963423999990000ull, 133497936001230000ull,
                                 133655184004560000ull, 2650467743999990000ull}) {
        FILETIME fileTime{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
        SYSTEMTIME utc{};
        ASSERT_TRUE(FileTimeToSystemTime(&fileTime, &utc));
        const SYSTEMTIME ours = FileTimeToUtcSystemTime(value);
        EXPECT_EQ(0, memcmp(&utc, &ours, sizeof utc)) << value;
        uint64_t back = 0;
        ASSERT_TRUE(SystemTimeToFileTimeValue(utc, &back));
        EXPECT_EQ(value, back);
    }
}

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
        EXPECT_EQ(bySystem.providerName, byTable.providerName) << event.id;
        EXPECT_EQ(bySystem.taskName, byTable.taskName) << event.id;
        EXPECT_EQ(bySystem.opcodeName, byTable.opcodeName) << event.id;
        EXPECT_EQ(bySystem.properties, byTable.properties) << event.id;
    }
}

}  // namespace
