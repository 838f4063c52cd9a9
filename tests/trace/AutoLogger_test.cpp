#include "trace/AutoLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
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

std::wstring EntryPath(const std::wstring& subKey = L"") {
    std::wstring path = std::wstring(kAutoLoggerKey) + L"\\" + kFileSessionName;
    return subKey.empty() ? path : path + L"\\" + subKey;
}

bool KeyExists(const std::wstring& path) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return false;
    }
    RegCloseKey(key);
    return true;
}

// One value as read back: its type and raw bytes.
struct Value {
    DWORD type;
    std::vector<uint8_t> data;
    bool operator==(const Value&) const = default;
};

Value Dword(uint32_t value) {
    return {REG_DWORD,
            {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
             static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)}};
}

Value String(const std::wstring& text) {
    Value value{REG_SZ, {}};
    for (wchar_t c : text + L'\0') {
        value.data.push_back(static_cast<uint8_t>(c & 0xFF));
        value.data.push_back(static_cast<uint8_t>(c >> 8));
    }
    return value;
}

Value Binary(std::vector<uint8_t> bytes) {
    return {REG_BINARY, std::move(bytes)};
}

// Every value of a key, by name.
std::map<std::wstring, Value> Values(const std::wstring& path) {
    std::map<std::wstring, Value> values;
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return values;
    }
    for (DWORD index = 0;; ++index) {
        wchar_t name[256];
        DWORD nameLength = 256;
        uint8_t data[4096];
        DWORD size = sizeof(data);
        DWORD type = REG_NONE;
        if (RegEnumValueW(key, index, name, &nameLength, nullptr, &type, data, &size) !=
            ERROR_SUCCESS) {
            break;
        }
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
    for (DWORD index = 0; RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr,
                                        nullptr) == ERROR_SUCCESS;
         ++index, length = 256) {
        names.push_back(name);
    }
    RegCloseKey(key);
    return names;
}

// The file session of the boot-time trace, every list merged in.
Controller FileSession(const std::wstring& path) {
    Controller session = Controller::Diagnostic();
    session.SwitchToFile(path);
    session.AddTimingProviders();
    session.AddDiagnosticProviders();
    session.AddProcessProviders();
    session.SetSessionGuid(kSessionGuid);
    return session;
}

// The registry of the test's Wine prefix is real: each test starts and ends
// without the entry.
class AutoLoggerTest : public ::testing::Test {
  protected:
    void SetUp() override { AutoLogger::Delete(kFileSessionName); }
    void TearDown() override { AutoLogger::Delete(kFileSessionName); }
};

TEST_F(AutoLoggerTest, SaveWritesTheSessionAndOneSubkeyPerProvider) {
    const Controller session = FileSession(L"C:\\trace\\boot.etl");
    ASSERT_EQ(AutoLogger::Save(session), ERROR_SUCCESS);

    const std::map<std::wstring, Value> sessionValues{
        {L"Start", Dword(1)},
        {L"LogFileMode", Dword(0)},
        {L"FileName", String(L"C:\\trace\\boot.etl")},
        {L"MaxFileSize", Dword(0)},
        {L"FlushTimer", Dword(0)},
        {L"GUID", String(kSessionGuid)},
    };
    EXPECT_EQ(Values(EntryPath()), sessionValues);

    // Providers with an event-id filter, by subkey, and their "EventIds".
    const std::map<std::wstring, std::vector<uint8_t>> filtered{
        {L"{30336ED4-E327-447C-9DE0-51B652C86108}", {0x82, 0x25}},
        {L"{7D7B0C39-93F6-4100-BD96-4DDA859652C5}", {0xE8, 0x01, 0xE9, 0x03}},
        {L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}", {0x01, 0x00, 0x02, 0x00}},
    };
    std::vector<std::wstring> expectedSubKeys;
    for (const TraceProvider& provider : session.Providers()) {
        expectedSubKeys.push_back(GuidText(provider.providerId));
    }
    const std::vector<std::wstring> subKeys = SubKeys(EntryPath());
    ASSERT_THAT(subKeys, UnorderedElementsAreArray(expectedSubKeys));

    const std::map<std::wstring, Value> providerValues{
        {L"Enabled", Dword(1)}, {L"EnableProperty", Dword(131)}, {L"EnableLevel", Dword(4)}};
    for (const std::wstring& subKey : subKeys) {
        EXPECT_EQ(Values(EntryPath(subKey)), providerValues) << subKey;
        const auto filter = filtered.find(subKey);
        if (filter == filtered.end()) {
            EXPECT_TRUE(SubKeys(EntryPath(subKey)).empty()) << subKey;
            continue;
        }
        EXPECT_EQ(SubKeys(EntryPath(subKey)), std::vector<std::wstring>{L"Filters"});
        const std::map<std::wstring, Value> filterValues{
            {L"Enabled", Dword(1)},
            {L"EventIdFilterIn", Dword(1)},
            {L"EventIds", Binary(filter->second)},
        };
        EXPECT_EQ(Values(EntryPath(subKey + L"\\Filters")), filterValues) << subKey;
    }
}

