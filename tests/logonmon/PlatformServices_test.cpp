#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "logonmon/CurrentRecord.h"
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

TEST(PlatformServicesTest, AccountLookup) {
    const auto system = Sid::FromString(L"S-1-5-18");
    ASSERT_TRUE(system);
    std::wstring name;
    std::wstring domain;
#ifdef _WIN32
    ASSERT_TRUE(DefaultAccountLookup().LookupAccount(*system, &name, &domain));
    EXPECT_EQ(name, L"SYSTEM");
#else
    EXPECT_FALSE(DefaultAccountLookup().LookupAccount(*system, &name, &domain));
#endif
}

TEST(PlatformServicesTest, CurrentRecordIsPerThread) {
    ASSERT_TRUE(AllocateCurrentRecordSlot());
    int marker = 0;
    auto* const record = reinterpret_cast<EventRecordData*>(&marker);
    EXPECT_EQ(CurrentRecord(), nullptr);
    {
        ScopedCurrentRecord current(record);
        EXPECT_EQ(CurrentRecord(), record);
        EventRecordData* seenElsewhere = record;
        std::thread([&seenElsewhere] { seenElsewhere = CurrentRecord(); }).join();
        EXPECT_EQ(seenElsewhere, nullptr);
    }
    EXPECT_EQ(CurrentRecord(), nullptr);
}

}  // namespace
}  // namespace logonmon
