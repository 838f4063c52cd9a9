#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app/LogSettings.h"
#include "app/Settings.h"
#include "log/LogWriter.h"
#include "tests/support/LogFiles.h"

using plmx::testing::Narrow;
using plmx::testing::ParseLogLine;
using plmx::testing::ReadLines;
using plmx::testing::ScopedMainLog;
using plmx::testing::TempFolder;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes DwordBytes(uint32_t value) {
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
}

Bytes WideBytes(const std::wstring& text) {
    const auto* begin = reinterpret_cast<const uint8_t*>(text.c_str());
    return Bytes(begin, begin + (text.size() + 1) * sizeof(wchar_t));
}

std::wstring Environment(const wchar_t* name) {
    wchar_t value[MAX_PATH];
    const DWORD length = GetEnvironmentVariableW(name, value, MAX_PATH);
    return std::wstring(value, length);
}

// The settings key in the test prefix's local-machine hive; absent unless a
// test creates it, and removed again afterwards.
class SettingsKey {
  public:
    SettingsKey() { Remove(); }
    ~SettingsKey() {
        Close();
        Remove();
    }
    SettingsKey(const SettingsKey&) = delete;
    SettingsKey& operator=(const SettingsKey&) = delete;

    void Recreate() {
        Close();
        Remove();
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kSettingsKeyPath, 0, nullptr, 0,
                                  KEY_ALL_ACCESS, nullptr, &key_, nullptr),
                  ERROR_SUCCESS);
    }

    void Set(const wchar_t* name, DWORD type, const Bytes& data) {
        ASSERT_EQ(RegSetValueExW(key_, name, 0, type, data.data(), static_cast<DWORD>(data.size())),
                  ERROR_SUCCESS);
    }

  private:
    void Close() {
        if (key_ != nullptr) {
            RegCloseKey(key_);
            key_ = nullptr;
        }
    }
    static void Remove() { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKeyPath); }

    HKEY key_ = nullptr;
};

class SettingsTest : public ::testing::Test {
  protected:
    // Loads into a record of its own; the writer keeps logging by the
    // process-wide one, pointed at the test's folder.
    Settings Load() {
        Settings settings;
        settings.Load();
        return settings;
    }

    // "TAG message" of the lines written by `source` since the log opened.
    std::vector<std::string> LinesFrom(const char* source) {
        std::vector<std::string> lines;
        for (const std::string& line : ReadLines(mainLog_.Path())) {
            const auto parsed = ParseLogLine(line);
            if (parsed && parsed->source == source) {
                lines.push_back(parsed->level + " " + parsed->message);
            }
        }
        return lines;
    }

    SettingsKey key_;
    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path()};
};

TEST_F(SettingsTest, MissingKeyKeepsTheDefaults) {
    const Settings settings = Load();

    EXPECT_EQ(settings.LogLevel, 0x1Fu);
    EXPECT_EQ(settings.LogHistoryDepth, 10u);
    EXPECT_EQ(settings.LogMaxSize, 100000000u);
    EXPECT_EQ(settings.Flags, 0u);
    const std::wstring programData = Environment(L"ProgramData");
    EXPECT_EQ(settings.LogPath, programData + L"\\Norvik\\Norvik Logon Monitor\\Logs\\");
    EXPECT_EQ(settings.DataDir, programData + L"\\Norvik\\Norvik Logon Monitor\\Data\\");
    EXPECT_EQ(settings.RemoteLogPath, L"");
    // Reading from no key at all fails with an invalid handle.
    EXPECT_EQ(LinesFrom("Settings::Load"),
              (std::vector<std::string>{"ERROR Failed reading remote log path, error 6",
                                        "TRACE Log Level: 31", "TRACE Log History Depth: 10",
                                        "TRACE Log Max size: 100000000"}));
}

