#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "logonmon/ProcessorServices.h"

namespace logonmon {
namespace {

// Destroying the timer waits for a tick in progress; none comes after.
TEST(PlatformServicesTest, TimerTicksUntilDestroyed) {
    std::atomic<int> ticks{0};
    auto timer = DefaultTimerService().StartPeriodic(10, [&ticks] { ++ticks; });
    while (ticks < 3) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    timer.reset();
    const int ticksAtStop = ticks;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(ticks, ticksAtStop);
}

}  // namespace
}  // namespace logonmon
