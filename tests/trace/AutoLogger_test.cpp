#include "trace/AutoLogger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "trace/RegistryKey.h"
#include "trace/TextForms.h"

namespace logonmon {
namespace {

constexpr wchar_t kSessionGuid[] = L"{75CE81CB-823D-4EEF-9B6B-9CB47276A6AF}";
const std::wstring kEntry = std::wstring(kAutoLoggerKey) + L"\\" + kFileSessionName;

// Type and raw bytes of a value as read back.
using Value = std::pair<DWORD, std::vector<uint8_t>>;
using Values = std::map<std::wstring, Value>;

Value Dword(uint32_t v) {
    return {REG_DWORD, {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}};
}

Value String(const std::wstring& text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.c_str());
    return {REG_SZ, {bytes, bytes + (text.size() + 1) * sizeof(wchar_t)}};
}

// The values of a key and the number of its subkeys; nothing when it does
// not exist.
std::pair<Values, DWORD> ReadKey(const std::wstring& path) {
    std::pair<Values, DWORD> read{};
    RegistryKey key;
    key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ);
    RegQueryInfoKeyW(key.Get(), nullptr, nullptr, nullptr, &read.second, nullptr, nullptr, nullptr,
                     nullptr, nullptr, nullptr, nullptr);
    wchar_t name[256];
    uint8_t data[256];
    for (DWORD i = 0;; ++i) {
        DWORD length = 256, size = sizeof(data), type = REG_NONE;
        if (RegEnumValueW(key.Get(), i, name, &length, nullptr, &type, data, &size) != 0) {
            return read;
        }
        read.first[name] = {type, {data, data + size}};
    }
}

Controller FileSession(const std::wstring& path) {
    Controller session = Controller::DiagnosticFile(path);
    session.SetSessionGuid(kSessionGuid);
    return session;
}

// The Wine prefix's registry is real: every test starts and ends without the
// entry.
class AutoLoggerTest : public ::testing::Test {
  protected:
    void SetUp() override { AutoLogger::Delete(kFileSessionName); }
    void TearDown() override { AutoLogger::Delete(kFileSessionName); }
};

TEST_F(AutoLoggerTest, SaveWritesTheSessionAndOneSubkeyPerProvider) {
    const Controller session = FileSession(L"C:\\trace\\boot.etl");
    ASSERT_EQ(AutoLogger::Save(session), ERROR_SUCCESS);

    const auto [values, subKeys] = ReadKey(kEntry);
    EXPECT_EQ(values, (Values{{L"Start", Dword(1)},
                              {L"LogFileMode", Dword(0)},
                              {L"FileName", String(L"C:\\trace\\boot.etl")},
                              {L"MaxFileSize", Dword(0)},
                              {L"FlushTimer", Dword(0)},
                              {L"GUID", String(kSessionGuid)}}));
    EXPECT_EQ(subKeys, 23u);

    // "EventIds" of the providers with an event-id filter.
    const std::map<std::wstring, std::vector<uint8_t>> eventIds{
        {L"{30336ED4-E327-447C-9DE0-51B652C86108}", {0x82, 0x25}},
        {L"{7D7B0C39-93F6-4100-BD96-4DDA859652C5}", {0xE8, 0x01, 0xE9, 0x03}},
        {L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}", {0x01, 0x00, 0x02, 0x00}},
    };
    for (const TraceProvider& entry : session.Providers()) {
        const std::wstring provider = GuidText(entry.providerId);
        const auto [values, subKeys] = ReadKey(kEntry + L"\\" + provider);
        EXPECT_EQ(values, (Values{{L"Enabled", Dword(1)},
                                  {L"EnableProperty", Dword(131)},
                                  {L"EnableLevel", Dword(4)}}));
        const auto ids = eventIds.find(provider);
        EXPECT_EQ(subKeys, ids == eventIds.end() ? 0u : 1u) << Utf8FromWide(provider);
        if (ids != eventIds.end()) {
            EXPECT_EQ(ReadKey(kEntry + L"\\" + provider + L"\\Filters").first,
                      (Values{{L"Enabled", Dword(1)},
                              {L"EventIdFilterIn", Dword(1)},
                              {L"EventIds", {REG_BINARY, ids->second}}}));
        }
    }
}

// Registry writes that fail at write number failingWrite (counted from 1)
// and otherwise reach the registry.
int writeCount = 0;
int failingWrite = 0;

LSTATUS WINAPI CountingCreateKey(HKEY parent, LPCWSTR subKey, DWORD reserved, LPWSTR keyClass,
                                 DWORD options, REGSAM access, const LPSECURITY_ATTRIBUTES security,
                                 PHKEY key, LPDWORD disposition) {
    return ++writeCount == failingWrite
               ? ERROR_KEY_DELETED
               : RegCreateKeyExW(parent, subKey, reserved, keyClass, options, access, security, key,
                                 disposition);
}

LSTATUS WINAPI CountingSetValue(HKEY key, LPCWSTR name, DWORD reserved, DWORD type,
                                const BYTE* data, DWORD size) {
    return ++writeCount == failingWrite ? ERROR_KEY_DELETED
                                        : RegSetValueExW(key, name, reserved, type, data, size);
}

TEST_F(AutoLoggerTest, AFailureAtAnyWriteLeavesNoEntry) {
    const RegistryWriteCalls counting{CountingCreateKey, CountingSetValue};
    struct Restore {
        const RegistryWriteCalls* previous;
        ~Restore() { SetRegistryWriteCalls(previous); }
    } restore{SetRegistryWriteCalls(&counting)};
    const Controller session = FileSession(L"C:\\t.etl");

    writeCount = failingWrite = 0;
    ASSERT_EQ(AutoLogger::Save(session), ERROR_SUCCESS);
    const int writes = writeCount;
    ASSERT_EQ(AutoLogger::Delete(kFileSessionName), ERROR_SUCCESS);
    ASSERT_EQ(RegistryKey().Open(HKEY_LOCAL_MACHINE, kEntry.c_str(), KEY_READ),
              ERROR_FILE_NOT_FOUND);

    for (failingWrite = 1; failingWrite <= writes; ++failingWrite) {
        writeCount = 0;
        EXPECT_EQ(AutoLogger::Save(session), ERROR_KEY_DELETED);
        ASSERT_EQ(RegistryKey().Open(HKEY_LOCAL_MACHINE, kEntry.c_str(), KEY_READ),
                  ERROR_FILE_NOT_FOUND)
            << "failing write " << failingWrite;
    }
}

TEST_F(AutoLoggerTest, AnEmptyNameIsRefusedAndReachesNoOtherEntry) {
    ASSERT_EQ(AutoLogger::Save(FileSession(L"C:\\t.etl")), ERROR_SUCCESS);
    EXPECT_EQ(AutoLogger::Save(Controller()), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(AutoLogger::Delete(L""), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ReadKey(kEntry).second, 23u);
}

}  // namespace
}  // namespace logonmon
