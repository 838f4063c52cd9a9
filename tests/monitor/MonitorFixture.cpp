#include "tests/monitor/MonitorFixture.h"

#include <sddl.h>

#include <filesystem>

#include "app/Settings.h"
#include "trace/UniqueHandle.h"

namespace plmx::testing {

bool FakeUserTokens::QueryUserToken(ULONG sessionId, HANDLE* token) {
    queriedSessions.push_back(sessionId);
    const DWORD answer = answers.at(std::min(queriedSessions.size(), answers.size()) - 1);
    if (answer != 0) {
        SetLastError(answer);
        return false;
    }
    return OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE,
                            token) != FALSE;
}

std::wstring ProcessUserSid() {
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
    const UniqueHandle owned(token);
    uint8_t buffer[256];
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &size);
    wchar_t* text = nullptr;
    ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text);
    std::wstring sid = text;
    LocalFree(text);
    return sid;
}

std::unique_ptr<LogonMonitor> MonitorTest::Monitor(uint32_t flags,
                                                   const std::wstring& remoteLogPath) {
    Settings::Instance().Flags = flags;
    Settings::Instance().RemoteLogPath = remoteLogPath;
    return std::make_unique<LogonMonitor>(
        MonitorServices{{&timers_, &logonmon::DefaultClock(), &accounts_}, &consume_, &tokens_});
}

std::vector<std::string> MonitorTest::MainLog() const {
    return Tagged(ReadLines(mainLog_.Path()));
}

std::vector<std::wstring> MonitorTest::SessionLogFiles() const {
    std::vector<std::wstring> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.Path())) {
        const std::wstring name = entry.path().filename().wstring();
        if (name.starts_with(L"plmx_session_")) {
            names.push_back(name);
        }
    }
    return names;
}

std::vector<std::string> MonitorTest::SessionLog(const std::wstring& fileName) const {
    return Tagged(ReadLines(folder_.Path() + fileName));
}

}  // namespace plmx::testing
