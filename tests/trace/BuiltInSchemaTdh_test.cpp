// Events decoded through the built-in schemas: property values found by
// walking the payload, the names TDH would report, and the fallback for events
// the table does not know.
#include <gtest/gtest.h>

#include <map>

#include "tests/support/EventBuilder.h"
#include "trace/BuiltInSchemaTdh.h"
#include "trace/EventRecordData.h"
#include "trace/Providers.h"

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

std::vector<uint8_t> AnsiBytes(const std::string& text) {
    std::vector<uint8_t> bytes(text.begin(), text.end());
    bytes.push_back(0);
    return bytes;
}

// A UTF-16 field of `units` units, zero-filled after the text, cut to `keep`
// bytes when that is shorter.
std::vector<uint8_t> FixedUtf16(const std::wstring& text, size_t units, size_t keep = SIZE_MAX) {
    std::vector<uint8_t> bytes = Utf16Bytes(text);
    bytes.resize(std::min(units * 2, keep), 0);
    return bytes;
}

class BuiltInSchemaTdhTest : public ::testing::Test {
  protected:
    // Decodes an event; `builder` may add a schema that only the fallback serves.
    std::unique_ptr<EventRecordData> Decode(EventBuilder& builder, uint8_t version) {
        EVENT_RECORD record = builder.Record();
        record.EventHeader.EventDescriptor.Version = version;
        return std::make_unique<EventRecordData>(record);
    }

    FakeTdh fallback_;
    logonmon::BuiltInSchemaTdh tdh_{fallback_};
    logonmon::ScopedTdhBinding binding_{tdh_};
};

