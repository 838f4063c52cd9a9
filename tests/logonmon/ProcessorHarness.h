// A logon processor that records its hook calls and log lines, fakes for its
// operating-system services, and test events described in a few fields.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "logonmon/CurrentRecord.h"
#include "logonmon/LogonProcessor.h"
#include "logonmon/PrintfFormat.h"
#include "tests/support/EventBuilder.h"
#include "trace/TextForms.h"

namespace plmx::testing {

inline constexpr uint64_t kSecond = 10'000'000;
inline constexpr uint64_t kMorning = 133'537'536'000'000'000;  // 2024-03-01T08:00:00Z

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
    std::wstring message{};
    std::vector<PropertyDefinition> properties{};
    std::optional<std::vector<uint8_t>> payload{};
};

// Winlogon's NotifyExecute (801/802) and CallSubscriber (811/812) events.
inline TestEvent SubscriberEvent(uint16_t id, uint8_t opcode, Notification notification,
                                 const std::wstring& subscriber, uint32_t session, uint64_t time) {
    TestEvent event{.provider = kWinlogonGuid,
                    .id = id,
                    .opcode = opcode,
                    .time = time,
                    .session = session,
                    .sid = kSystemSid,
                    .task = subscriber.empty() ? L"NotifyExecute" : L"CallSubscriber",
                    .properties = {UInt32Property(L"Event", notification)}};
    if (!subscriber.empty()) {
        event.properties.push_back(StringProperty(L"SubscriberName", subscriber));
    }
    return event;
}
inline TestEvent NotifyStart(Notification notification, uint32_t session, uint64_t time) {
    return SubscriberEvent(801, 1, notification, L"", session, time);
}
inline TestEvent NotifyStop(Notification notification, uint32_t session, uint64_t time) {
    return SubscriberEvent(802, 2, notification, L"", session, time);
}
inline TestEvent CreateSession(uint32_t session, const std::wstring& sid, uint64_t time) {
    TestEvent event = NotifyStart(kCreateSession, session, time);
    event.sid = sid;
    return event;
}
inline TestEvent Login(uint32_t session, const std::wstring& sid, uint64_t time) {
    TestEvent event = CreateSession(session, sid, time);
    event.properties = {UInt32Property(L"Event", kLogin)};
    return event;
}
inline TestEvent ShellInitialized(uint32_t session, uint64_t time) {
    return {.provider = kShellCoreGuid, .id = 9602, .opcode = 2, .time = time, .session = session};
}
// A remote agent event of `size` bytes (header session 2): the session id,
// then UTF-16 text fields at their offsets, each cut at the payload's end.
inline TestEvent AgentEvent(uint16_t id, size_t size, uint32_t session, uint64_t time,
                            const std::vector<std::pair<size_t, std::wstring>>& fields = {}) {
    TestEvent event{.provider = kRemoteAgentGuid, .id = id, .time = time, .session = 2};
    std::vector<uint8_t>& payload = event.payload.emplace(size, 0);
    for (size_t i = 0; i < 4 && i < size; ++i) {
        payload[i] = static_cast<uint8_t>(session >> (8 * i));
    }
    for (const auto& [offset, text] : fields) {
        for (size_t i = 0; i < text.size() && offset + 2 * i + 1 < size; ++i) {
            payload[offset + 2 * i] = static_cast<uint8_t>(text[i]);
            payload[offset + 2 * i + 1] = static_cast<uint8_t>(text[i] >> 8);
        }
    }
    return event;
}

// Gives `builder` the header, schema and properties of `event`.
inline void Describe(const TestEvent& event, EventBuilder& builder) {
    builder.Provider(event.provider).EventId(event.id).Opcode(event.opcode).Level(4);
    builder.ProcessId(0x2a0).ThreadId(event.thread).Timestamp(event.time);
    if (event.session) {
        builder.SessionId(*event.session);
    }
    if (event.sid) {
        builder.UserSid(*event.sid);
    }
    if (event.activity) {
        builder.ActivityId(GuidFromText(*event.activity));
    }
    if (!event.task.empty()) {
        builder.TaskName(event.task);
    }
    if (!event.message.empty()) {
        builder.Message(event.message);
    }
    for (const PropertyDefinition& property : event.properties) {
        builder.Property(property);
    }
    if (event.payload) {
        builder.Payload(*event.payload);
    }
}

