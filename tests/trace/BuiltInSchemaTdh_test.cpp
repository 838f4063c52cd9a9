// Events decoded through the built-in schemas: property values found by
// walking the payload, the names TDH would report, and the fallback for events
// the table does not know.
#include <gtest/gtest.h>

#include <sstream>

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

// A UTF-16 field of `units` units, zero-filled after the text, cut to `keep` bytes.
std::vector<uint8_t> FixedUtf16(const std::wstring& text, size_t units, size_t keep = SIZE_MAX) {
    std::vector<uint8_t> bytes = Utf16Bytes(text);
    bytes.resize(std::min(units * 2, keep), 0);
    return bytes;
}

// Decodes events through the built-in schemas; a builder may add a schema
// that only the fallback serves.
struct BuiltInSchemaTdhTest : ::testing::Test {
    EventRecordData& Decode(EventBuilder& builder, uint8_t version) {
        data = std::make_unique<EventRecordData>(builder.Version(version).Record());
        return *data;
    }
    // `expected`: "Name=value" pairs, separated by blanks.
    void Expect(const GUID& provider, uint16_t id, uint8_t version, std::vector<uint8_t> payload,
                const std::wstring& expected) {
        EventBuilder builder;
        Decode(builder.Provider(provider).EventId(id).Payload(std::move(payload)), version);
        std::wstringstream pairs(expected);
        for (std::wstring pair; pairs >> pair;) {
            const size_t equals = pair.find(L'=');
            EXPECT_EQ(pair.substr(equals + 1), data->properties[pair.substr(0, equals)])
                << id << " " << pair;
        }
    }

    FakeTdh fallback;
    logonmon::BuiltInSchemaTdh tdh{fallback};
    logonmon::ScopedTdhBinding binding{tdh};
    std::unique_ptr<EventRecordData> data;
};

TEST_F(BuiltInSchemaTdhTest, PropertiesComeFromTheirPlaceInThePayload) {
    const std::vector<uint8_t> label = {1, 1, 0, 0, 0, 0, 0, 16, 0, 0x20, 0, 0};  // S-1-16-8192
    const std::vector<uint8_t> zero32 = UInt32Bytes(0), zero64 = UInt64Bytes(0);
    // An ANSI name after 64-bit counters; a SID sized by its sub-authorities.
    Expect(providers::kKernelProcess, 2, 0,
           Concat({UInt32Bytes(4242),
                   zero64,
                   zero64,
                   zero32,
                   UInt32Bytes(1),
                   UInt32Bytes(7),
                   zero64,
                   zero64,
                   {'G', 'P', 0}}),
           L"ProcessID=4242 HandleCount=7 ImageName=GP");
    Expect(providers::kKernelProcess, 1, 3,
           Concat({UInt32Bytes(100), zero64, zero64, UInt32Bytes(4), zero64, zero32, zero32, zero32,
                   zero32, label, Utf16Bytes(L"\\ps.exe"), UInt32Bytes(9)}),
           L"ParentProcessID=4 MandatoryLabel=S-1-16-8192 ImageName=\\ps.exe ImageChecksum=9");
    Expect(providers::kGroupPolicy, 5016, 0,
           Concat({UInt32Bytes(1500), zero32, Utf16Bytes(L"Registry"),
                   RawBytes(providers::kWinlogon)}),
           L"CSEElaspedTimeInMilliSeconds=1500 CSEExtensionName=Registry "
           L"CSEExtensionId={DBE9B383-7CF3-4331-91CC-A3CB16A3B538}");
    // Another version, another layout.
    Expect(providers::kGroupPolicy, 8001, 1,
           Concat({UInt32Bytes(3), zero32, Utf16Bytes(L"DOM\\u"), zero32, UInt32Bytes(1)}),
           L"PolicyElaspedTimeInSeconds=3 IsConnectivityFailure=1");
    // Fixed-length fields; a short payload still decodes: the processor judges it.
    Expect(providers::kRemoteAgent, 16, 0,
           Concat({UInt32Bytes(3), std::vector<uint8_t>(16, 0xAB), FixedUtf16(L"Desk", 512),
                   FixedUtf16(L"Agent", 512), FixedUtf16(L"Ready", 512)}),
           L"Reserved=abababababababababababababababab Product=Desk Component=Agent Event=Ready");
    Expect(providers::kRemoteAgent, 11, 0, Concat({UInt32Bytes(3), FixedUtf16(L"APP", 64, 127)}),
           L"SessionId=3 SessionType=APP");
    Expect(providers::kLocalSessionManager, 21, 0, {'D', 0, 'O', 0},
           L"User=DO SessionID=0 Address=");
}

TEST_F(BuiltInSchemaTdhTest, NamesAsTdhReportsThemAndUnknownEventsGoToTheFallback) {
    const struct {
        GUID provider;
        uint16_t id;
        uint8_t version;
        std::wstring names;  // provider, task, opcode; then the "Event" property
    } cases[] = {
        {providers::kWinlogon, 801, 0, L"Microsoft-Windows-Winlogon|NotifyExecute|Start|Login"},
        {providers::kShellCore, 9602, 0,
         L"Microsoft-Windows-Shell-Core|Explorer_InitializingExplorer|Stop|"},
        // Task 0 has no name; an event without an opcode has win:Info.
        {providers::kUserProfiles, 5, 0, L"Microsoft-Windows-User Profiles Service||Info|"},
        {providers::kRemoteAgent, 11, 0, L"|||"},
        {providers::kWinlogon, 801, 1, L"|Served||Login"},       // an unknown version
        {providers::kWinlogon, 5001, 0, L"|Served||Login"},      // an event not consumed
        {providers::kUserProfilesThreads, 2, 0, L"|Served||2"},  // a provider without a manifest
    };
    for (const auto& c : cases) {
        EventBuilder builder;
        builder.Provider(c.provider).EventId(c.id).TaskName(L"Served");
        const EventRecordData& decoded =
            Decode(builder.Property(UInt32Property(L"Event", 2)), c.version);
        ASSERT_NE(nullptr, decoded.EventInformation()) << c.id;
        EXPECT_EQ(c.names, decoded.providerName + L"|" + decoded.taskName + L"|" +
                               decoded.opcodeName + L"|" + data->properties[L"Event"])
            << c.id;
    }
}

}  // namespace
