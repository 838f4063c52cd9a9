#include "trace/RegistryKey.h"

#include <utility>

namespace logonmon {
namespace {

const RegistryWriteCalls kSystemWriteCalls{::RegCreateKeyExW, ::RegSetValueExW};
const RegistryWriteCalls* writeCalls = &kSystemWriteCalls;

// Longest key name plus its terminating null.
constexpr DWORD kKeyNameCapacity = 256;

// Entry points that older systems lack are looked up by name.
template <typename Function>
Function AdvapiFunction(const char* name) {
    const HMODULE advapi = GetModuleHandleW(L"Advapi32.dll");
    if (advapi == nullptr) {
        return nullptr;
    }
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(advapi, name)));
}

}  // namespace

RegistryKey::~RegistryKey() {
    Close();
}

RegistryKey::RegistryKey(RegistryKey&& other) noexcept
    : key_(std::exchange(other.key_, nullptr)),
      access_(other.access_),
      transaction_(other.transaction_) {}

RegistryKey& RegistryKey::operator=(RegistryKey&& other) noexcept {
    if (this != &other) {
        Close();
        key_ = std::exchange(other.key_, nullptr);
        access_ = other.access_;
        transaction_ = other.transaction_;
    }
    return *this;
}

LSTATUS RegistryKey::Create(HKEY parent, const wchar_t* subKey, REGSAM access, DWORD* disposition) {
    HKEY key = nullptr;
    LSTATUS status;
    if (transaction_ != nullptr) {
        const auto createTransacted =
            AdvapiFunction<decltype(&::RegCreateKeyTransactedW)>("RegCreateKeyTransactedW");
        if (createTransacted == nullptr) {
            return ERROR_INVALID_FUNCTION;
        }
        status = createTransacted(parent, subKey, 0, nullptr, REG_OPTION_NON_VOLATILE, access,
                                  nullptr, &key, disposition, transaction_, nullptr);
    } else {
        status = writeCalls->createKey(parent, subKey, 0, nullptr, REG_OPTION_NON_VOLATILE, access,
                                       nullptr, &key, disposition);
    }
    if (status == ERROR_SUCCESS) {
        Close();
        key_ = key;
        access_ = access;
    }
    return status;
}

LSTATUS RegistryKey::Open(HKEY parent, const wchar_t* subKey, REGSAM access) {
    HKEY key = nullptr;
    const LSTATUS status = RegOpenKeyExW(parent, subKey, 0, access, &key);
    if (status == ERROR_SUCCESS) {
        Close();
        key_ = key;
        access_ = access;
    }
    return status;
}

void RegistryKey::Close() {
    if (key_ != nullptr) {
        RegCloseKey(key_);
        key_ = nullptr;
    }
}

LSTATUS RegistryKey::SetDword(const wchar_t* name, DWORD value) const {
    return writeCalls->setValue(key_, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                                sizeof(value));
}

LSTATUS RegistryKey::SetString(const wchar_t* name, const std::wstring& value) const {
    return writeCalls->setValue(key_, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                                static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

LSTATUS RegistryKey::SetBinary(const wchar_t* name, const void* data, size_t size) const {
    return writeCalls->setValue(key_, name, 0, REG_BINARY, static_cast<const BYTE*>(data),
                                static_cast<DWORD>(size));
}

LSTATUS RegistryKey::DeleteSubKey(const wchar_t* name) const {
    // An empty name would mean this key itself.
    if (name == nullptr || *name == L'\0') {
        return ERROR_INVALID_PARAMETER;
    }
    const REGSAM viewBits = access_ & KEY_WOW64_RES;
    if (transaction_ != nullptr) {
        const auto deleteTransacted =
            AdvapiFunction<decltype(&::RegDeleteKeyTransactedW)>("RegDeleteKeyTransactedW");
        if (deleteTransacted == nullptr) {
            return ERROR_INVALID_FUNCTION;
        }
        return deleteTransacted(key_, name, viewBits, 0, transaction_, nullptr);
    }
    static const auto deleteKeyEx = AdvapiFunction<decltype(&::RegDeleteKeyExW)>("RegDeleteKeyExW");
    if (deleteKeyEx == nullptr) {
        return RegDeleteKeyW(key_, name);
    }
    return deleteKeyEx(key_, name, viewBits, 0);
}

LSTATUS RegistryKey::RecurseDeleteKey(const wchar_t* name) const {
    if (name == nullptr || *name == L'\0') {
        return ERROR_INVALID_PARAMETER;
    }
    {
        RegistryKey key(transaction_);
        const LSTATUS status =
            key.Open(key_, name, KEY_READ | KEY_WRITE | (access_ & KEY_WOW64_RES));
        if (status != ERROR_SUCCESS) {
            return status;
        }
        wchar_t subKey[kKeyNameCapacity];
        DWORD length = kKeyNameCapacity;
        // Index 0 each time: every deletion shifts the remaining subkeys.
        while (RegEnumKeyExW(key.Get(), 0, subKey, &length, nullptr, nullptr, nullptr, nullptr) ==
               ERROR_SUCCESS) {
            const LSTATUS deleted = key.RecurseDeleteKey(subKey);
            if (deleted != ERROR_SUCCESS) {
                return deleted;
            }
            length = kKeyNameCapacity;
        }
    }
    return DeleteSubKey(name);
}

const RegistryWriteCalls* SetRegistryWriteCalls(const RegistryWriteCalls* calls) {
    const RegistryWriteCalls* previous = writeCalls;
    writeCalls = calls != nullptr ? calls : &kSystemWriteCalls;
    return previous;
}

}  // namespace logonmon
