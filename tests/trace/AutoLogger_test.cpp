#include "trace/AutoLogger.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "trace/RegistryKey.h"
#include "trace/TextForms.h"

namespace logonmon {
namespace {

constexpr wchar_t kSessionGuid[] = L"{75CE81CB-823D-4EEF-9B6B-9CB47276A6AF}";
const std::wstring kEntry = std::wstring(kAutoLoggerKey) + L"\\" + kFileSessionName;

// "<name>=<type>:<value> ... subkeys=<count>" in name order; "" without the key.
std::wstring ReadKey(const std::wstring& path) {
    RegistryKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) != ERROR_SUCCESS) {
        return L"";
    }
    DWORD subKeys = 0;
    RegQueryInfoKeyW(key.Get(), nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr,
                     nullptr, nullptr, nullptr, nullptr);
    std::map<std::wstring, std::wstring> values{{L"subkeys", std::to_wstring(subKeys)}};
    wchar_t name[256];
    uint8_t data[512];
    DWORD length = 256, size = sizeof data, type = REG_NONE;
    for (DWORD i = 0; RegEnumValueW(key.Get(), i, name, &length, nullptr, &type, data, &size) == 0;
         ++i, length = 256, size = sizeof data) {
        std::wstring& value = values[name];
        for (DWORD at = 0; type == REG_BINARY && at < size; ++at) {
            value += L"0123456789abcdef"[data[at] >> 4] +
                     std::wstring(1, L"0123456789abcdef"[data[at] & 15]);
        }
        value = type == REG_DWORD ? L"dword:" + std::to_wstring(*reinterpret_cast<DWORD*>(data))
                : type == REG_SZ  ? L"sz:" + std::wstring(reinterpret_cast<wchar_t*>(data))
                                  : L"binary:" + value;
    }
    std::wstring text;
    for (const auto& [valueName, value] : values) {
        text += (text.empty() ? L"" : L" ") + valueName + L"=" + value;
    }
    return text;
}

Controller FileSession(const std::wstring& path) {
    Controller session = Controller::DiagnosticFile(path);
    session.SetSessionGuid(kSessionGuid);
    return session;
}

// The Wine prefix's registry is real: every test starts and ends without the entry.
struct AutoLoggerTest : ::testing::Test {
    void SetUp() override { AutoLogger::Delete(kFileSessionName); }
    void TearDown() override { AutoLogger::Delete(kFileSessionName); }
};

TEST_F(AutoLoggerTest, SaveWritesTheSessionAndOneSubkeyPerProvider) {
    const Controller session = FileSession(L"C:\\trace\\boot.etl");
    ASSERT_EQ(AutoLogger::Save(session), ERROR_SUCCESS);
    EXPECT_EQ(ReadKey(kEntry),
              L"FileName=sz:C:\\trace\\boot.etl FlushTimer=dword:0 GUID=sz:" +
                  std::wstring(kSessionGuid) +
                  L" LogFileMode=dword:0 MaxFileSize=dword:0 Start=dword:1 subkeys=23");
    // "EventIds" of the providers with an event-id filter.
    const std::map<std::wstring, std::wstring> eventIds{
        {L"{30336ED4-E327-447C-9DE0-51B652C86108}", L"8225"},
        {L"{7D7B0C39-93F6-4100-BD96-4DDA859652C5}", L"e801e903"},
        {L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}", L"01000200"},
    };
    for (const TraceProvider& entry : session.Providers()) {
        const std::wstring provider = kEntry + L"\\" + GuidText(entry.providerId);
        const bool filtered = eventIds.contains(GuidText(entry.providerId));
        EXPECT_EQ(ReadKey(provider),
                  L"EnableLevel=dword:4 EnableProperty=dword:131 Enabled=dword:1 subkeys=" +
                      std::to_wstring(filtered ? 1 : 0));
        EXPECT_EQ(ReadKey(provider + L"\\Filters"),
                  filtered ? L"Enabled=dword:1 EventIdFilterIn=dword:1 EventIds=binary:" +
                                 eventIds.at(GuidText(entry.providerId)) + L" subkeys=0"
                           : L"");
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

TEST_F(AutoLoggerTest, AFailureAtAnyWriteLeavesNoEntryAndAnEmptyNameIsRefused) {
    const RegistryWriteCalls counting{CountingCreateKey, CountingSetValue};
    const RegistryWriteCalls* previous = SetRegistryWriteCalls(&counting);
    const Controller session = FileSession(L"C:\\t.etl");
    writeCount = failingWrite = 0;
    ASSERT_EQ(AutoLogger::Save(session), ERROR_SUCCESS);
    const int writes = writeCount;
    ASSERT_EQ(AutoLogger::Delete(kFileSessionName), ERROR_SUCCESS);
    for (failingWrite = 1; failingWrite <= writes; ++failingWrite) {
        writeCount = 0;
        EXPECT_EQ(AutoLogger::Save(session), ERROR_KEY_DELETED);
        EXPECT_EQ(ReadKey(kEntry), L"") << "failing write " << failingWrite;
    }
    SetRegistryWriteCalls(previous);

    ASSERT_EQ(AutoLogger::Save(session), ERROR_SUCCESS);
    EXPECT_EQ(AutoLogger::Save(Controller()), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(AutoLogger::Delete(L""), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(ReadKey(kEntry).ends_with(L"subkeys=23"));
}

}  // namespace
}  // namespace logonmon
