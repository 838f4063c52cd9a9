#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "tests/logonmon/ProcessorHarness.h"

namespace plmx::testing {
namespace {

// FakeTdh counts its calls without a lock; consumer threads take turns here.
class SerializedTdh : public logonmon::TdhApi {
  public:
    uint32_t GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                 uint32_t* bufferSize) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return fake_.GetEventInformation(event, buffer, bufferSize);
    }
    uint32_t GetPropertySize(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                             uint32_t* propertySize) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return fake_.GetPropertySize(event, descriptor, propertySize);
    }
    uint32_t GetProperty(const EVENT_RECORD& event, const PROPERTY_DATA_DESCRIPTOR& descriptor,
                         uint32_t bufferSize, uint8_t* buffer) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return fake_.GetProperty(event, descriptor, bufferSize, buffer);
    }

  private:
    std::mutex mutex_;
    FakeTdh fake_;
};

// Two consumer threads feed logons of their own sessions while the real
// timer walks the sessions every millisecond.
TEST(LogonProcessorConcurrencyTest, TwoEventThreadsAndTheTimer) {
    constexpr int kLogonsPerThread = 150;
    SerializedTdh tdh;
    logonmon::ScopedTdhBinding binding(tdh);
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
    EXPECT_EQ(processor.endedSessions.size(), 2u * kLogonsPerThread);
    std::vector<int> endings(2000, 0);
    for (const auto& session : processor.endedSessions) {
        ++endings.at(session.sessionId);
    }
    for (uint32_t session = 0; session < endings.size(); ++session) {
        const bool fed = (session >= 100 && session < 100 + kLogonsPerThread) ||
                         (session >= 1000 && session < 1000 + kLogonsPerThread);
        EXPECT_EQ(endings[session], fed ? 1 : 0) << session;
    }
    // Sampling follows the timer: on, off, on, ...
    for (size_t i = 0; i < processor.sampling.size(); ++i) {
        EXPECT_EQ(processor.sampling[i], i % 2 == 0) << i;
    }
}

}  // namespace
}  // namespace plmx::testing
