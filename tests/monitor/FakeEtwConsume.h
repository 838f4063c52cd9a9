// Stands in for the ETW consumer calls: each ProcessTrace of a session or
// trace file plays the next script queued under its name, delivering the
// script's events to the log file's callback on the calling thread as ETW
// does, then ends as the script says. Without a script left, ProcessTrace
// waits until its handle is closed, like a live session with no events.
#pragma once

#include <windows.h>
#include <evntrace.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tests/logonmon/ProcessorHarness.h"
#include "trace/EtwConsumeApi.h"
#include "trace/TextForms.h"

namespace plmx::testing {

struct ConsumeScript {
    std::vector<TestEvent> events{};
    // After the events: wait until the handle is closed, or end with `result`.
    bool untilClosed = false;
    ULONG result = ERROR_SUCCESS;
    // Thrown instead of ending, as a reader that runs out of memory would.
    bool throwBadAlloc = false;
};

class FakeEtwConsume final : public logonmon::EtwConsumeApi {
  public:
    // `name`: the session name, or the trace file's path.
    void Queue(const std::wstring& name, ConsumeScript script) {
        std::lock_guard<std::mutex> lock(mutex_);
        scripts_[name].push_back(std::move(script));
    }
    // Fails every OpenTrace with this error (0: none fails).
    ULONG openError = 0;
    // Called on the consumer thread each time ProcessTrace starts, with the
    // number of calls so far.
    std::function<void(int)> onProcessing;

    // "Open <name>", "Close <name>", in call order.
    std::vector<std::string> Calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    size_t OpenHandles() const {
        std::lock_guard<std::mutex> lock(mutex_);
        size_t open = 0;
        for (const auto& [handle, trace] : traces_) {
            open += trace.closed ? 0 : 1;
        }
        return open;
    }

    TRACEHANDLE OpenTrace(EVENT_TRACE_LOGFILEW* logFile) override {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::wstring name = logFile->LoggerName ? logFile->LoggerName : logFile->LogFileName;
        calls_.push_back("Open " + logonmon::Utf8FromWide(name));
        if (openError != 0) {
            SetLastError(openError);
            return INVALID_PROCESSTRACE_HANDLE;
        }
        traces_[++lastHandle_] = Trace{name, logFile->EventRecordCallback, false};
        return lastHandle_;
    }

    ULONG ProcessTrace(TRACEHANDLE handle) override {
        ConsumeScript script{.untilClosed = true};
        PEVENT_RECORD_CALLBACK callback = nullptr;
        int processing = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            const auto trace = traces_.find(handle);
            if (trace == traces_.end() || trace->second.closed) {
                return ERROR_INVALID_HANDLE;
            }
            auto& queued = scripts_[trace->second.name];
            if (!queued.empty()) {
                script = std::move(queued.front());
                queued.pop_front();
            }
            callback = trace->second.callback;
            processing = ++processing_;
        }
        if (onProcessing) {
            onProcessing(processing);
        }
        for (const TestEvent& event : script.events) {
            EventBuilder builder;
            Describe(event, builder);
            callback(const_cast<EVENT_RECORD*>(&builder.Record()));
        }
        if (script.throwBadAlloc) {
            throw std::bad_alloc();
        }
        if (!script.untilClosed) {
            return script.result;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        closedChanged_.wait(lock, [&] { return traces_[handle].closed; });
        return ERROR_SUCCESS;
    }

    ULONG CloseTrace(TRACEHANDLE handle) override {
        std::lock_guard<std::mutex> lock(mutex_);
        Trace& trace = traces_[handle];
        calls_.push_back("Close " + logonmon::Utf8FromWide(trace.name));
        trace.closed = true;
        closedChanged_.notify_all();
        return ERROR_SUCCESS;
    }

  private:
    struct Trace {
        std::wstring name;
        PEVENT_RECORD_CALLBACK callback = nullptr;
        bool closed = true;
    };

    mutable std::mutex mutex_;
    std::condition_variable closedChanged_;
    std::map<std::wstring, std::deque<ConsumeScript>> scripts_;
    std::map<TRACEHANDLE, Trace> traces_;
    std::vector<std::string> calls_;
    TRACEHANDLE lastHandle_ = 0;
    int processing_ = 0;
};

}  // namespace plmx::testing
