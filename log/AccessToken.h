// Owns a user's access token handle.
#pragma once

#include <windows.h>

class AccessToken {
  public:
    AccessToken() = default;
    explicit AccessToken(HANDLE token) : token_(token) {}
    ~AccessToken() { Reset(); }
    AccessToken(const AccessToken&) = delete;
    AccessToken& operator=(const AccessToken&) = delete;

    HANDLE Get() const { return token_; }
    explicit operator bool() const { return token_ != nullptr; }

    // Takes ownership of `token`, closing the one held before.
    void Reset(HANDLE token = nullptr) {
        if (token_ != nullptr && token_ != INVALID_HANDLE_VALUE) {
            CloseHandle(token_);
        }
        token_ = token;
    }

  private:
    HANDLE token_ = nullptr;
};
