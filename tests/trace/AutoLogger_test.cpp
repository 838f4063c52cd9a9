#include "trace/AutoLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "trace/RegistryKey.h"
#include "trace/TextForms.h"

namespace logonmon {
namespace {

using ::testing::UnorderedElementsAreArray;

constexpr wchar_t kSessionGuid[] = L"{75CE81CB-823D-4EEF-9B6B-9CB47276A6AF}";
const std::wstring kEntry = std::wstring(kAutoLoggerKey) + L"\\" + kFileSessionName;

// A value as read back: type and raw bytes.
using Value = std::pair<DWORD, std::vector<uint8_t>>;

Value Dword(uint32_t value) {
    return {REG_DWORD,
            {uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16), uint8_t(value >> 24)}};
}

Value String(const std::wstring& text) {
    Value value{REG_SZ, {}};
    for (wchar_t c : text + L'\0') {
        value.second.insert(value.second.end(), {uint8_t(c & 0xFF), uint8_t(c >> 8)});
    }
    return value;
}

// Every value of the key, or nothing when the key does not exist.
std::map<std::wstring, Value> Values(const std::wstring& path) {
    std::map<std::wstring, Value> values;
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return values;
    }
    wchar_t name[256];
    uint8_t data[4096];
    DWORD nameLength = 256, size = sizeof(data), type = REG_NONE;
    for (DWORD i = 0;
         RegEnumValueW(key, i, name, &nameLength, nullptr, &type, data, &size) == ERROR_SUCCESS;
         ++i, nameLength = 256, size = sizeof(data)) {
        values[name] = Value{type, std::vector<uint8_t>(data, data + size)};
    }
    RegCloseKey(key);
    return values;
}

std::vector<std::wstring> SubKeys(const std::wstring& path) {
    std::vector<std::wstring> names;
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return names;
    }
    wchar_t name[256];
    DWORD length = 256;
    for (DWORD i = 0;
         RegEnumKeyExW(key, i, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++i, length = 256) {
        names.push_back(name);
    }
    RegCloseKey(key);
    return names;
}

bool EntryExists() {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kEntry.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return false;
    }
    RegCloseKey(key);
    return true;
}

Controller FileSession(const std::wstring& path) {
    Controller session = Controller::Diagnostic();
    session.SwitchToFile(path);
    session.AddTimingProviders();
    session.AddDiagnosticProviders();
    session.AddProcessProviders();
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

    EXPECT_EQ(Values(kEntry), (std::map<std::wstring, Value>{
                                  {L"Start", Dword(1)},
                                  {L"LogFileMode", Dword(0)},
                                  {L"FileName", String(L"C:\\trace\\boot.etl")},
                                  {L"MaxFileSize", Dword(0)},
                                  {L"FlushTimer", Dword(0)},
                                  {L"GUID", String(kSessionGuid)},
                              }));
    std::vector<std::wstring> providers;
    for (const TraceProvider& provider : session.Providers()) {
        providers.push_back(GuidText(provider.providerId));
    }
    ASSERT_THAT(SubKeys(kEntry), UnorderedElementsAreArray(providers));

    // "EventIds" of the providers with an event-id filter.
    const std::map<std::wstring, std::vector<uint8_t>> eventIds{
        {L"{30336ED4-E327-447C-9DE0-51B652C86108}", {0x82, 0x25}},
        {L"{7D7B0C39-93F6-4100-BD96-4DDA859652C5}", {0xE8, 0x01, 0xE9, 0x03}},
        {L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}", {0x01, 0x00, 0x02, 0x00}},
    };
    for (const std::wstring& provider : providers) {
        const std::wstring path = kEntry + L"\\" + provider;
        EXPECT_EQ(Values(path), (std::map<std::wstring, Value>{{L"Enabled", Dword(1)},
                                                               {L"EnableProperty", Dword(131)},
                                                               {L"EnableLevel", Dword(4)}}));
        const auto ids = eventIds.find(provider);
        if (ids == eventIds.end()) {
            EXPECT_TRUE(SubKeys(path).empty()) << Utf8FromWide(provider);
            continue;
        }
        EXPECT_EQ(SubKeys(path), std::vector<std::wstring>{L"Filters"});
        EXPECT_EQ(Values(path + L"\\Filters"),
                  (std::map<std::wstring, Value>{{L"Enabled", Dword(1)},
                                                 {L"EventIdFilterIn", Dword(1)},
                                                 {L"EventIds", {REG_BINARY, ids->second}}}));
    }
}

TEST_F(AutoLoggerTest, AnExistingEntryIsNeverOverwrittenAndAnEmptyNameRefused) {
    ASSERT_EQ(AutoLogger::Save(FileSession(L"C:\\first.etl")), ERROR_SUCCESS);
    EXPECT_EQ(AutoLogger::Save(FileSession(L"C:\\second.etl")), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Values(kEntry)[L"FileName"], String(L"C:\\first.etl"));
    EXPECT_EQ(SubKeys(kEntry).size(), 23u);

    EXPECT_EQ(AutoLogger::Save(Controller()), ERROR_INVALID_PARAMETER);
    // An empty name must not reach the entries of other sessions.
    EXPECT_EQ(AutoLogger::Delete(L""), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(EntryExists());
}

TEST_F(AutoLoggerTest, DeleteRemovesTheWholeEntryAndReportsAMissingOne) {
    ASSERT_EQ(AutoLogger::Save(FileSession(L"C:\\t.etl")), ERROR_SUCCESS);
    EXPECT_EQ(AutoLogger::Delete(kFileSessionName), ERROR_SUCCESS);
    EXPECT_FALSE(EntryExists());
    EXPECT_EQ(AutoLogger::Delete(kFileSessionName), ERROR_FILE_NOT_FOUND);
}

// Registry writes that fail at write number failingWrite (counted from 1)
// and otherwise reach the registry.
int writeCount = 0;
int failingWrite = 0;
constexpr LSTATUS kInjectedFailure = ERROR_KEY_DELETED;

LSTATUS WINAPI CountingCreateKey(HKEY parent, LPCWSTR subKey, DWORD reserved, LPWSTR keyClass,
                                 DWORD options, REGSAM access, const LPSECURITY_ATTRIBUTES security,
                                 PHKEY key, LPDWORD disposition) {
    return ++writeCount == failingWrite
               ? kInjectedFailure
               : RegCreateKeyExW(parent, subKey, reserved, keyClass, options, access, security, key,
                                 disposition);
}

LSTATUS WINAPI CountingSetValue(HKEY key, LPCWSTR name, DWORD reserved, DWORD type,
                                const BYTE* data, DWORD size) {
    return ++writeCount == failingWrite ? kInjectedFailure
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

    for (failingWrite = 1; failingWrite <= writes; ++failingWrite) {
        writeCount = 0;
        EXPECT_EQ(AutoLogger::Save(session), kInjectedFailure);
        ASSERT_FALSE(EntryExists()) << "failing write " << failingWrite;
    }
}

}  // namespace
}  // namespace logonmon
