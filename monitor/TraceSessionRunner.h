// One real-time trace session and the thread that consumes it: starts the
// session, delivers its events, restarts it when it ends by itself and stops
// it again on request.
#pragma once

#include <windows.h>

#include <mutex>

#include "monitor/TraceConsumer.h"
#include "trace/Controller.h"
#include "trace/UniqueHandle.h"

class TraceSessionRunner {
  public:
    struct Options {
        bool stopOnExit = true;
        // A running session of the same name counts as started.
        bool acceptExisting = true;
        // Start the session again when it ends while no stop was asked.
        bool restart = true;
    };

    TraceSessionRunner(logonmon::Controller session, logonmon::EtwConsumeApi& consume);
    // Stops the runner if it still runs.
    ~TraceSessionRunner();
    TraceSessionRunner(const TraceSessionRunner&) = delete;
    TraceSessionRunner& operator=(const TraceSessionRunner&) = delete;

    logonmon::Controller& Session() { return session_; }
    void SetOptions(const Options& options) { options_ = options; }

    // Starts the session; an existing one is accepted, or stopped and
    // started once more. Win32 error code.
    ULONG StartSession();
    // Starts the consumer thread, which hands every event to `onEvent`. When
    // the thread cannot be made, stops the session and returns the error.
    ULONG StartConsumer(EventCallback onEvent);
    // The consumer thread while running, else null; signalled once it ended.
    HANDLE Thread() const { return thread_.Get(); }

    // Ends the consumer, waits for its thread and, with stop-on-exit, stops
    // the session. Does nothing unless running.
    void Stop();

  private:
    static DWORD WINAPI ThreadMain(void* runner);
    void Consume();
    // Opens the session for this thread unless a stop was asked; the handle,
    // or INVALID_PROCESSTRACE_HANDLE.
    TRACEHANDLE OpenConsumer();

    logonmon::Controller session_;
    Options options_;
    logonmon::EtwConsumeApi& consume_;
    EventCallback onEvent_;
    bool running_ = false;
    // Guards the consumer handle and the stop request, which the stopping
    // thread and the consumer thread both touch.
    std::mutex mutex_;
    ConsumerHandle consumer_;
    bool stopRequested_ = false;
    UniqueHandle thread_;
};