// Fires only when told.
class ManualTimerService : public logonmon::TimerService {
  public:
    std::unique_ptr<logonmon::PeriodicTimer> StartPeriodic(uint32_t periodMs,
                                                           std::function<void()> tick) override {
        periods.push_back(periodMs);
        tick_ = std::move(tick);
        return std::make_unique<Timer>(*this, ++started_);
    }
    bool Running() const { return tick_ != nullptr; }
    void Fire() {
        if (const auto tick = tick_) {
            tick();
        }
    }
    std::vector<uint32_t> periods;

  private:
    struct Timer : logonmon::PeriodicTimer {
        Timer(ManualTimerService& service, size_t number) : service(service), number(number) {}
        ~Timer() override { Cancel(); }
        // Only the newest timer runs.
        void Cancel() override {
            if (service.started_ == number) {
                service.tick_ = nullptr;
            }
        }
        ManualTimerService& service;
        const size_t number;
    };
    std::function<void()> tick_;
    size_t started_ = 0;
};

class FakeClock : public logonmon::Clock {
  public:
    uint64_t NowFileTime() override { return now; }
    uint64_t now = kMorning;
};

class FakeAccounts : public logonmon::AccountLookup {
  public:
    bool LookupAccount(const logonmon::Sid& sid, std::wstring* name,
                       std::wstring* domain) override {
        const auto found = accounts.find(sid.ToString());
        if (found == accounts.end()) {
            return false;
        }
        *domain = found->second.first;
        *name = found->second.second;
        return true;
    }
    // SID text to (domain, name).
    std::map<std::wstring, std::pair<std::wstring, std::wstring>> accounts;
};

class RecordingProcessor : public logonmon::LogonProcessor {
  public:
    RecordingProcessor(const logonmon::SESSION_CONFIG& config,
                       const logonmon::ProcessorServices& services)
        : LogonProcessor(config, services) {
        // The service allocates the slot at start-up.
        logonmon::AllocateCurrentRecordSlot();
    }
    ~RecordingProcessor() override { StopTimer(); }

    void OnLogonEnd(logonmon::SESSION_CONTEXT& session) override {
        std::lock_guard<std::mutex> lock(mutex);
        endedSessions.push_back(Copy(session));
    }
    void EnableSampling(bool enable) override {
        std::lock_guard<std::mutex> lock(mutex);
        sampling.push_back(enable);
    }
    void LogFormatted(uint32_t level, const wchar_t* function, const char* format, ...) override {
        va_list args;
        va_start(args, format);
        const std::string text = logonmon::FormatPrintf(format, args);
        va_end(args);
        const logonmon::EventRecordData* record = logonmon::CurrentRecord();
        std::wstring_view name = function;
        if (name.starts_with(L"logonmon::LogonProcessor::")) {
            name.remove_prefix(std::wstring_view(L"logonmon::LogonProcessor::").size());
        }
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(std::to_string(level) + " " + logonmon::Utf8FromWide(std::wstring(name)) +
                        ": " + text);
        lineSessions.push_back(record != nullptr && record->sessionContext
                                   ? int64_t{record->sessionContext->sessionId}
                                   : -1);
        if (!throwOnText.empty() && text == throwOnText) {
            throw std::runtime_error("handler failed");
        }
    }
    // Marks where the extended summary goes.
    void LogExtendedSummary(logonmon::SESSION_CONTEXT& session) override {
        LogFormatted(logonmon::kLevelInfo, L"Extended", "extended %d", session.sessionId);
    }

    void Feed(const std::vector<TestEvent>& events) {
        for (const TestEvent& event : events) {
            EventBuilder builder;
            Describe(event, builder);
            HandleEventRecord(&builder.Record());
        }
    }
    void ClearLines() {
        lines.clear();
        lineSessions.clear();
    }
    // Copies of the open sessions, in creation order.
    std::vector<logonmon::SESSION_CONTEXT> Sessions() {
        std::vector<logonmon::SESSION_CONTEXT> sessions;
        VisitSessions([&sessions](logonmon::SESSION_CONTEXT& s) { sessions.push_back(Copy(s)); });
        return sessions;
    }

    // Guarded by `mutex` where threads meet.
    mutable std::mutex mutex;
    // "<level> <function>: <text>", the function without the processor's own
    // "logonmon::LogonProcessor::"; and the session of the thread's current
    // event, -1 for none.
    std::vector<std::string> lines;
    std::vector<int64_t> lineSessions;
    std::vector<logonmon::SESSION_CONTEXT> endedSessions;
    std::vector<bool> sampling;
    // Thrown from LogFormatted when a line with this text is written.
    std::string throwOnText;

  private:
    static logonmon::SESSION_CONTEXT Copy(const logonmon::SESSION_CONTEXT& context) {
        logonmon::SESSION_CONTEXT copy = context;
        copy.lastEvent.reset();
        return copy;
    }
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
