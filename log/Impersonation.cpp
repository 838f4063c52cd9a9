#include "log/Impersonation.h"

namespace {

class SystemImpersonation final : public Impersonation {
  public:
    bool Impersonate(HANDLE token) override { return ImpersonateLoggedOnUser(token) != FALSE; }
    void Revert() override { RevertToSelf(); }
};

}  // namespace

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
