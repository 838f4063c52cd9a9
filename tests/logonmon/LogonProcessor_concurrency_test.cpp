#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "tests/logonmon/ProcessorHarness.h"

namespace plmx::testing {
namespace {

// Two consumer threads feed logons of their own sessions while the real
// timer walks the sessions every millisecond.
TEST(LogonProcessorConcurrencyTest, TwoEventThreadsAndTheTimer) {
    constexpr int kLogonsPerThread = 150;
    ScopedFakeTdh tdh;
    logonmon::ProcessorServices services;
    RecordingProcessor processor(logonmon::SESSION_CONFIG{1, false, true, false}, services);

    auto feedLogons = [&processor, &services](uint32_t firstSession, const wchar_t* sid) {
        for (int i = 0; i < kLogonsPerThread; ++i) {
            const uint32_t session = firstSession + static_cast<uint32_t>(i);
            const uint64_t start = services.clock->NowFileTime();
            processor.Feed(CreateSession(session, sid, start));
            processor.Feed(Login(session, sid, start + 1));
            processor.Feed(NotifyStop(kStartShell, session, start + 2));
            processor.Feed(ShellInitialized(session, start + 3));
        }
    };
    std::thread first(feedLogons, 100, kAliceSid);
    std::thread second(feedLogons, 1000, kBobSid);
    first.join();
    second.join();
    processor.StopTimer();

    // Each logon ended once, by its shell or by the timer's timeout.
    std::lock_guard<std::mutex> lock(processor.mutex);
    std::map<uint32_t, int> endings;
    for (const auto& session : processor.endedSessions) {
        ++endings[session.sessionId];
    }
    std::map<uint32_t, int> expected;
    for (uint32_t i = 0; i < kLogonsPerThread; ++i) {
        expected[100 + i] = expected[1000 + i] = 1;
    }
    EXPECT_EQ(endings, expected);
    // Sampling follows the timer: on, off, on, ...
    for (size_t i = 0; i < processor.sampling.size(); ++i) {
        EXPECT_EQ(processor.sampling[i], i % 2 == 0) << i;
    }
}

}  // namespace
}  // namespace plmx::testing
