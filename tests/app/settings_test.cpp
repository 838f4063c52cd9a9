#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app/LogSettings.h"
#include "app/Settings.h"
#include "log/LogWriter.h"
#include "tests/support/LogFiles.h"

using namespace plmx::testing;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

namespace {

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

const std::wstring kLogsDefault = Env(L"ProgramData") + L"\\Norvik\\Norvik Logon Monitor\\Logs\\";
const std::wstring kDataDefault = Env(L"ProgramData") + L"\\Norvik\\Norvik Logon Monitor\\Data\\";

class SettingsTest : public ::testing::Test {
  protected:
    SettingsTest() { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath); }
    ~SettingsTest() override { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath); }

    // A fresh settings key holding only the given value.
    void SetOnly(const wchar_t* name, DWORD type, const Bytes& data) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath);
        ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettingsKeyPath, name, type, data.data(),
                                  static_cast<DWORD>(data.size())),
                  ERROR_SUCCESS);
    }

    // Loads a record of its own: the writer keeps logging by the process-wide
    // one, which points at the test's folder.
    static Settings Load() {
        Settings settings;
        settings.Load();
        return settings;
    }

    // "TAG message" of the lines that `source` wrote.
    Lines LinesFrom(const char* source) {
        return plmx::testing::LinesFrom(mainLog_.Path(), source);
    }

    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path()};
};

TEST_F(SettingsTest, MissingKeyKeepsTheDefaults) {
    const Settings settings = Load();

    EXPECT_EQ(settings.LogLevel, 0x1Fu);
    EXPECT_EQ(settings.LogHistoryDepth, 10u);
    EXPECT_EQ(settings.LogMaxSize, 100000000u);
    EXPECT_EQ(settings.Flags, 0u);
    EXPECT_EQ(settings.LogPath, kLogsDefault);
    EXPECT_EQ(settings.DataDir, kDataDefault);
    EXPECT_EQ(settings.RemoteLogPath, L"");
    // Without a key the remote path is read from no key: an invalid handle.
    EXPECT_EQ(LinesFrom("Settings::Load"),
              (Lines{"ERROR Failed reading remote log path, error 6", "TRACE Log Level: 31",
                     "TRACE Log History Depth: 10", "TRACE Log Max size: 100000000"}));
}

TEST_F(SettingsTest, NumbersAreClampedOnlyWhenTheyAreDwords) {
    struct Case {
        const wchar_t* name;
        DWORD type;
        Bytes data;
        uint32_t Settings::*field;
        uint32_t expected;
    };
    const Case cases[] = {
        {L"LogHistoryDepth", REG_DWORD, Dword(0), &Settings::LogHistoryDepth, 1},
        {L"LogHistoryDepth", REG_DWORD, Dword(11), &Settings::LogHistoryDepth, 10},
        {L"LogHistoryDepth", REG_BINARY, Dword(40), &Settings::LogHistoryDepth, 40},
        {L"LogHistoryDepth", REG_QWORD, Bytes{3, 0, 0, 0, 0, 0, 0, 0}, &Settings::LogHistoryDepth,
         10},
        {L"LogMaxSizeMB", REG_DWORD, Dword(0), &Settings::LogMaxSize, 1000000},
        {L"LogMaxSizeMB", REG_DWORD, Dword(5000), &Settings::LogMaxSize, 1000000000},
        {L"LogMaxSizeMB", REG_BINARY, Dword(25), &Settings::LogMaxSize, 25},
        {L"LogMaxSizeMB", REG_BINARY, Bytes{1, 0, 0, 0, 0}, &Settings::LogMaxSize, 100000000},
        {L"LogLevel", REG_DWORD_BIG_ENDIAN, Bytes{0, 0, 0, 3}, &Settings::LogLevel, 0x03000000},
        {L"LogLevel", REG_SZ, Text(L"12"), &Settings::LogLevel, 0x1F},
        {L"Flags", REG_SZ, Text(L"a"), &Settings::Flags, 0x61},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Narrow(c.name) + " type " + std::to_string(c.type));
        SetOnly(c.name, c.type, c.data);
        const Settings loaded = Load();
        EXPECT_EQ(loaded.*c.field, c.expected);
        const Lines lines = LinesFrom("Settings::Load");
        EXPECT_EQ(Lines(lines.end() - 3, lines.end()),
                  (Lines{"TRACE Log Level: " + std::to_string(int(loaded.LogLevel)),
                         "TRACE Log History Depth: " + std::to_string(loaded.LogHistoryDepth),
                         "TRACE Log Max size: " + std::to_string(loaded.LogMaxSize)}));
    }
}

