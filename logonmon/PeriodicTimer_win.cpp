#include <windows.h>

#include <stdexcept>

#include "logonmon/ProcessorServices.h"

namespace logonmon {

namespace {

class TimerQueueTimer : public PeriodicTimer {
  public:
    TimerQueueTimer(uint32_t periodMs, std::function<void()> tick) : tick_(std::move(tick)) {
        if (!CreateTimerQueueTimer(&timer_, nullptr, &TimerQueueTimer::Callback, this, periodMs,
                                   periodMs, WT_EXECUTEDEFAULT)) {
            throw std::runtime_error("CreateTimerQueueTimer failed");
        }
    }

    ~TimerQueueTimer() override {
        // INVALID_HANDLE_VALUE: wait for a callback that is running.
        DeleteTimerQueueTimer(nullptr, timer_, INVALID_HANDLE_VALUE);
    }

  private:
    static VOID CALLBACK Callback(PVOID parameter, BOOLEAN /*timerOrWaitFired*/) {
        static_cast<TimerQueueTimer*>(parameter)->tick_();
    }

    const std::function<void()> tick_;
    HANDLE timer_ = nullptr;
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
