// A logon monitor wired to fakes: a recording ETW controller, a scripted
// consumer, user tokens of this process's own user, accounts and timers; the
// main log and the session logs in a temporary folder.
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log/AccessToken.h"
#include "monitor/LogonMonitor.h"
#include "monitor/UserTokenApi.h"
#include "tests/logonmon/ProcessorHarness.h"
#include "tests/monitor/FakeEtwConsume.h"
#include "tests/support/LogFiles.h"
#include "tests/trace/RecordingEtwControl.h"

namespace plmx::testing {

// Answers WTSQueryUserToken from a list (0: this process's token, else that
// error), the last answer repeating; Sleep advances the tick count.
class FakeUserTokens final : public UserTokenApi {
  public:
    bool QueryUserToken(ULONG sessionId, HANDLE* token) override;
    DWORD TickCount() override { return now; }
    void Sleep(DWORD milliseconds) override {
        now += milliseconds;
        ++sleeps;
    }

    std::vector<DWORD> answers{0};
    DWORD now = 1000;
    int sleeps = 0;
    std::vector<ULONG> queriedSessions;
};

// The system's periodic timers, ticking every few milliseconds.
class FastTimers final : public logonmon::TimerService {
  public:
    std::unique_ptr<logonmon::PeriodicTimer> StartPeriodic(uint32_t,
                                                           std::function<void()> tick) override {
        return logonmon::DefaultTimerService().StartPeriodic(5, std::move(tick));
    }
};

// The user SID of this process's token, as its text.
std::wstring ProcessUserSid();

class MonitorTest : public ::testing::Test {
  protected:
    // Settings flags and remote folder are read when the monitor is made.
    std::unique_ptr<LogonMonitor> Monitor(uint32_t flags, const std::wstring& remoteLogPath = {});
    // "<level> [<source>] <message>" of the main log's lines.
    std::vector<std::string> MainLog() const;
    // The live session logs and their archives, by file name.
    std::vector<std::wstring> SessionLogFiles() const;
    std::vector<std::string> SessionLog(const std::wstring& fileName) const;

    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path()};
    ScopedFakeTdh tdh_;
    logonmon::testing::RecordingEtwControl control_;
    FakeEtwConsume consume_;
    FakeUserTokens tokens_;
    FakeAccounts accounts_;
    FastTimers timers_;
};

}  // namespace plmx::testing