TEST_F(SettingsTest, NumericValuesAreClampedOnlyAsFourByteDwords) {
    struct Case {
        const wchar_t* name;
        DWORD type;
        Bytes data;
        uint32_t Settings::*field;
        uint32_t expected;
    };
    const Case cases[] = {
        {L"LogHistoryDepth", REG_DWORD, DwordBytes(0), &Settings::LogHistoryDepth, 1},
        {L"LogHistoryDepth", REG_DWORD, DwordBytes(11), &Settings::LogHistoryDepth, 10},
        {L"LogHistoryDepth", REG_DWORD, DwordBytes(4), &Settings::LogHistoryDepth, 4},
        {L"LogHistoryDepth", REG_BINARY, DwordBytes(0), &Settings::LogHistoryDepth, 0},
        {L"LogHistoryDepth", REG_BINARY, DwordBytes(40), &Settings::LogHistoryDepth, 40},
        {L"LogHistoryDepth", REG_QWORD, Bytes{3, 0, 0, 0, 0, 0, 0, 0}, &Settings::LogHistoryDepth,
         10},
        {L"LogMaxSizeMB", REG_DWORD, DwordBytes(0), &Settings::LogMaxSize, 1000000},
        {L"LogMaxSizeMB", REG_DWORD, DwordBytes(5000), &Settings::LogMaxSize, 1000000000},
        {L"LogMaxSizeMB", REG_DWORD, DwordBytes(25), &Settings::LogMaxSize, 25000000},
        {L"LogMaxSizeMB", REG_BINARY, DwordBytes(25), &Settings::LogMaxSize, 25},
        {L"LogMaxSizeMB", REG_BINARY, Bytes{1, 0, 0, 0, 0}, &Settings::LogMaxSize, 100000000},
        {L"LogLevel", REG_DWORD, DwordBytes(0x0A), &Settings::LogLevel, 0x0A},
        {L"LogLevel", REG_DWORD_BIG_ENDIAN, Bytes{0, 0, 0, 3}, &Settings::LogLevel, 0x03000000},
        {L"LogLevel", REG_SZ, WideBytes(L"12"), &Settings::LogLevel, 0x1F},
        {L"Flags", REG_DWORD, DwordBytes(0x211), &Settings::Flags, 0x211},
        {L"Flags", REG_SZ, WideBytes(L"a"), &Settings::Flags, 0x61},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << Narrow(c.name) << " type " << c.type << " value " << c.expected);
        key_.Recreate();
        key_.Set(c.name, c.type, c.data);
        EXPECT_EQ(Load().*c.field, c.expected);
    }
}

TEST_F(SettingsTest, TraceLinesShowTheLoadedValues) {
    key_.Recreate();
    key_.Set(L"LogLevel", REG_DWORD, DwordBytes(0x0F));
    key_.Set(L"LogHistoryDepth", REG_DWORD, DwordBytes(11));
    key_.Set(L"LogMaxSizeMB", REG_DWORD, DwordBytes(5000));
    key_.Set(L"RemoteLogPath", REG_SZ, WideBytes(L"\\\\server\\logs"));

    Load();

    EXPECT_EQ(LinesFrom("Settings::Load"),
              (std::vector<std::string>{"TRACE Log Level: 15", "TRACE Log History Depth: 10",
                                        "TRACE Log Max size: 1000000000"}));
}

TEST_F(SettingsTest, DirectoriesAreExpandedAndPrefixed) {
    const std::wstring systemRoot = Environment(L"SystemRoot");
    const std::wstring programData = Environment(L"ProgramData");
    const std::wstring longName(300, L'x');
    struct Case {
        const wchar_t* name;
        DWORD type;
        Bytes data;
        std::wstring Settings::*field;
        std::wstring expected;
    };
    const Case cases[] = {
        {L"LogPath", REG_EXPAND_SZ, WideBytes(L"%SystemRoot%\\Logs"), &Settings::LogPath,
         L"\\\\?\\" + systemRoot + L"\\Logs\\"},
        {L"LogPath", REG_SZ, WideBytes(L"\\\\?\\D:\\L"), &Settings::LogPath, L"\\\\?\\D:\\L\\"},
        {L"LogPath", REG_SZ, WideBytes(L"D:\\logs/"), &Settings::LogPath, L"\\\\?\\D:\\logs/"},
        {L"LogPath", REG_DWORD, DwordBytes(7), &Settings::LogPath,
         programData + L"\\Norvik\\Norvik Logon Monitor\\Logs\\"},
        {L"DataDir", REG_EXPAND_SZ, WideBytes(L"%SystemRoot%\\" + longName), &Settings::DataDir,
         L"\\\\?\\" + systemRoot + L"\\" + longName + L"\\"},
        {L"DataDir", REG_BINARY, WideBytes(L"D:\\Data"), &Settings::DataDir,
         programData + L"\\Norvik\\Norvik Logon Monitor\\Data\\"},
        {L"RemoteLogPath", REG_EXPAND_SZ, WideBytes(L"%SystemRoot%\\share"),
         &Settings::RemoteLogPath, L"%SystemRoot%\\share"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Narrow(c.name) + " " + Narrow(c.expected));
        key_.Recreate();
        key_.Set(c.name, c.type, c.data);
        EXPECT_EQ(Load().*c.field, c.expected);
    }
}

