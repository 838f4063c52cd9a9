#include "monitor/UserTokenApi.h"

#include <wtsapi32.h>

namespace {

class SystemUserToken final : public UserTokenApi {
  public:
    bool QueryUserToken(ULONG sessionId, HANDLE* token) override {
        return WTSQueryUserToken(sessionId, token) != FALSE;
    }
    DWORD TickCount() override { return GetTickCount(); }
    void Sleep(DWORD milliseconds) override { ::Sleep(milliseconds); }
};

}  // namespace

UserTokenApi& SystemUserTokenApi() {
    static SystemUserToken api;
    return api;
}
