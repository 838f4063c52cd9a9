// A logon monitor wired to one small fake per seam.
#pragma once

#include <windows.h>
#include <sddl.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>

#include <gtest/gtest.h>

#include "app/Settings.h"
#include "monitor/LogonMonitor.h"
#include "tests/logonmon/ProcessorHarness.h"
#include "tests/support/LogFiles.h"
#include "tests/trace/RecordingEtwControl.h"
#include "trace/UniqueHandle.h"

namespace plmx::testing {

using Lines = std::vector<std::string>;

// One ProcessTrace call: `before`, the events on the calling thread as ETW
// delivers them, `after`, then `result` or, `untilClosed`, a wait for
// CloseTrace.
struct ConsumeScript {
    std::vector<TestEvent> events{};
    bool untilClosed = false;
    ULONG result = ERROR_SUCCESS;
    std::function<void()> before{}, after{};
};

// Plays the scripts queued under a session's name; with none
// left it waits like an idle live session.
class FakeEtwConsume final : public logonmon::EtwConsumeApi {
  public:
    void Queue(const std::wstring& name, ConsumeScript script) {
        std::lock_guard<std::mutex> lock(mutex_);
        scripts_[name].push_back(std::move(script));
    }
    ULONG openError = 0;

    TRACEHANDLE OpenTrace(EVENT_TRACE_LOGFILEW* logFile) override {
        std::lock_guard<std::mutex> lock(mutex_);
        SetLastError(openError);
        if (openError != 0) {
            return INVALID_PROCESSTRACE_HANDLE;
        }
        const wchar_t* name = logFile->LoggerName ? logFile->LoggerName : logFile->LogFileName;
        traces_[++lastHandle_] = {name, logFile->EventRecordCallback, false};
        return lastHandle_;
    }
    ULONG ProcessTrace(TRACEHANDLE handle) override {
        ConsumeScript script{.untilClosed = true};
        std::unique_lock<std::mutex> lock(mutex_);
        const Trace trace = traces_[handle];
        if (trace.closed) {
            return ERROR_INVALID_HANDLE;
        }
        if (auto& queued = scripts_[trace.name]; !queued.empty()) {
            script = std::move(queued.front());
            queued.pop_front();
        }
        lock.unlock();
        if (script.before) {
            script.before();
        }
        for (const TestEvent& event : script.events) {
            EventBuilder builder;
            Describe(event, builder);
            trace.callback(const_cast<EVENT_RECORD*>(&builder.Record()));
        }
        if (script.after) {
            script.after();
        }
        lock.lock();
        closed_.wait(lock, [&] { return !script.untilClosed || traces_[handle].closed; });
        return script.untilClosed ? ERROR_SUCCESS : script.result;
    }
    ULONG CloseTrace(TRACEHANDLE handle) override {
        std::lock_guard<std::mutex> lock(mutex_);
        traces_[handle].closed = true;
        closed_.notify_all();
        return ERROR_SUCCESS;
    }

  private:
    struct Trace {
        std::wstring name;
        PEVENT_RECORD_CALLBACK callback = nullptr;
        bool closed = true;
    };
    std::mutex mutex_;
    std::condition_variable closed_;
    std::map<std::wstring, std::deque<ConsumeScript>> scripts_;
    std::map<TRACEHANDLE, Trace> traces_;
    TRACEHANDLE lastHandle_ = 0;
};

// This process's token for every session; no waits.
struct FakeUserTokens final : UserTokenApi {
    bool QueryUserToken(ULONG sessionId, HANDLE* token) override {
        queried.push_back(sessionId);
        return OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token);
    }
    DWORD TickCount() override { return 0; }
    void Sleep(DWORD) override {}
    std::vector<ULONG> queried;
};

// Every query reads one sample: 40 % user CPU, 300 MB committed.
struct FakePdh final : PdhApi {
    PDH_STATUS OpenQuery(PDH_HQUERY* query) override { return *query = this, 0; }
    PDH_STATUS AddCounter(PDH_HQUERY, const char*, PDH_HCOUNTER* counter) override {
        added = added % 7 + 1;
        return *counter = reinterpret_cast<PDH_HCOUNTER>(added), 0;
    }
    PDH_STATUS CollectQueryData(PDH_HQUERY) override { return 0; }
    PDH_STATUS CollectQueryDataWithTime(PDH_HQUERY, LONGLONG*) override { return ++collected, 0; }
    PDH_STATUS GetFormattedCounterValue(PDH_HCOUNTER counter, DWORD,
                                        PDH_FMT_COUNTERVALUE* value) override {
        constexpr LONGLONG kSample[] = {60, 5, 40, 2000, 300 << 20, 0, 0};
        return value->largeValue = kSample[reinterpret_cast<size_t>(counter) - 1], 0;
    }
    PDH_STATUS RemoveCounter(PDH_HCOUNTER) override { return 0; }
    PDH_STATUS CloseQuery(PDH_HQUERY) override { return 0; }
    size_t added = 0;
    std::atomic<int> collected{0};
};

class FastTimers final : public logonmon::TimerService {
  public:
    std::unique_ptr<logonmon::PeriodicTimer> StartPeriodic(uint32_t,
                                                           std::function<void()> tick) override {
        return logonmon::DefaultTimerService().StartPeriodic(5, std::move(tick));
    }
};

inline std::wstring ProcessUserSid() {
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
    const UniqueHandle owned(token);
    uint8_t buffer[256];
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &size);
    wchar_t* text = nullptr;
    ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text);
    const UniqueLocalMemory ownedText(text);
    return text;
}

inline Lines Matching(const Lines& lines, const std::string& prefix, size_t from = 0) {
    Lines found;
    std::copy_if(lines.begin() + from, lines.end(), std::back_inserter(found),
                 [&](const std::string& line) { return line.starts_with(prefix); });
    return found;
}

struct MonitorTest : ::testing::Test {
    std::unique_ptr<LogonMonitor> Monitor(uint32_t flags, const std::wstring& remote = {}) {
        Settings::Instance().Flags = flags;
        Settings::Instance().RemoteLogPath = remote;
        return std::make_unique<LogonMonitor>(MonitorServices{
            {&timers_, &clock_, &accounts_}, &consume_, &tokens_, &pdh_, &tdh_.fake});
    }
    Lines MainLog() const { return Tagged(ReadLines(mainLog_.Path())); }
    std::vector<std::wstring> SessionLogFiles() const {
        std::vector<std::wstring> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder_.Path())) {
            if (entry.path().filename().wstring().starts_with(L"plmx_")) {
                names.push_back(entry.path().filename().wstring());
            }
        }
        return names;
    }

    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path()};
    ScopedFakeTdh tdh_;
    logonmon::testing::RecordingEtwControl control_;
    FakeEtwConsume consume_;
    FakeUserTokens tokens_;
    FakePdh pdh_;
    FakeAccounts accounts_;
    FakeClock clock_;
    FastTimers timers_;
};

}  // namespace plmx::testing
