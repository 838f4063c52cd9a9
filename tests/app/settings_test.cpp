#include <gtest/gtest.h>
#include <windows.h>

#include <map>

#include "app/LogSettings.h"
#include "tests/support/LogFiles.h"

namespace plmx::testing {
namespace {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

Bytes Dword(uint32_t v) {
    return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
}

Bytes Text(const std::wstring& text) {
    const auto* begin = reinterpret_cast<const uint8_t*>(text.c_str());
    return Bytes(begin, begin + (text.size() + 1) * sizeof(wchar_t));
}

std::wstring Env(const wchar_t* name) {
    wchar_t value[MAX_PATH];
    return std::wstring(value, GetEnvironmentVariableW(name, value, MAX_PATH));
}

// The loaded record's fields as text, and the lines the load wrote: the
// remote path's read error unless it was read, then the numbers as loaded.
std::pair<std::map<std::string, std::wstring>, Lines> Load(const ScopedMainLog& mainLog) {
    const size_t before = LinesFrom(mainLog.Path(), "Settings::Load").size();
    Settings s;  // the writer keeps logging by the process-wide record
    s.Load();
    const Lines lines = LinesFrom(mainLog.Path(), "Settings::Load");
    return {{{"LogLevel", std::to_wstring(s.LogLevel)},
             {"LogHistoryDepth", std::to_wstring(s.LogHistoryDepth)},
             {"LogMaxSize", std::to_wstring(s.LogMaxSize)},
             {"Flags", std::to_wstring(s.Flags)},
             {"LogPath", s.LogPath},
             {"DataDir", s.DataDir},
             {"RemoteLogPath", s.RemoteLogPath}},
            Lines(lines.begin() + before, lines.end())};
}

// Each row writes one value into a fresh settings key; the other fields keep
// their defaults.
TEST(SettingsTest, LoadTakesValuesOfTheirTypeClampedAndKeepsTheDefaultsOtherwise) {
    const std::wstring root = Env(L"SystemRoot");
    const std::wstring folder = Env(L"ProgramData") + L"\\Norvik\\Norvik Logon Monitor\\";
    const std::wstring longName(300, L'x');
    const std::map<std::string, std::wstring> defaults{
        {"LogLevel", L"31"},   {"LogHistoryDepth", L"10"},      {"LogMaxSize", L"100000000"},
        {"Flags", L"0"},       {"LogPath", folder + L"Logs\\"}, {"DataDir", folder + L"Data\\"},
        {"RemoteLogPath", L""}};
    const struct {
        const wchar_t* name;
        DWORD type;
        Bytes data;
        const char* field;
        std::wstring expected;
        int remoteError;  // 0: read
    } cases[] = {
        {L"LogHistoryDepth", REG_DWORD, Dword(0), "LogHistoryDepth", L"1", 2},
        {L"LogHistoryDepth", REG_DWORD, Dword(11), "LogHistoryDepth", L"10", 2},
        {L"LogMaxSizeMB", REG_DWORD, Dword(0), "LogMaxSize", L"1000000", 2},
        {L"LogMaxSizeMB", REG_DWORD, Dword(5000), "LogMaxSize", L"1000000000", 2},
        {L"LogMaxSizeMB", REG_BINARY, Dword(25), "LogMaxSize", L"25", 2},
        {L"LogLevel", REG_DWORD_BIG_ENDIAN, Bytes{0, 0, 0, 3}, "LogLevel", L"50331648", 2},
        {L"Flags", REG_SZ, Text(L"a"), "Flags", L"97", 2},
        {L"LogPath", REG_EXPAND_SZ, Text(L"%SystemRoot%\\Logs"), "LogPath",
         L"\\\\?\\" + root + L"\\Logs\\", 2},
        {L"LogPath", REG_DWORD, Dword(7), "LogPath", folder + L"Logs\\", 2},
        {L"DataDir", REG_EXPAND_SZ, Text(L"%SystemRoot%\\" + longName), "DataDir",
         L"\\\\?\\" + root + L"\\" + longName + L"\\", 2},
        {L"RemoteLogPath", REG_EXPAND_SZ, Text(L"%SystemRoot%\\share"), "RemoteLogPath",
         L"%SystemRoot%\\share", 0},
        {L"RemoteLogPath", REG_DWORD, Dword(1), "RemoteLogPath", L"", 13},
    };
    TempFolder logs;
    const ScopedMainLog mainLog(logs.Path());
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath);
    // Without a key the remote path is read from no key: an invalid handle.
    EXPECT_EQ(Load(mainLog),
              std::make_pair(defaults, Lines{"ERROR Failed reading remote log path, error 6",
                                             "TRACE Log Level: 31", "TRACE Log History Depth: 10",
                                             "TRACE Log Max size: 100000000"}));
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.field) + " " + Narrow(c.expected));
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath);
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettingsKeyPath, c.name, c.type, c.data.data(),
                        static_cast<DWORD>(c.data.size()));
        const auto [loaded, lines] = Load(mainLog);
        std::map<std::string, std::wstring> expected = defaults;
        expected[c.field] = c.expected;
        EXPECT_EQ(loaded, expected);
        if (c.remoteError != 0) {
            EXPECT_EQ(lines.front(), "ERROR Failed reading remote log path, error " +
                                         std::to_string(c.remoteError));
        }
    }
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath);
}

}  // namespace
}  // namespace plmx::testing
