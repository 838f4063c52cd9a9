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

// Only Windows knows account names.
TEST(PlatformServicesTest, AccountLookup) {
    std::wstring name;
    std::wstring domain;
    const bool found =
        DefaultAccountLookup().LookupAccount(*Sid::FromString(L"S-1-5-18"), &name, &domain);
#ifdef _WIN32
    EXPECT_TRUE(found);
    EXPECT_EQ(name, L"SYSTEM");
#else
    EXPECT_FALSE(found);
#endif
}

}  // namespace
}  // namespace logonmon
