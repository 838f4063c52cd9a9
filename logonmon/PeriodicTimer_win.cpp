#include <windows.h>

#include <stdexcept>

#include "logonmon/ProcessorServices.h"
#include "trace/UniqueHandle.h"

namespace logonmon {

namespace {

class TimerQueueTimer : public PeriodicTimer {
  public:
    TimerQueueTimer(uint32_t periodMs, std::function<void()> tick)
        : tick_(std::move(tick)), ticksDone_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
        if (!ticksDone_ || !CreateTimerQueueTimer(&timer_, nullptr, &TimerQueueTimer::Callback,
                                                  this, periodMs, periodMs, WT_EXECUTEDEFAULT)) {
            throw std::runtime_error("CreateTimerQueueTimer failed");
        }
    }

    ~TimerQueueTimer() override {
        if (cancelled_) {
            WaitForSingleObject(ticksDone_.Get(), INFINITE);
        } else {
            // INVALID_HANDLE_VALUE: wait for a callback that is running.
            DeleteTimerQueueTimer(nullptr, timer_, INVALID_HANDLE_VALUE);
        }
    }

    void Cancel() override {
        if (!cancelled_) {
            cancelled_ = true;
            // Returns at once; the event is set once a running callback ended.
            DeleteTimerQueueTimer(nullptr, timer_, ticksDone_.Get());
        }
    }

  private:
    static VOID CALLBACK Callback(PVOID parameter, BOOLEAN /*timerOrWaitFired*/) {
        static_cast<TimerQueueTimer*>(parameter)->tick_();
    }

    const std::function<void()> tick_;
    UniqueHandle ticksDone_;
    HANDLE timer_ = nullptr;
    bool cancelled_ = false;
};

class TimerQueueService : public TimerService {
  public:
    std::unique_ptr<PeriodicTimer> StartPeriodic(uint32_t periodMs,
                                                 std::function<void()> tick) override {
        return std::make_unique<TimerQueueTimer>(periodMs, std::move(tick));
    }
};

}  // namespace

TimerService& DefaultTimerService() {
    static TimerQueueService service;
    return service;
}

}  // namespace logonmon
