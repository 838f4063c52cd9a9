#include "app/Settings.h"

#include <knownfolders.h>
#include <shlobj.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

#include "trace/RegistryKey.h"
#include "log/Impersonation.h"
#include "log/LogWriter.h"

namespace {

constexpr wchar_t kLoadFunction[] = L"Settings::Load";

struct NamedBit {
    uint32_t bit;
    const wchar_t* name;
};

constexpr NamedBit kFlagNames[] = {
    {FLAG_DISABLE_MEMORY_DUMPS, L"PLMX_DISABLE_MEMORY_DUMPS"},
    {FLAG_ENABLE_LOOM_INTEGRATION, L"PLMX_ENABLE_LOOM_INTEGRATION"},
    {FLAG_ENABLE_CPU_MEMORY_TIMINGS, L"PLMX_ENABLE_CPU_MEMORY_TIMINGS"},
    {FLAG_ENABLE_PROCESS_TIMINGS, L"PLMX_ENABLE_PROCESS_TIMINGS"},
    {FLAG_ENABLE_USER_LOG_FOLDERS, L"PLMX_ENABLE_USER_LOG_FOLDERS"},
};

constexpr NamedBit kLevelNames[] = {
    {LOG_LEVEL_ERROR, L"Error"}, {LOG_LEVEL_INFO, L"Info"},   {LOG_LEVEL_DEBUG, L"Debug"},
    {LOG_LEVEL_TRACE, L"Trace"}, {LOG_LEVEL_FATAL, L"Fatal"},
};

template <size_t N>
std::wstring Describe(uint32_t bits, const NamedBit (&names)[N]) {
    if (bits == 0) {
        return L"None";
    }
    std::wstring text;
    for (const NamedBit& named : names) {
        if ((bits & named.bit) != 0) {
            if (!text.empty()) {
                text += L" | ";
            }
            text += named.name;
        }
    }
    return text;
}

// Reads at most four bytes of a value's data over `value`; on failure
// `value` keeps what it held. Reads into a copy because the system leaves the
// buffer undefined when the data does not fit, while a shorter value replaces
// only its own bytes.
LSTATUS ReadFourBytes(HKEY key, const wchar_t* name, uint32_t* value, DWORD* type) {
    uint32_t data = *value;
    DWORD size = sizeof(data);
    const LSTATUS result =
        RegQueryValueExW(key, name, nullptr, type, reinterpret_cast<BYTE*>(&data), &size);
    if (result == ERROR_SUCCESS) {
        *value = data;
    }
    return result;
}

// Reads a REG_SZ or REG_EXPAND_SZ value, unexpanded, up to its first null;
// another type fails with ERROR_INVALID_DATA.
LSTATUS ReadString(HKEY key, const wchar_t* name, std::wstring* value) {
    DWORD type = REG_NONE;
    DWORD size = 0;
    LSTATUS result = RegQueryValueExW(key, name, nullptr, &type, nullptr, &size);
    if (result != ERROR_SUCCESS) {
        return result;
    }
    if (type != REG_SZ && type != REG_EXPAND_SZ) {
        return ERROR_INVALID_DATA;
    }
    std::wstring text(size / sizeof(wchar_t), L'\0');
    size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    result =
        RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(text.data()), &size);
    if (result != ERROR_SUCCESS) {
        return result;
    }
    text.resize(std::min<size_t>(text.find(L'\0'), size / sizeof(wchar_t)));
    *value = std::move(text);
    return ERROR_SUCCESS;
}

// A configured directory: expanded, long-path prefixed, ending in a separator.
LSTATUS ReadPathValue(HKEY key, const wchar_t* name, std::wstring* path) {
    std::wstring text;
    LSTATUS result = ReadString(key, name, &text);
    if (result != ERROR_SUCCESS) {
        return result;
    }
    std::wstring expanded;
    result =
        static_cast<LSTATUS>(DefaultImpersonation().ExpandEnvironment(nullptr, text, &expanded));
    if (result != ERROR_SUCCESS) {
        return result;
    }
    *path = AddTrailingSeparator(AddLongPathPrefix(expanded));
    return ERROR_SUCCESS;
}

std::wstring JoinPath(const std::wstring& base, const wchar_t* relative) {
    if (*relative == L'\\' || *relative == L'/') {
        ++relative;
    }
    return AddTrailingSeparator(base) + relative;
}

