#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

#include "tests/logonmon/ProcessorHarness.h"

namespace plmx::testing {
namespace {

// Destroying the timer waits for a tick in progress; none comes after.
TEST(LogonProcessorConcurrencyTest, TimerTicksUntilDestroyed) {
    std::atomic<int> ticks{0};
    auto timer = logonmon::DefaultTimerService().StartPeriodic(10, [&ticks] { ++ticks; });
    while (ticks < 3) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    timer.reset();
    const int ticksAtStop = ticks;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(ticks, ticksAtStop);
}

// Two consumer threads feed logons of their own sessions while the real
// timer walks the sessions every millisecond. Each logon ends once, by its
// shell or by the timer's timeout; sampling follows the timer: on, off, on...
TEST(LogonProcessorConcurrencyTest, TwoEventThreadsAndTheTimer) {
    constexpr uint32_t kLogons = 150;
    ScopedFakeTdh tdh;
    logonmon::ProcessorServices services;
    RecordingProcessor processor(logonmon::SESSION_CONFIG{1, false, true, false}, services);
    auto feedLogons = [&processor, &services](uint32_t firstSession, const wchar_t* sid) {
        for (uint32_t session = firstSession; session < firstSession + kLogons; ++session) {
            const uint64_t start = services.clock->NowFileTime();
            processor.Feed({CreateSession(session, sid, start), Login(session, sid, start + 1),
                            NotifyStop(kStartShell, session, start + 2),
                            ShellInitialized(session, start + 3)});
        }
    };
    std::thread first(feedLogons, 100, kAliceSid);
    std::thread second(feedLogons, 1000, kBobSid);
    first.join();
    second.join();
    processor.StopTimer();

    std::lock_guard<std::mutex> lock(processor.mutex);
    std::map<uint32_t, int> endings;
    for (const auto& session : processor.endedSessions) {
        ++endings[session.sessionId];
    }
    EXPECT_EQ(endings.size(), 2 * kLogons);
    EXPECT_EQ(processor.endedSessions.size(), 2 * kLogons);
    for (size_t i = 0; i < processor.sampling.size(); ++i) {
        EXPECT_EQ(processor.sampling[i], i % 2 == 0) << i;
    }
}

}  // namespace
}  // namespace plmx::testing
