// Running code under a logged-on user's identity, on the calling thread.
#pragma once

#include <windows.h>

// The system's impersonation calls; tests replace them with a fake token.
class Impersonation {
  public:
    virtual ~Impersonation() = default;
    // Returns false when the thread could not take the token's identity.
    virtual bool Impersonate(HANDLE token) = 0;
    virtual void Revert() = 0;
};

// Binds ImpersonateLoggedOnUser and RevertToSelf.
Impersonation& DefaultImpersonation();

// Impersonates the token's user for its lifetime; reverts on destruction when
// the impersonation was made. A null token makes no attempt.
class ImpersonationScope {
  public:
    explicit ImpersonationScope(HANDLE token,
                                Impersonation& impersonation = DefaultImpersonation());
    ~ImpersonationScope();
    ImpersonationScope(const ImpersonationScope&) = delete;
    ImpersonationScope& operator=(const ImpersonationScope&) = delete;

    bool Impersonating() const { return impersonating_; }

  private:
    Impersonation& impersonation_;
    bool impersonating_ = false;
};