// A folder under ProgramData, without the long-path prefix.
std::wstring ProgramDataFolder(const wchar_t* relative, const char* failure) {
    PWSTR programData = nullptr;
    const HRESULT result = SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &programData);
    const std::unique_ptr<wchar_t, decltype(&CoTaskMemFree)> owner(programData, &CoTaskMemFree);
    if (FAILED(result) || programData == nullptr) {
        throw std::runtime_error(failure);
    }
    return JoinPath(programData, relative);
}

void ReadDirectory(HKEY key, const wchar_t* name, const wchar_t* defaultRelative,
                   const char* failure, std::wstring* directory) {
    if (ReadPathValue(key, name, directory) != ERROR_SUCCESS) {
        *directory = ProgramDataFolder(defaultRelative, failure);
    }
}

void ReadClamped(HKEY key, const wchar_t* name, uint32_t lowest, uint32_t highest,
                 uint32_t* value) {
    DWORD type = REG_NONE;
    if (ReadFourBytes(key, name, value, &type) == ERROR_SUCCESS && type == REG_DWORD) {
        *value = std::clamp(*value, lowest, highest);
    }
}

}  // namespace

Settings& Settings::Instance() {
    static Settings settings;
    return settings;
}

void Settings::Load() {
    // Without the key the numeric defaults stand, and the string reads below
    // fail on the missing key like absent values.
    logonmon::RegistryKey settingsKey;
    settingsKey.Open(HKEY_LOCAL_MACHINE, kSettingsKeyPath, KEY_READ);
    const HKEY key = settingsKey.Get();
    if (key != nullptr) {
        DWORD type = REG_NONE;
        ReadFourBytes(key, L"LogLevel", &LogLevel, &type);
        ReadClamped(key, L"LogHistoryDepth", 1, 10, &LogHistoryDepth);

        // Megabytes in the registry: only a proper DWORD is clamped and scaled.
        if (ReadFourBytes(key, L"LogMaxSizeMB", &LogMaxSize, &type) == ERROR_SUCCESS &&
            type == REG_DWORD) {
            LogMaxSize = std::clamp<uint32_t>(LogMaxSize, 1, 1000) * 1000000;
        }
        ReadFourBytes(key, L"Flags", &Flags, &type);
    }

    ReadDirectory(key, L"LogPath", L"Norvik\\Norvik Logon Monitor\\Logs\\",
                  "Unable to determine local log directory", &LogPath);

    const LSTATUS remoteResult = ReadString(key, L"RemoteLogPath", &RemoteLogPath);
    if (remoteResult != ERROR_SUCCESS) {
        RemoteLogPath.clear();
        LogMessage(nullptr, LOG_LEVEL_ERROR, kLoadFunction,
                   "Failed reading remote log path, error %d", static_cast<int>(remoteResult));
    }

    ReadDirectory(key, L"DataDir", L"Norvik\\Norvik Logon Monitor\\Data\\",
                  "Unable to determine data directory", &DataDir);

    LogMessage(nullptr, LOG_LEVEL_TRACE, kLoadFunction, "Log Level: %d", LogLevel);
    LogMessage(nullptr, LOG_LEVEL_TRACE, kLoadFunction, "Log History Depth: %d", LogHistoryDepth);
    LogMessage(nullptr, LOG_LEVEL_TRACE, kLoadFunction, "Log Max size: %d", LogMaxSize);
}

std::wstring Settings::GetRemoteLogPath(HANDLE userToken, Impersonation& identity) const {
    if (RemoteLogPath.empty()) {
        return {};
    }
    std::wstring expanded;
    const DWORD result = identity.ExpandEnvironment(userToken, RemoteLogPath, &expanded);
    if (result != ERROR_SUCCESS) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, L"Settings::GetRemoteLogPath",
                   "Failed expanding remote log path %ws, error %d", RemoteLogPath.c_str(),
                   static_cast<int>(result));
        return {};
    }
    return expanded;
}

std::wstring FlagsDescription(uint32_t flags) {
    return Describe(flags, kFlagNames);
}

std::wstring LevelDescription(uint32_t levels) {
    return Describe(levels, kLevelNames);
}
