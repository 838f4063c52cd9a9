#include <windows.h>

#include <vector>

#include "logonmon/ProcessorServices.h"

namespace logonmon {

namespace {

class SystemClock : public Clock {
  public:
    uint64_t NowFileTime() override {
        FILETIME now{};
        GetSystemTimeAsFileTime(&now);
        return (static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
    }
};

class SecurityAccountLookup : public AccountLookup {
  public:
    bool LookupAccount(const Sid& sid, std::wstring* name, std::wstring* domain) override {
        std::vector<uint8_t> bytes(sid.Bytes().begin(), sid.Bytes().end());
        DWORD nameLength = 0;
        DWORD domainLength = 0;
        SID_NAME_USE use{};
        LookupAccountSidW(nullptr, bytes.data(), nullptr, &nameLength, nullptr, &domainLength,
                          &use);
        if (nameLength == 0) {
            return false;
        }
        std::vector<wchar_t> nameBuffer(nameLength);
        std::vector<wchar_t> domainBuffer(domainLength + 1);
        if (!LookupAccountSidW(nullptr, bytes.data(), nameBuffer.data(), &nameLength,
                               domainBuffer.data(), &domainLength, &use)) {
            return false;
        }
        name->assign(nameBuffer.data(), nameLength);
        domain->assign(domainBuffer.data(), domainLength);
        return true;
    }
};

}  // namespace

Clock& DefaultClock() {
    static SystemClock clock;
    return clock;
}

AccountLookup& DefaultAccountLookup() {
    static SecurityAccountLookup lookup;
    return lookup;
}

}  // namespace logonmon
