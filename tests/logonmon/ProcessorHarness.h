// A logon processor that records its hook calls and log lines, fakes for its
// operating-system services, and a compact description of test events.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "logonmon/LogonProcessor.h"
#include "tests/support/EventBuilder.h"

namespace plmx::testing {

inline constexpr uint64_t kSecond = 10'000'000;
// 2024-03-01T08:00:00Z
inline constexpr uint64_t kMorning = 133'537'536'000'000'000;

inline constexpr wchar_t kWinlogonGuid[] = L"dbe9b383-7cf3-4331-91cc-a3cb16a3b538";
inline constexpr wchar_t kShellCoreGuid[] = L"30336ed4-e327-447c-9de0-51b652c86108";
inline constexpr wchar_t kUserProfilesGuid[] = L"89b1e9f0-5aff-44a6-9b44-0a07a7ce5845";
inline constexpr wchar_t kGroupPolicyGuid[] = L"aea1b4fa-97d1-45f2-a64c-4d69fffd92c9";
inline constexpr wchar_t kKernelProcessGuid[] = L"22fb2cd6-0e7b-422b-a0c7-2fad1fd0e716";
inline constexpr wchar_t kSessionManagerGuid[] = L"5d896912-022d-40aa-a3a8-4fa5515c76d7";
inline constexpr wchar_t kRemoteAgentGuid[] = L"0d5380e5-a6ba-4cfc-b31e-484c775e4db9";

inline constexpr wchar_t kAliceSid[] = L"S-1-5-21-1004336348-1177238915-682003330-1001";
inline constexpr wchar_t kBobSid[] = L"S-1-5-21-1004336348-1177238915-682003330-1002";
inline constexpr wchar_t kSystemSid[] = L"S-1-5-18";

// Winlogon notification numbers as the provider writes them.
enum Notification : uint32_t {
    kCreateSession = 0,
    kTerminateSession = 1,
    kLogin = 2,
    kLogoff = 3,
    kStartShell = 12,
    kEndShell = 13,
};

// Every member has an initializer, so that designated initializers may leave
// any out.
struct TestEvent {
    std::wstring provider{};
    uint16_t id = 0;
    uint8_t opcode = 0;
    uint64_t time = kMorning;
    std::optional<uint32_t> session{};
    std::optional<std::wstring> sid{};
    uint32_t thread = 0x100;
    std::optional<std::wstring> activity{};
    std::wstring task{};
    std::wstring opcodeName{};
    std::wstring message{};
    std::vector<PropertyDefinition> properties{};
    std::optional<std::vector<uint8_t>> payload{};
};

// Winlogon's NotifyExecute start and stop (801/802) and CallSubscriber
// events (811/812) for one subscriber.
TestEvent NotifyStart(Notification notification, uint32_t session, uint64_t time);
TestEvent NotifyStop(Notification notification, uint32_t session, uint64_t time);
TestEvent SubscriberEvent(uint16_t id, uint8_t opcode, Notification notification,
                          const std::wstring& subscriber, uint32_t session, uint64_t time);
TestEvent CreateSession(uint32_t session, const std::wstring& sid, uint64_t time);
TestEvent Login(uint32_t session, const std::wstring& sid, uint64_t time);
TestEvent ShellInitialized(uint32_t session, uint64_t time);
// A remote agent event of `size` bytes (header session 2): the session id,
// then UTF-16 text fields at their offsets, each cut at the payload's end.
TestEvent AgentEvent(uint16_t id, size_t size, uint32_t session, uint64_t time,
                     const std::vector<std::pair<size_t, std::wstring>>& fields = {});

// Gives `builder` the header, schema and properties of `event`.
void Describe(const TestEvent& event, EventBuilder& builder);

struct ProcessorLogLine {
    uint32_t level;
    std::wstring function;
    std::string text;
    // The session the thread's current event is bound to, -1 for none.
    int64_t session;
};

// Fires only when told.
class ManualTimerService : public logonmon::TimerService {
  public:
    std::unique_ptr<logonmon::PeriodicTimer> StartPeriodic(uint32_t periodMs,
                                                           std::function<void()> tick) override;
    bool Running() const { return running_ != nullptr; }
    // Runs the running timer's tick, if any.
    void Fire();
    std::vector<uint32_t> periods;

  private:
    struct Timer;
    Timer* running_ = nullptr;
};

class FakeClock : public logonmon::Clock {
  public:
    uint64_t NowFileTime() override { return now; }
    uint64_t now = kMorning;
};

class FakeAccounts : public logonmon::AccountLookup {
  public:
    bool LookupAccount(const logonmon::Sid& sid, std::wstring* name, std::wstring* domain) override;
    // SID text to (domain, name).
    std::map<std::wstring, std::pair<std::wstring, std::wstring>> accounts;
};

class RecordingProcessor : public logonmon::LogonProcessor {
  public:
    using LogonProcessor::LogonProcessor;
    ~RecordingProcessor() override { StopTimer(); }

    void OnLogonStart(logonmon::SESSION_CONTEXT& session) override;
    void OnLogonEnd(logonmon::SESSION_CONTEXT& session) override;
    void EnableSampling(bool enable) override;
    void LogFormatted(uint32_t level, const wchar_t* function, const char* format, ...) override;
    // Marks where the extended summary goes.
    void LogExtendedSummary(logonmon::SESSION_CONTEXT& session) override;

    void Feed(const TestEvent& event);
    void Feed(const std::vector<TestEvent>& events);
    // "<level> <function>: <text>", the function without the processor's own
    // "logonmon::LogonProcessor::".
    std::vector<std::string> Logged() const;
    // Copies of the open sessions, in creation order.
    std::vector<logonmon::SESSION_CONTEXT> Sessions();

    // Guarded by `mutex` where threads meet.
    mutable std::mutex mutex;
    std::vector<ProcessorLogLine> lines;
    std::vector<uint32_t> logonStarts;
    std::vector<logonmon::SESSION_CONTEXT> endedSessions;
    std::vector<bool> sampling;
    // Thrown from LogFormatted when a line with this text is written.
    std::string throwOnText;
};

// A processor with fake services, made anew by each call of Processor().
class ProcessorFixture : public ::testing::Test {
  protected:
    RecordingProcessor& Processor(const logonmon::SESSION_CONFIG& config = {}) {
        processor_ = std::make_unique<RecordingProcessor>(
            config, logonmon::ProcessorServices{&timers_, &clock_, &accounts_});
        return *processor_;
    }

    ScopedFakeTdh tdh_;
    ManualTimerService timers_;
    FakeClock clock_;
    FakeAccounts accounts_;
    std::unique_ptr<RecordingProcessor> processor_;
};

}  // namespace plmx::testing
