// Session control, and the file-trace commands with the boot-time entry they
// keep, against the recording stand-in for ETW and the Wine prefix's registry.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>

#include "tests/support/LogFiles.h"
#include "tests/trace/RecordingEtwControl.h"
#include "trace/AutoLogger.h"
#include "trace/Controller.h"
#include "trace/DebugOutput.h"
#include "trace/FileTrace.h"
#include "trace/ProviderLists.h"
#include "trace/RegistryKey.h"
#include "trace/TextForms.h"

namespace logonmon {
namespace {

using ::testing::ElementsAre;
using testing::RecordingEtwControl;

const std::string kClose = "Close " + std::to_string(RecordingEtwControl::kSessionHandle);
// The event ids of the providers that filter them: as the enable call's
// filter (FilterIn, Reserved, Count, ids) and as the boot entry's "EventIds".
const std::map<std::wstring, std::pair<std::string, std::wstring>> kEventIdFilters{
    {L"{30336ED4-E327-447C-9DE0-51B652C86108}", {" 010001008225", L"8225"}},  // 9602
    {L"{7D7B0C39-93F6-4100-BD96-4DDA859652C5}", {" 01000200e801e903", L"e801e903"}},
    {L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}", {" 0100020001000200", L"01000200"}},
};

TraceProvider Provider(uint32_t enableProperty, uint32_t level, std::vector<uint16_t> ids) {
    return {{1, 0, 0, {}}, enableProperty, level, std::move(ids)};
}

TEST(ControllerTest, MergingFoldsAProviderIntoOneEntry) {
    const struct {
        TraceProvider present, added, merged;
    } cases[] = {
        {Provider(1, 4, {1, 2}), Provider(1, 4, {2, 3}), Provider(1, 4, {1, 2, 3})},
        {Provider(1, 4, {1001}), Provider(1, 4, {}), Provider(1, 4, {})},
        {Provider(1, 4, {}), Provider(1, 4, {488}), Provider(1, 4, {})},
        {Provider(0x81, 2, {}), Provider(0x2, 5, {}), Provider(0x83, 5, {})},
    };
    for (const auto& c : cases) {
        Controller session;
        session.AddProviders({c.present});
        session.AddProviders({c.added});
        ASSERT_EQ(session.Providers().size(), 1u);
        const TraceProvider& merged = session.Providers()[0];
        EXPECT_EQ(merged.enableProperty, c.merged.enableProperty);
        EXPECT_EQ(merged.level, c.merged.level);
        EXPECT_EQ(merged.eventIds, c.merged.eventIds);
    }
    EXPECT_EQ(DiagnosticProviders().size(), 16u);  // one provider on purpose twice
}

TEST(ControllerTest, StartAndStopPassTheBlockAndStartEnablesEveryProviderInOrder) {
    const std::wstring longest = L"C:\\" + std::wstring(1020, L'p');  // 1,023 characters
    const struct {
        Controller session;
        std::string block;  // mode, name, file
        size_t providers;
    } cases[] = {
        {Controller::Timing(), "0x100 logonmon_timing -", 7},
        {Controller::Diagnostic(), "0x100 logonmon_diag_trace_rt -", 0},
        {Controller::DiagnosticFile(longest),
         "0x0 logonmon_diag_trace_file " + Utf8FromWide(longest), 23},
    };
    for (const auto& c : cases) {
        RecordingEtwControl etw;
        ASSERT_EQ(c.session.Start(), 0u);
        ASSERT_EQ(c.session.Stop(), 0u);
        const std::string name = Utf8FromWide(c.session.SessionName());
        std::vector<std::string> calls{"Start " + name};
        calls.insert(calls.end(), c.providers, "Enable");
        calls.insert(calls.end(), {kClose, "Stop " + name});
        EXPECT_EQ(etw.calls, calls);
        // Start asks for the system-time clock (2), stop for none.
        EXPECT_THAT(etw.blocks,
                    ElementsAre("4216 0x20000 2 " + c.block, "4216 0x20000 0 " + c.block));
        ASSERT_EQ(etw.enables.size(), c.providers);
        for (size_t i = 0; i < c.providers; ++i) {
            const std::wstring provider = GuidText(c.session.Providers()[i].providerId);
            const auto filter = kEventIdFilters.find(provider);
            EXPECT_EQ(etw.enables[i],
                      Utf8FromWide(provider) + " 4 131" +
                          (filter != kEventIdFilters.end() ? filter->second.first : ""));
        }
    }
    EXPECT_EQ(GuidText(Controller::DiagnosticFile(L"x").Providers()[22].providerId),
              L"{22FB2CD6-0E7B-422B-A0C7-2FAD1FD0E716}");  // the process provider last
}

constexpr char kSaved[] =
    "ERROR [StartFileTrace] Persistent trace session AutoLogger saved in registry";
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

// "<level> [<function>] <message>" of each line `command` logs.
template <typename Command>
std::vector<std::string> Logged(Command command, ULONG expectedResult) {
    plmx::testing::StdoutCapture capture;
    EXPECT_EQ(command(), expectedResult);
    return plmx::testing::Tagged(plmx::testing::ReadLines(capture.Path()));
}

// Every test starts and ends without a boot entry.
struct FileTraceTest : ::testing::Test {
    void SetUp() override { AutoLogger::Delete(kFileSessionName); }
    void TearDown() override { AutoLogger::Delete(kFileSessionName); }