TEST_F(BuiltInSchemaTdhTest, PropertiesComeFromTheirPlaceInThePayload) {
    const std::vector<uint8_t> label = {1, 1, 0, 0, 0, 0, 0, 16, 0, 0x20, 0, 0};  // S-1-16-8192
    const struct {
        const char* label;
        GUID provider;
        uint16_t id;
        uint8_t version;
        std::vector<uint8_t> payload;
        std::map<std::wstring, std::wstring> expected;
    } cases[] = {
        {"Winlogon notification, named",
         providers::kWinlogon,
         801,
         0,
         UInt32Bytes(12),
         {{L"Event", L"StartShell"}}},
        {"subscriber after the notification",
         providers::kWinlogon,
         812,
         0,
         Concat({UInt32Bytes(2), Utf16Bytes(L"Profiles")}),
         {{L"Event", L"Login"}, {L"SubscriberName", L"Profiles"}}},
        {"ANSI image name after times and 64-bit counters",
         providers::kKernelProcess,
         2,
         0,
         Concat({UInt32Bytes(4242), UInt64Bytes(0), UInt64Bytes(0), UInt32Bytes(0), UInt32Bytes(1),
                 UInt32Bytes(7), UInt64Bytes(1), UInt64Bytes(2), AnsiBytes("GPSCRIPT.EXE")}),
         {{L"ProcessID", L"4242"}, {L"HandleCount", L"7"}, {L"ImageName", L"GPSCRIPT.EXE"}}},
        {"a SID sized by its sub-authorities",
         providers::kKernelProcess,
         1,
         3,
         Concat({UInt32Bytes(100), UInt64Bytes(1), UInt64Bytes(0), UInt32Bytes(4), UInt64Bytes(2),
                 UInt32Bytes(2), UInt32Bytes(0), UInt32Bytes(0), UInt32Bytes(0), label,
                 Utf16Bytes(L"\\Device\\powershell.exe"), UInt32Bytes(9)}),
         {{L"ParentProcessID", L"4"},
          {L"MandatoryLabel", L"S-1-16-8192"},
          {L"ImageName", L"\\Device\\powershell.exe"},
          {L"ImageChecksum", L"9"}}},
        {"GUID after a string",
         providers::kGroupPolicy,
         5016,
         0,
         Concat({UInt32Bytes(1500),
                 UInt32Bytes(0),
                 Utf16Bytes(L"Registry"),
                 {0x83, 0xb3, 0xe9, 0xdb, 0xf3, 0x7c, 0x31, 0x43, 0x91, 0xcc, 0xa3, 0xcb, 0x16,
                  0xa3, 0xb5, 0x38}}),
         {{L"CSEElaspedTimeInMilliSeconds", L"1500"},
          {L"CSEExtensionName", L"Registry"},
          {L"CSEExtensionId", L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}"}}},
        {"a version with another layout",
         providers::kGroupPolicy,
         8001,
         1,
         Concat({UInt32Bytes(3), UInt32Bytes(0), Utf16Bytes(L"DOM\\u"), UInt32Bytes(0),
                 UInt32Bytes(1)}),
         {{L"PolicyElaspedTimeInSeconds", L"3"}, {L"IsConnectivityFailure", L"1"}}},
        {"agent attach, fixed field",
         providers::kRemoteAgent,
         11,
         0,
         Concat({UInt32Bytes(3), FixedUtf16(L"APPLICATION", 64)}),
         {{L"SessionId", L"3"}, {L"SessionType", L"APPLICATION"}}},
        {"agent generic event, fixed fields",
         providers::kRemoteAgent,
         16,
         0,
         Concat({UInt32Bytes(3), std::vector<uint8_t>(16, 0xAB), FixedUtf16(L"Desk", 512),
                 FixedUtf16(L"Agent", 512), FixedUtf16(L"Ready", 512)}),
         {{L"Reserved", std::wstring(L"abababababababababababababababab")},
          {L"Product", L"Desk"},
          {L"Component", L"Agent"},
          {L"Event", L"Ready"}}},
        // A short payload still decodes: the processor judges its length.
        {"agent attach one byte short",
         providers::kRemoteAgent,
         11,
         0,
         Concat({UInt32Bytes(3), FixedUtf16(L"APP", 64, 127)}),
         {{L"SessionId", L"3"}, {L"SessionType", L"APP"}}},
        {"payload ends inside a string",
         providers::kLocalSessionManager,
         21,
         0,
         {'D', 0, 'O', 0},
         {{L"User", L"DO"}, {L"SessionID", L"0"}, {L"Address", L""}}},
    };
    for (const auto& c : cases) {
        EventBuilder builder;
        builder.Provider(c.provider).EventId(c.id).Payload(c.payload);
        const auto data = Decode(builder, c.version);
        for (const auto& [name, value] : c.expected) {
            const auto found = data->properties.find(name);
            ASSERT_NE(found, data->properties.end()) << c.label;
            EXPECT_EQ(value, found->second) << c.label;
        }
    }
}

TEST_F(BuiltInSchemaTdhTest, NamesAsTdhReportsThem) {
    const struct {
        GUID provider;
        uint16_t id;
        std::wstring providerName, task, opcode;
    } cases[] = {
        {providers::kWinlogon, 801, L"Microsoft-Windows-Winlogon", L"NotifyExecute", L"Start"},
        {providers::kShellCore, 9602, L"Microsoft-Windows-Shell-Core",
         L"Explorer_InitializingExplorer", L"Stop"},
        // Task 0 has no name; an event without an opcode has win:Info.
        {providers::kUserProfiles, 5, L"Microsoft-Windows-User Profiles Service", L"", L"Info"},
        {providers::kRemoteAgent, 11, L"", L"", L""},
    };
    for (const auto& c : cases) {
        EventBuilder builder;
        builder.Provider(c.provider).EventId(c.id).Payload(UInt32Bytes(1));
        const auto data = Decode(builder, 0);
        EXPECT_EQ(c.providerName, data->providerName) << c.id;
        EXPECT_EQ(c.task, data->taskName) << c.id;
        EXPECT_EQ(c.opcode, data->opcodeName) << c.id;
        ASSERT_NE(nullptr, data->EventInformation()) << c.id;
    }
}

TEST_F(BuiltInSchemaTdhTest, EventsWithoutABuiltInSchemaGoToTheFallback) {
    const struct {
        const char* label;
        GUID provider;
        uint16_t id;
        uint8_t version;
        std::wstring event;
    } cases[] = {
        {"unknown version", providers::kWinlogon, 801, 1, L"Login"},
        {"unconsumed event", providers::kWinlogon, 5001, 0, L"Login"},
        {"provider without a manifest", providers::kUserProfilesThreads, 2, 0, L"2"},
    };
    for (const auto& c : cases) {
        EventBuilder builder;
        builder.Provider(c.provider)
            .EventId(c.id)
            .TaskName(L"Served")
            .Property(UInt32Property(L"Event", 2));
        const auto data = Decode(builder, c.version);
        EXPECT_EQ(L"Served", data->taskName) << c.label;
        EXPECT_EQ(c.event, data->properties[L"Event"]) << c.label;
    }
}

}  // namespace
