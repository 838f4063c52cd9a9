// Owns an open registry key: creates, opens, writes values and deletes
// subtrees, optionally inside a registry transaction.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

namespace logonmon {

class RegistryKey {
  public:
    RegistryKey() = default;
    // Keys are then created and deleted inside `transaction` (a transaction
    // handle the caller owns and commits).
    explicit RegistryKey(HANDLE transaction) : transaction_(transaction) {}
    ~RegistryKey();
    RegistryKey(RegistryKey&& other) noexcept;
    RegistryKey& operator=(RegistryKey&& other) noexcept;
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    // Creates or opens a non-volatile key; `disposition` receives
    // REG_CREATED_NEW_KEY or REG_OPENED_EXISTING_KEY.
    LSTATUS Create(HKEY parent, const wchar_t* subKey, REGSAM access, DWORD* disposition = nullptr);
    LSTATUS Open(HKEY parent, const wchar_t* subKey, REGSAM access);
    void Close();
    HKEY Get() const { return key_; }

    LSTATUS SetDword(const wchar_t* name, DWORD value) const;
    LSTATUS SetString(const wchar_t* name, const std::wstring& value) const;
    LSTATUS SetBinary(const wchar_t* name, const void* data, size_t size) const;

    // Deletes the subkey `name`, which must have no subkeys.
    LSTATUS DeleteSubKey(const wchar_t* name) const;
    // Deletes the subkey `name` with its whole subtree; stops at the first
    // error and returns it.
    LSTATUS RecurseDeleteKey(const wchar_t* name) const;

  private:
    HKEY key_ = nullptr;
    REGSAM access_ = 0;
    HANDLE transaction_ = nullptr;
};

// The registry calls that write, replaceable so that a test can make one of
// them fail part-way through a sequence of writes.
struct RegistryWriteCalls {
    decltype(&::RegCreateKeyExW) createKey;
    decltype(&::RegSetValueExW) setValue;
};
// Replaces the calls (nullptr restores the system's) and returns the
// previous ones.
const RegistryWriteCalls* SetRegistryWriteCalls(const RegistryWriteCalls* calls);

}  // namespace logonmon
