#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "logonmon/ProcessorServices.h"

namespace logonmon {

namespace {

class ThreadTimer : public PeriodicTimer {
  public:
    ThreadTimer(uint32_t periodMs, std::function<void()> tick)
        : period_(periodMs), tick_(std::move(tick)), thread_([this] { Run(); }) {}

    ~ThreadTimer() override {
        Cancel();
        thread_.join();
    }

    void Cancel() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
    }

  private:
    void Run() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!wake_.wait_for(lock, period_, [this] { return stopping_; })) {
            lock.unlock();
            tick_();
            lock.lock();
        }
    }

    const std::chrono::milliseconds period_;
    const std::function<void()> tick_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;  // last: starts once everything above exists
};

class ThreadTimerService : public TimerService {
  public:
    std::unique_ptr<PeriodicTimer> StartPeriodic(uint32_t periodMs,
                                                 std::function<void()> tick) override {
        return std::make_unique<ThreadTimer>(periodMs, std::move(tick));
    }
};

}  // namespace

TimerService& DefaultTimerService() {
    static ThreadTimerService service;
    return service;
}

}  // namespace logonmon