TEST_F(AutoLoggerTest, AnExistingEntryIsNeverOverwritten) {
    ASSERT_EQ(AutoLogger::Save(FileSession(L"C:\\first.etl")), ERROR_SUCCESS);
    EXPECT_EQ(AutoLogger::Save(FileSession(L"C:\\second.etl")), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Values(EntryPath())[L"FileName"], String(L"C:\\first.etl"));
    EXPECT_EQ(SubKeys(EntryPath()).size(), 23u);
}

TEST_F(AutoLoggerTest, RefusesAnEmptySessionName) {
    EXPECT_EQ(AutoLogger::Save(Controller()), ERROR_INVALID_PARAMETER);
    ASSERT_EQ(AutoLogger::Save(FileSession(L"C:\\t.etl")), ERROR_SUCCESS);
    // An empty name must not reach the boot entries of other sessions.
    EXPECT_EQ(AutoLogger::Delete(L""), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(KeyExists(EntryPath()));
}

TEST_F(AutoLoggerTest, DeleteRemovesTheWholeEntryAndReportsAMissingOne) {
    ASSERT_EQ(AutoLogger::Save(FileSession(L"C:\\t.etl")), ERROR_SUCCESS);
    EXPECT_EQ(AutoLogger::Delete(kFileSessionName), ERROR_SUCCESS);
    EXPECT_FALSE(KeyExists(EntryPath()));
    EXPECT_TRUE(KeyExists(kAutoLoggerKey));
    EXPECT_EQ(AutoLogger::Delete(kFileSessionName), ERROR_FILE_NOT_FOUND);
}

// Registry writes that fail at the write numbered failingWrite (from 1), and
// otherwise reach the registry.
int writeCount = 0;
int failingWrite = 0;
constexpr LSTATUS kInjectedFailure = ERROR_KEY_DELETED;

LSTATUS WINAPI CountingCreateKey(HKEY parent, LPCWSTR subKey, DWORD reserved, LPWSTR keyClass,
                                 DWORD options, REGSAM access, const LPSECURITY_ATTRIBUTES security,
                                 PHKEY key, LPDWORD disposition) {
    if (++writeCount == failingWrite) {
        return kInjectedFailure;
    }
    return RegCreateKeyExW(parent, subKey, reserved, keyClass, options, access, security, key,
                           disposition);
}

LSTATUS WINAPI CountingSetValue(HKEY key, LPCWSTR name, DWORD reserved, DWORD type,
                                const BYTE* data, DWORD size) {
    if (++writeCount == failingWrite) {
        return kInjectedFailure;
    }
    return RegSetValueExW(key, name, reserved, type, data, size);
}

TEST_F(AutoLoggerTest, AFailureAtAnyWriteLeavesNoEntry) {
    const RegistryWriteCalls counting{CountingCreateKey, CountingSetValue};
    const RegistryWriteCalls* previous = SetRegistryWriteCalls(&counting);
    const Controller session = FileSession(L"C:\\t.etl");

    writeCount = 0;
    failingWrite = 0;
    ASSERT_EQ(AutoLogger::Save(session), ERROR_SUCCESS);
    const int writes = writeCount;
    ASSERT_EQ(AutoLogger::Delete(kFileSessionName), ERROR_SUCCESS);

    for (failingWrite = 1; failingWrite <= writes; ++failingWrite) {
        writeCount = 0;
        EXPECT_EQ(AutoLogger::Save(session), kInjectedFailure) << failingWrite;
        EXPECT_EQ(writeCount, failingWrite);
        ASSERT_FALSE(KeyExists(EntryPath())) << "failing write " << failingWrite;
    }
    SetRegistryWriteCalls(previous);
}

TEST(RegistryKeyTest, TransactedDeleteWithoutTheEntryPointFailsAndKeepsTheKey) {
    const HMODULE advapi = GetModuleHandleW(L"Advapi32.dll");
    if (GetProcAddress(advapi, "RegDeleteKeyTransactedW") != nullptr) {
        GTEST_SKIP() << "this system has transacted deletes";
    }
    const wchar_t* path = L"SOFTWARE\\plmx_test_registry_key";
    RegistryKey plain;
    ASSERT_EQ(plain.Create(HKEY_LOCAL_MACHINE, path, KEY_READ | KEY_WRITE), ERROR_SUCCESS);
    RegistryKey parent(GetCurrentProcess());  // any non-null handle selects the transacted call
    ASSERT_EQ(parent.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE", KEY_READ | KEY_WRITE), ERROR_SUCCESS);
    EXPECT_EQ(parent.DeleteSubKey(L"plmx_test_registry_key"), ERROR_INVALID_FUNCTION);
    EXPECT_TRUE(KeyExists(path));

    RegistryKey software;
    ASSERT_EQ(software.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE", KEY_READ | KEY_WRITE), ERROR_SUCCESS);
    EXPECT_EQ(software.DeleteSubKey(L"plmx_test_registry_key"), ERROR_SUCCESS);
    EXPECT_FALSE(KeyExists(path));
}

}  // namespace
}  // namespace logonmon