TEST_F(SettingsTest, UnreadableRemotePathIsLoggedWithItsError) {
    struct Case {
        bool setValue;
        DWORD type;
        const char* expectedLine;
    };
    const Case cases[] = {
        {false, REG_NONE, "ERROR Failed reading remote log path, error 2"},
        {true, REG_DWORD, "ERROR Failed reading remote log path, error 13"},
        {true, REG_MULTI_SZ, "ERROR Failed reading remote log path, error 13"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expectedLine);
        key_.Recreate();
        if (c.setValue) {
            key_.Set(L"RemoteLogPath", c.type, DwordBytes(1));
        }
        const size_t before = LinesFrom("Settings::Load").size();

        EXPECT_EQ(Load().RemoteLogPath, L"");

        const std::vector<std::string> lines = LinesFrom("Settings::Load");
        ASSERT_EQ(lines.size(), before + 4);
        EXPECT_EQ(lines[before], c.expectedLine);
    }
}

TEST_F(SettingsTest, RemotePathIsExpandedOnRequest) {
    Settings settings;
    EXPECT_EQ(settings.GetRemoteLogPath(nullptr), L"");
    settings.RemoteLogPath = L"%SystemRoot%\\share\\%ProgramData%";
    EXPECT_EQ(settings.GetRemoteLogPath(nullptr),
              Environment(L"SystemRoot") + L"\\share\\" + Environment(L"ProgramData"));
}

TEST(SettingsDescriptionTest, NamesTheSetBits) {
    struct Case {
        uint32_t bits;
        const wchar_t* flags;
        const wchar_t* levels;
    };
    const Case cases[] = {
        {0x000, L"None", L"None"},
        {0x100, L"", L""},
        {0x300, L"", L""},
        {0x01F,
         L"PLMX_DISABLE_MEMORY_DUMPS | PLMX_ENABLE_LOOM_INTEGRATION | "
         L"PLMX_ENABLE_CPU_MEMORY_TIMINGS | PLMX_ENABLE_PROCESS_TIMINGS | "
         L"PLMX_ENABLE_USER_LOG_FOLDERS",
         L"Error | Info | Debug | Trace | Fatal"},
        {0x10A, L"PLMX_ENABLE_LOOM_INTEGRATION | PLMX_ENABLE_PROCESS_TIMINGS", L"Info | Trace"},
        {0x020, L"", L""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bits);
        EXPECT_EQ(FlagsDescription(c.bits), c.flags);
        EXPECT_EQ(LevelDescription(c.bits), c.levels);
    }
}

class LogSettingsTest : public SettingsTest {
  protected:
    void SetUp() override {
        ComputerNames::Instance() = {L"DESK01", L"desk01.corp.example"};
        Settings& settings = Settings::Instance();
        settings.LogHistoryDepth = 7;
        settings.LogMaxSize = 5000000;
        settings.RemoteLogPath = L"%SystemRoot%\\share";
        settings.DataDir = L"\\\\?\\C:\\data\\";
    }
    void TearDown() override { ComputerNames::Instance() = {}; }
};

TEST_F(LogSettingsTest, WritesTheBlockInOrder) {
    struct Case {
        uint32_t flags;
        uint32_t runtimeFlags;
        std::string remoteLine;
        std::string flagsLine;
    };
    const std::string remote = "Remote Log Path: " + Narrow(Environment(L"SystemRoot")) + "\\share";
    const Case cases[] = {
        {0x004, 0x100, remote, "Flags: 0x104: PLMX_ENABLE_CPU_MEMORY_TIMINGS"},
        {0x000, 0x010, "Remote Log Path: See Below", "Flags: 0x10: PLMX_ENABLE_USER_LOG_FOLDERS"},
        {0x100, 0x000, remote, "Flags: 0x100: "},
        {0x000, 0x000, remote, "Flags: 0x0: None"},
    };
    Settings& settings = Settings::Instance();
    size_t seen = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.flagsLine);
        settings.Flags = c.flags;
        settings.RuntimeFlags = c.runtimeFlags;

        LogSettings(nullptr);

        const std::vector<std::string> lines = LinesFrom("LogSettings");
        ASSERT_EQ(lines.size(), seen + 10);
        const std::vector<std::string> block(lines.begin() + seen, lines.end());
        seen = lines.size();
        EXPECT_EQ(block, (std::vector<std::string>{
                             "TRACE Log Level: 0x1F: Error | Info | Debug | Trace | Fatal",
                             "TRACE Log History Depth: 7",
                             "TRACE Log Path: " + Narrow(settings.LogPath),
                             "TRACE Main Log Path: " + Narrow(MainLogPath()),
                             "TRACE Main Log Max Size: 5000000",
                             "TRACE " + c.remoteLine,
                             "TRACE Data Dir: \\\\?\\C:\\data\\",
                             "TRACE " + c.flagsLine,
                             "TRACE Computer Name: DESK01",
                             "TRACE FQDN: desk01.corp.example",
                         }));
    }
}

}  // namespace