    testing::RecordingEtwControl etw;
};

TEST_F(FileTraceTest, StartAndStopNowAndAtEveryBoot) {
    EXPECT_THAT(Logged([] { return StartFileTrace(L"C:\\trace\\boot.etl", true); }, 0),
                ElementsAre(kSaved,
                            "INFO [StartFileTrace] Tracing to C:\\trace\\boot.etl "
                            "succeeded."));
    EXPECT_EQ(etw.enables.size(), 23u);
    // The entry as the system reads it at boot: the session, then one subkey per provider.
    EXPECT_EQ(ReadKey(kEntry),
              L"FileName=sz:C:\\trace\\boot.etl FlushTimer=dword:0 "
              L"GUID=sz:{75CE81CB-823D-4EEF-9B6B-9CB47276A6AF} LogFileMode=dword:0 "
              L"MaxFileSize=dword:0 Start=dword:1 subkeys=23");
    const Controller session = Controller::DiagnosticFile(L"x");
    for (const TraceProvider& entry : session.Providers()) {
        const std::wstring provider = kEntry + L"\\" + GuidText(entry.providerId);
        const auto filter = kEventIdFilters.find(GuidText(entry.providerId));
        EXPECT_EQ(ReadKey(provider),
                  L"EnableLevel=dword:4 EnableProperty=dword:131 Enabled=dword:1 subkeys=" +
                      std::to_wstring(filter != kEventIdFilters.end() ? 1 : 0));
        EXPECT_EQ(ReadKey(provider + L"\\Filters"),
                  filter == kEventIdFilters.end()
                      ? L""
                      : L"Enabled=dword:1 EventIdFilterIn=dword:1 EventIds=binary:" +
                            filter->second.second + L" subkeys=0");
    }
    // A second start keeps the first entry and starts nothing more.
    etw.calls.clear();
    EXPECT_THAT(Logged([] { return StartFileTrace(L"C:\\second.etl", true); }, 183),
                ElementsAre("ERROR [StartFileTrace] logonmon::AutoLogger::Save failed, ret = 183"));
    EXPECT_TRUE(etw.calls.empty());

    EXPECT_THAT(Logged([] { return StopFileTrace(false); }, 0),
                ElementsAre("INFO [StopFileTrace] logonmon::Controller::Stop succeeded"));
    EXPECT_THAT(Logged([] { return StopFileTrace(true); }, 0),
                ElementsAre("INFO [StopFileTrace] logonmon::AutoLogger::Delete succeeded",
                            "INFO [StopFileTrace] logonmon::Controller::Stop succeeded"));
    EXPECT_EQ(ReadKey(kEntry), L"");
    etw.stopResult = ERROR_WMI_INSTANCE_NOT_FOUND;
    EXPECT_THAT(Logged([] { return StopFileTrace(true); }, ERROR_WMI_INSTANCE_NOT_FOUND),
                ElementsAre("ERROR [StopFileTrace] logonmon::AutoLogger::Delete failed, ret = 2",
                            "ERROR [StopFileTrace] logonmon::Controller::Stop failed, ret = 4201"));
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

std::vector<std::wstring> debugLines;

TEST_F(FileTraceTest, FailuresAreReportedAndLeaveNoEntry) {
    debugLines.clear();
    const DebugOutputSink previous =
        SetDebugOutputSink([](const wchar_t* line) { debugLines.push_back(line); });
    // What cannot be passed is refused without calling the system.
    EXPECT_EQ(Controller().Start(), 87u);
    EXPECT_EQ(Controller().Stop(), 87u);
    EXPECT_EQ(Controller::Timing().EnableProviders(0), 87u);
    EXPECT_EQ(AutoLogger::Save(Controller()), ERROR_INVALID_PARAMETER);
    EXPECT_THROW(Controller::DiagnosticFile(L"C:\\" + std::wstring(1021, L'p')).Stop(),
                 std::runtime_error);
    plmx::testing::StdoutCapture capture;
    try {
        StartFileTrace(L"C:\\" + std::wstring(1021, L'p'), true);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "file name string too long");
    }
    EXPECT_TRUE(etw.calls.empty());
    EXPECT_EQ(ReadKey(kEntry), L"");

    // A provider that cannot be enabled stops the session again.
    etw.failingEnable = 2;
    EXPECT_EQ(Controller::Timing().Start(), ULONG{ERROR_ACCESS_DENIED});
    EXPECT_THAT(etw.calls, ElementsAre("Start logonmon_timing", "Enable", "Enable", "Enable",
                                       kClose, "Stop logonmon_timing"));
    etw.calls.clear();
    etw.startResult = ERROR_ALREADY_EXISTS;  // not reported: the caller decides
    EXPECT_EQ(Controller::Timing().Start(), ULONG{ERROR_ALREADY_EXISTS});
    etw.startResult = ERROR_ACCESS_DENIED;
    EXPECT_EQ(Controller::Timing().Start(), ULONG{ERROR_ACCESS_DENIED});
    EXPECT_THAT(debugLines, ElementsAre(L"LogonMonitor: EnableTraceEx2 "
                                        L"{30336ED4-E327-447C-9DE0-51B652C86108} failed, GLE=5",
                                        L"LogonMonitor: Failed starting trace, GLE=5"));
    SetDebugOutputSink(previous);
    // A start that fails removes the boot entry it has just saved.
    for (const ULONG startResult : {ERROR_ALREADY_EXISTS, ERROR_SUCCESS}) {
        etw.enables.clear();
        etw.startResult = startResult;  // then the third provider is refused
        EXPECT_THAT(Logged([] { return StartFileTrace(L"C:\\t.etl", true); },
                           startResult == 0 ? ERROR_ACCESS_DENIED : startResult),
                    ElementsAre(kSaved));
        EXPECT_EQ(ReadKey(kEntry), L"") << startResult;
    }

    // A failure at any registry write leaves no entry behind.
    const RegistryWriteCalls counting{CountingCreateKey, CountingSetValue};
    SetRegistryWriteCalls(&counting);
    const Controller session = Controller::DiagnosticFile(L"C:\\t.etl");
    writeCount = failingWrite = 0;
    ASSERT_EQ(AutoLogger::Save(session), ERROR_SUCCESS);
    const int writes = writeCount;
    ASSERT_EQ(AutoLogger::Delete(kFileSessionName), ERROR_SUCCESS);
    for (failingWrite = 1; failingWrite <= writes; ++failingWrite) {
        writeCount = 0;
        EXPECT_EQ(AutoLogger::Save(session), ERROR_KEY_DELETED);
        EXPECT_EQ(ReadKey(kEntry), L"") << "failing write " << failingWrite;
    }
    SetRegistryWriteCalls(nullptr);
    ASSERT_EQ(AutoLogger::Save(session), ERROR_SUCCESS);
    EXPECT_EQ(AutoLogger::Delete(L""), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(ReadKey(kEntry).ends_with(L"subkeys=23"));
}

}  // namespace
}  // namespace logonmon
