// What fetching a logged-on user's token needs from the system, behind one
// interface: Wine's WTSQueryUserToken is a stub, and tests control the clock
// of the retry loop.
#pragma once

#include <windows.h>

class UserTokenApi {
  public:
    virtual ~UserTokenApi() = default;
    // The primary token of the session's user (WTSQueryUserToken); false
    // with the thread's last error set.
    virtual bool QueryUserToken(ULONG sessionId, HANDLE* token) = 0;
    virtual DWORD TickCount() = 0;
    virtual void Sleep(DWORD milliseconds) = 0;
};

UserTokenApi& SystemUserTokenApi();
