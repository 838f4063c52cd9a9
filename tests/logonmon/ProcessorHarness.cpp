#include "tests/logonmon/ProcessorHarness.h"

#include <stdexcept>

#include "logonmon/CurrentRecord.h"
#include "logonmon/PrintfFormat.h"
#include "trace/TextForms.h"

namespace plmx::testing {

namespace {

// The slot is allocated at start-up, as the service does.
const bool currentRecordSlotReady = logonmon::AllocateCurrentRecordSlot();

TestEvent WinlogonEvent(uint16_t id, uint8_t opcode, const std::wstring& task,
                        Notification notification, uint32_t session, uint64_t time) {
    return {.provider = kWinlogonGuid,
            .id = id,
            .opcode = opcode,
            .time = time,
            .session = session,
            .sid = kSystemSid,
            .task = task,
            .properties = {UInt32Property(L"Event", notification)}};
}

logonmon::SESSION_CONTEXT Copy(const logonmon::SESSION_CONTEXT& context) {
    logonmon::SESSION_CONTEXT copy = context;
    copy.lastEvent.reset();
    return copy;
}

}  // namespace

TestEvent NotifyStart(Notification notification, uint32_t session, uint64_t time) {
    return WinlogonEvent(801, 1, L"NotifyExecute", notification, session, time);
}

TestEvent NotifyStop(Notification notification, uint32_t session, uint64_t time) {
    return WinlogonEvent(802, 2, L"NotifyExecute", notification, session, time);
}

TestEvent SubscriberEvent(uint16_t id, uint8_t opcode, Notification notification,
                          const std::wstring& subscriber, uint32_t session, uint64_t time) {
    TestEvent event = WinlogonEvent(id, opcode, L"CallSubscriber", notification, session, time);
    event.properties.push_back(StringProperty(L"SubscriberName", subscriber));
    return event;
}

TestEvent CreateSession(uint32_t session, const std::wstring& sid, uint64_t time) {
    TestEvent event = NotifyStart(kCreateSession, session, time);
    event.sid = sid;
    return event;
}

TestEvent Login(uint32_t session, const std::wstring& sid, uint64_t time) {
    TestEvent event = NotifyStart(kLogin, session, time);
    event.sid = sid;
    return event;
}

TestEvent ShellInitialized(uint32_t session, uint64_t time) {
    return {.provider = kShellCoreGuid, .id = 9602, .opcode = 2, .time = time, .session = session};
}

TestEvent AgentEvent(uint16_t id, size_t size, uint32_t session, uint64_t time,
                     const std::vector<std::pair<size_t, std::wstring>>& fields) {
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

struct ManualTimerService::Timer : logonmon::PeriodicTimer {
    Timer(ManualTimerService& service, std::function<void()> tick)
        : service(service), tick(std::move(tick)) {}
    ~Timer() override { Cancel(); }
    void Cancel() override {
        if (service.running_ == this) {
            service.running_ = nullptr;
        }
    }
    ManualTimerService& service;
    const std::function<void()> tick;
};

std::unique_ptr<logonmon::PeriodicTimer> ManualTimerService::StartPeriodic(
    uint32_t periodMs, std::function<void()> tick) {
    periods.push_back(periodMs);
    auto timer = std::make_unique<Timer>(*this, std::move(tick));
    running_ = timer.get();
    return timer;
}

void ManualTimerService::Fire() {
    if (running_ != nullptr) {
        running_->tick();
    }
}

bool FakeAccounts::LookupAccount(const logonmon::Sid& sid, std::wstring* name,
                                 std::wstring* domain) {
    const auto found = accounts.find(sid.ToString());
    if (found == accounts.end()) {
        return false;
    }
    *domain = found->second.first;
    *name = found->second.second;
    return true;
}

void RecordingProcessor::OnLogonStart(logonmon::SESSION_CONTEXT& session) {
    std::lock_guard<std::mutex> lock(mutex);
    logonStarts.push_back(session.sessionId);
}

void RecordingProcessor::OnLogonEnd(logonmon::SESSION_CONTEXT& session) {
    std::lock_guard<std::mutex> lock(mutex);
    endedSessions.push_back(Copy(session));
}

void RecordingProcessor::EnableSampling(bool enable) {
    std::lock_guard<std::mutex> lock(mutex);
    sampling.push_back(enable);
}

void RecordingProcessor::LogFormatted(uint32_t level, const wchar_t* function, const char* format,
                                      ...) {
    va_list args;
    va_start(args, format);
    std::string text = logonmon::FormatPrintf(format, args);
    va_end(args);
    const logonmon::EventRecordData* record = logonmon::CurrentRecord();
    const int64_t session = record != nullptr && record->sessionContext
                                ? int64_t{record->sessionContext->sessionId}
                                : -1;
    std::lock_guard<std::mutex> lock(mutex);
    lines.push_back(ProcessorLogLine{level, function, text, session});
    if (!throwOnText.empty() && text == throwOnText) {
        throw std::runtime_error("handler failed");
    }
}

void RecordingProcessor::LogExtendedSummary(logonmon::SESSION_CONTEXT& session) {
    LogFormatted(logonmon::kLevelInfo, L"Extended", "extended %d", session.sessionId);
}

void Describe(const TestEvent& event, EventBuilder& builder) {
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
    if (!event.opcodeName.empty()) {
        builder.OpcodeName(event.opcodeName);
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

void RecordingProcessor::Feed(const TestEvent& event) {
    EventBuilder builder;
    Describe(event, builder);
    HandleEventRecord(&builder.Record());
}

void RecordingProcessor::Feed(const std::vector<TestEvent>& events) {
    for (const TestEvent& event : events) {
        Feed(event);
    }
}

std::vector<std::string> RecordingProcessor::Logged() const {
    static const std::wstring kOwn = L"logonmon::LogonProcessor::";
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> logged;
    for (const ProcessorLogLine& line : lines) {
        const std::wstring_view function =
            line.function.starts_with(kOwn) ? std::wstring_view(line.function).substr(kOwn.size())
                                            : line.function;
        logged.push_back(std::to_string(line.level) + " " +
                         logonmon::Utf8FromWide(std::wstring(function)) + ": " + line.text);
    }
    return logged;
}

std::vector<logonmon::SESSION_CONTEXT> RecordingProcessor::Sessions() {
    std::vector<logonmon::SESSION_CONTEXT> sessions;
    VisitSessions(
        [&sessions](logonmon::SESSION_CONTEXT& context) { sessions.push_back(Copy(context)); });
    return sessions;
}

}  // namespace plmx::testing
