// A logged-on user's identity: running code as that user on the calling
// thread, and the user's environment.
#pragma once

#include <windows.h>

#include <string>

// The system's impersonation calls; tests replace them with a fake token.
class Impersonation {
  public:
    virtual ~Impersonation() = default;
    // Returns false when the thread could not take the token's identity.
    virtual bool Impersonate(HANDLE token) = 0;
    virtual void Revert() = 0;
    // Expands the environment variables in `text` for the token's user, or
    // with the service's own environment for a null token; returns the Win32
    // result. Binds ExpandEnvironmentStringsForUserW unless overridden.
    virtual DWORD ExpandEnvironment(HANDLE token, const std::wstring& text, std::wstring* expanded);
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