TEST_F(SettingsTest, DirectoriesAreExpandedAndPrefixed) {
    const std::wstring root = Env(L"SystemRoot");
    const std::wstring longName(300, L'x');
    struct Case {
        const wchar_t* name;
        DWORD type;
        Bytes data;
        std::wstring Settings::*field;
        std::wstring expected;
    };
    const Case cases[] = {
        {L"LogPath", REG_EXPAND_SZ, Text(L"%SystemRoot%\\Logs"), &Settings::LogPath,
         L"\\\\?\\" + root + L"\\Logs\\"},
        {L"LogPath", REG_SZ, Text(L"\\\\?\\D:\\L"), &Settings::LogPath, L"\\\\?\\D:\\L\\"},
        {L"LogPath", REG_SZ, Text(L"D:\\logs/"), &Settings::LogPath, L"\\\\?\\D:\\logs/"},
        {L"LogPath", REG_DWORD, Dword(7), &Settings::LogPath, kLogsDefault},
        {L"DataDir", REG_EXPAND_SZ, Text(L"%SystemRoot%\\" + longName), &Settings::DataDir,
         L"\\\\?\\" + root + L"\\" + longName + L"\\"},
        {L"DataDir", REG_BINARY, Text(L"D:\\Data"), &Settings::DataDir, kDataDefault},
        {L"RemoteLogPath", REG_EXPAND_SZ, Text(L"%SystemRoot%\\share"), &Settings::RemoteLogPath,
         L"%SystemRoot%\\share"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Narrow(c.expected));
        SetOnly(c.name, c.type, c.data);
        EXPECT_EQ(Load().*c.field, c.expected);
    }

    Settings settings;
    EXPECT_EQ(settings.GetRemoteLogPath(nullptr), L"");
    settings.RemoteLogPath = L"%SystemRoot%\\share\\%ProgramData%";
    EXPECT_EQ(settings.GetRemoteLogPath(nullptr), root + L"\\share\\" + Env(L"ProgramData"));
}

TEST_F(SettingsTest, UnreadableRemotePathIsLoggedWithItsError) {
    const std::pair<DWORD, const char*> cases[] = {
        {REG_NONE, "ERROR Failed reading remote log path, error 2"},  // value absent
        {REG_DWORD, "ERROR Failed reading remote log path, error 13"},
        {REG_MULTI_SZ, "ERROR Failed reading remote log path, error 13"},
    };
    for (const auto& [type, expected] : cases) {
        SCOPED_TRACE(expected);
        SetOnly(type == REG_NONE ? L"Flags" : L"RemoteLogPath", type, Dword(1));
        const size_t before = LinesFrom("Settings::Load").size();

        EXPECT_EQ(Load().RemoteLogPath, L"");
        EXPECT_EQ(LinesFrom("Settings::Load").at(before), expected);
    }
}

// "None", the empty text and all levels are shown by the settings block.
TEST(SettingsDescriptionTest, NamesTheSetBitsInOrder) {
    EXPECT_EQ(FlagsDescription(0x01F),
              L"PLMX_DISABLE_MEMORY_DUMPS | PLMX_ENABLE_LOOM_INTEGRATION | "
              L"PLMX_ENABLE_CPU_MEMORY_TIMINGS | PLMX_ENABLE_PROCESS_TIMINGS | "
              L"PLMX_ENABLE_USER_LOG_FOLDERS");
    EXPECT_EQ(FlagsDescription(0x30A),
              L"PLMX_ENABLE_LOOM_INTEGRATION | PLMX_ENABLE_PROCESS_TIMINGS");
    EXPECT_EQ(LevelDescription(0x30A), L"Info | Trace");
    EXPECT_EQ(LevelDescription(0x020), L"");
}

TEST_F(SettingsTest, SettingsBlockIsWrittenInOrder) {
    ComputerNames::Instance() = {L"DESK01", L"desk01.corp.example"};
    Settings& settings = Settings::Instance();
    settings.LogHistoryDepth = 7;
    settings.LogMaxSize = 5000000;
    settings.RemoteLogPath = L"%SystemRoot%\\share";
    settings.DataDir = L"\\\\?\\C:\\data\\";
    const std::string remote = "Remote Log Path: " + Narrow(Env(L"SystemRoot")) + "\\share";
    struct Case {
        uint32_t flags;
        uint32_t runtimeFlags;
        std::string remoteLine;
        std::string flagsLine;
    };
    const Case cases[] = {
        {0x004, 0x100, remote, "Flags: 0x104: PLMX_ENABLE_CPU_MEMORY_TIMINGS"},
        {0x000, 0x010, "Remote Log Path: See Below", "Flags: 0x10: PLMX_ENABLE_USER_LOG_FOLDERS"},
        {0x100, 0x000, remote, "Flags: 0x100: "},
        {0x000, 0x000, remote, "Flags: 0x0: None"},
    };
    size_t seen = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.flagsLine);
        settings.Flags = c.flags;
        settings.RuntimeFlags = c.runtimeFlags;

        LogSettings(nullptr);

        const Lines lines = LinesFrom("LogSettings");
        ASSERT_EQ(lines.size(), seen + 10);
        EXPECT_EQ(
            Lines(lines.begin() + seen, lines.end()),
            (Lines{"TRACE Log Level: 0x1F: Error | Info | Debug | Trace | Fatal",
                   "TRACE Log History Depth: 7", "TRACE Log Path: " + Narrow(settings.LogPath),
                   "TRACE Main Log Path: " + Narrow(MainLogPath()),
                   "TRACE Main Log Max Size: 5000000", "TRACE " + c.remoteLine,
                   "TRACE Data Dir: \\\\?\\C:\\data\\", "TRACE " + c.flagsLine,
                   "TRACE Computer Name: DESK01", "TRACE FQDN: desk01.corp.example"}));
        seen = lines.size();
    }
    ComputerNames::Instance() = {};
}

}  // namespace
