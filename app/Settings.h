// The service's configuration: one process-wide record, filled from the
// registry once at start-up and read without locks afterwards.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "log/Impersonation.h"

// Behaviour flags; a flag is on when its bit is set in Flags or RuntimeFlags.
inline constexpr uint32_t FLAG_DISABLE_MEMORY_DUMPS = 0x001;
inline constexpr uint32_t FLAG_ENABLE_LOOM_INTEGRATION = 0x002;
inline constexpr uint32_t FLAG_ENABLE_CPU_MEMORY_TIMINGS = 0x004;
inline constexpr uint32_t FLAG_ENABLE_PROCESS_TIMINGS = 0x008;
inline constexpr uint32_t FLAG_ENABLE_USER_LOG_FOLDERS = 0x010;
// Events come from a trace file: leave out measurements of this machine.
inline constexpr uint32_t FLAG_TRACE_FILE_MODE = 0x100;
// Start the diagnostic trace session even without process timings.
inline constexpr uint32_t FLAG_DIAGNOSTIC_SESSION = 0x200;

inline constexpr wchar_t kSettingsKeyPath[] = L"SOFTWARE\\Norvik, Inc.\\Norvik Logon Monitor";

struct Settings {
    uint32_t LogLevel = 0x1F;
    uint32_t LogHistoryDepth = 10;
    uint32_t LogMaxSize = 100000000;  // bytes
    uint32_t Flags = 0;
    uint32_t RuntimeFlags = 0;
    std::wstring LogPath;  // ends in a backslash
    std::wstring RemoteLogPath;
    std::wstring DataDir;  // ends in a backslash

    // The process-wide record.
    static Settings& Instance();

    // Fills the record from the local-machine settings key. Values that are
    // missing or unreadable leave the record's current values. Throws
    // std::runtime_error when a default directory cannot be determined.
    void Load();

    // RemoteLogPath with environment variables expanded for the user of
    // `userToken` (the system environment for a null token); empty when no
    // remote path is configured or the expansion fails.
    std::wstring GetRemoteLogPath(HANDLE userToken,
                                  Impersonation& identity = DefaultImpersonation()) const;

    bool IsFlagOn(uint32_t flag) const { return ((Flags | RuntimeFlags) & flag) != 0; }
};

// "None", or the display names of the set flag bits joined by " | ".
std::wstring FlagsDescription(uint32_t flags);
// "None", or the names of the set level bits joined by " | ".
std::wstring LevelDescription(uint32_t levels);
