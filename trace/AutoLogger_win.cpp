#include "trace/AutoLogger.h"

#include <cstdint>
#include <vector>

#include "trace/RegistryKey.h"
#include "trace/TextForms.h"

namespace logonmon {
namespace {

constexpr REGSAM kAccess = KEY_READ | KEY_WRITE;

// Deletes the session's entry again unless disarmed, also when a write throws.
class EntryRollBack {
  public:
    explicit EntryRollBack(const std::wstring& sessionName) : sessionName_(sessionName) {}
    ~EntryRollBack() {
        if (armed_) {
            AutoLogger::Delete(sessionName_);
        }
    }
    EntryRollBack(const EntryRollBack&) = delete;
    EntryRollBack& operator=(const EntryRollBack&) = delete;

    void Arm() { armed_ = true; }
    void Disarm() { armed_ = false; }

  private:
    const std::wstring& sessionName_;
    bool armed_ = false;
};

// Consecutive 16-bit little-endian numbers, whatever the host's byte order.
std::vector<uint8_t> LittleEndianIds(const std::vector<uint16_t>& ids) {
    std::vector<uint8_t> bytes;
    bytes.reserve(ids.size() * 2);
    for (uint16_t id : ids) {
        bytes.push_back(static_cast<uint8_t>(id & 0xFF));
        bytes.push_back(static_cast<uint8_t>(id >> 8));
    }
    return bytes;
}

LSTATUS WriteEventIdFilter(const RegistryKey& providerKey, const std::vector<uint16_t>& ids) {
    RegistryKey key;
    LSTATUS status = key.Create(providerKey.Get(), L"Filters", kAccess);
    if (status == ERROR_SUCCESS) {
        status = key.SetDword(L"Enabled", 1);
    }
    if (status == ERROR_SUCCESS) {
        status = key.SetDword(L"EventIdFilterIn", 1);
    }
    if (status == ERROR_SUCCESS) {
        const std::vector<uint8_t> bytes = LittleEndianIds(ids);
        status = key.SetBinary(L"EventIds", bytes.data(), bytes.size());
    }
    return status;
}

LSTATUS WriteProvider(const RegistryKey& sessionKey, const TraceProvider& provider) {
    RegistryKey key;
    LSTATUS status = key.Create(sessionKey.Get(), GuidText(provider.providerId).c_str(), kAccess);
    if (status == ERROR_SUCCESS) {
        status = key.SetDword(L"Enabled", 1);
    }
    if (status == ERROR_SUCCESS) {
        status = key.SetDword(L"EnableProperty", provider.enableProperty);
    }
    if (status == ERROR_SUCCESS) {
        status = key.SetDword(L"EnableLevel", provider.level);
    }
    if (status == ERROR_SUCCESS && !provider.eventIds.empty()) {
        status = WriteEventIdFilter(key, provider.eventIds);
    }
    return status;
}

LSTATUS WriteSession(const RegistryKey& key, const Controller& session) {
    LSTATUS status = key.SetDword(L"Start", 1);
    if (status == ERROR_SUCCESS) {
        status = key.SetDword(L"LogFileMode", session.LogFileMode());
    }
    if (status == ERROR_SUCCESS) {
        status = key.SetString(L"FileName", session.LogFileName());
    }
    if (status == ERROR_SUCCESS) {
        status = key.SetDword(L"MaxFileSize", session.MaximumFileSize());
    }
    if (status == ERROR_SUCCESS) {
        status = key.SetDword(L"FlushTimer", session.FlushTimer());
    }
    if (status == ERROR_SUCCESS) {
        status = key.SetString(L"GUID", session.SessionGuid());
    }
    for (const TraceProvider& provider : session.Providers()) {
        if (status != ERROR_SUCCESS) {
            break;
        }
        status = WriteProvider(key, provider);
    }
    return status;
}

}  // namespace

LSTATUS AutoLogger::Save(const Controller& session) {
    const std::wstring& name = session.SessionName();
    if (name.empty()) {
        return ERROR_INVALID_PARAMETER;
    }
    EntryRollBack rollBack(name);
    LSTATUS status;
    {  // the key is closed before a roll-back deletes it
        RegistryKey key;
        DWORD disposition = 0;
        status =
            key.Create(HKEY_LOCAL_MACHINE, (std::wstring(kAutoLoggerKey) + L"\\" + name).c_str(),
                       kAccess, &disposition);
        if (status != ERROR_SUCCESS) {
            return status;
        }
        // An existing boot entry is never overwritten.
        if (disposition == REG_OPENED_EXISTING_KEY) {
            return ERROR_ALREADY_EXISTS;
        }
        rollBack.Arm();
        status = WriteSession(key, session);
    }
    if (status == ERROR_SUCCESS) {
        rollBack.Disarm();
    }
    return status;
}

LSTATUS AutoLogger::Delete(const std::wstring& sessionName) {
    RegistryKey autoLoggers;
    const LSTATUS status = autoLoggers.Open(HKEY_LOCAL_MACHINE, kAutoLoggerKey, kAccess);
    if (status != ERROR_SUCCESS) {
        return status;
    }
    return autoLoggers.RecurseDeleteKey(sessionName.c_str());
}

}  // namespace logonmon
