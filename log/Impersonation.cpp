#include "log/Impersonation.h"

#include <userenv.h>

#include <vector>

namespace {

class SystemImpersonation final : public Impersonation {
  public:
    bool Impersonate(HANDLE token) override { return ImpersonateLoggedOnUser(token) != FALSE; }
    void Revert() override { RevertToSelf(); }
};

}  // namespace

DWORD Impersonation::ExpandEnvironment(HANDLE token, const std::wstring& text,
                                       std::wstring* expanded) {
    std::vector<wchar_t> buffer(MAX_PATH);
    for (;;) {
        SetLastError(ERROR_SUCCESS);
        const BOOL result = ExpandEnvironmentStringsForUserW(token, text.c_str(), buffer.data(),
                                                             static_cast<DWORD>(buffer.size()));
        const DWORD error = GetLastError();
        // Wine answers a short buffer with the needed size and the error
        // instead of FALSE.
        const bool tooShort =
            error == ERROR_INSUFFICIENT_BUFFER &&
            (!result || static_cast<DWORD>(result) > static_cast<DWORD>(buffer.size()));
        if (tooShort) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (!result) {
            return error;
        }
        *expanded = buffer.data();
        return ERROR_SUCCESS;
    }
}

Impersonation& DefaultImpersonation() {
    static SystemImpersonation system;
    return system;
}

ImpersonationScope::ImpersonationScope(HANDLE token, Impersonation& impersonation)
    : impersonation_(impersonation) {
    if (token != nullptr && token != INVALID_HANDLE_VALUE) {
        impersonating_ = impersonation_.Impersonate(token);
    }
}

ImpersonationScope::~ImpersonationScope() {
    if (impersonating_) {
        impersonation_.Revert();
    }
}
