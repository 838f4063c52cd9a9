#include "logonmon/LogonProcessor.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <optional>

#include "logonmon/CurrentRecord.h"
#include "logonmon/EventFields.h"
#include "logonmon/ProcessorTexts.h"
#include "trace/Providers.h"
#include "trace/TextForms.h"

namespace logonmon {

namespace {

constexpr uint64_t kTicksPerMillisecond = 10'000;
constexpr uint32_t kLongestTimerPeriodMs = 5000;

// Held-back events nobody claimed within this much event time, or beyond
// this many per list, are dropped, oldest first.
constexpr uint64_t kHeldBackMaxAge = 10ull * 60 * 1000 * kTicksPerMillisecond;
constexpr size_t kHeldBackMaxCount = 1000;

constexpr wchar_t kLocalSystemSid[] = L"S-1-5-18";

constexpr uint16_t kMachinePolicyFinished = 8004;

constexpr const wchar_t* kSessionEndingPoints[] = {
    L"WL_NotifyExecute_Logoff_Start",
    L"WL_NotifyExecute_EndShell_Start",
    L"WL_NotifyExecute_TerminateSession_Start",
};

bool HasPoint(const SESSION_CONTEXT& context, const wchar_t* name) {
    return context.timingPoints.count(name) != 0;
}

// The profile service and its companion provider write on threads that serve
// one session at a time; event 1 does not belong to a logon.
bool IsProfileServiceEvent(const EventRecordData& record) {
    return (GuidEquals(record.providerId, providers::kUserProfiles) ||
            GuidEquals(record.providerId, providers::kUserProfilesThreads)) &&
           record.eventId != 1;
}

bool IsPolicyActivityEvent(const EventRecordData& record) {
    return GuidEquals(record.providerId, providers::kGroupPolicy) && !IsZeroGuid(record.activityId);
}

}  // namespace

LogonProcessor::LogonProcessor(const SESSION_CONFIG& config, const ProcessorServices& services)
    : config_(config), services_(services) {}

LogonProcessor::~LogonProcessor() {
    StopTimer();
}

void LogonProcessor::OnLogonStart(SESSION_CONTEXT&) {}
void LogonProcessor::OnLogonEnd(SESSION_CONTEXT&) {}
void LogonProcessor::EnableSampling(bool) {}

void LogonProcessor::LogExtendedSummary(SESSION_CONTEXT&) {}
void LogonProcessor::LogFormatted(uint32_t, const wchar_t*, const char*, ...) {}

void LogonProcessor::OnTimer() {
    RunSessionTimeoutCheck(false);
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (activeSessions_.empty() && timer_) {
        timer_->Cancel();
        cancelledTimer_ = std::move(timer_);
        SwitchSampling(false);
    }
}

void LogonProcessor::Configure(const SESSION_CONFIG& config) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    config_ = config;
}

void LogonProcessor::HandleEventRecord(const EVENT_RECORD* eventRecord) {
    auto record = MakeEventRecordData(*eventRecord);
    ScopedCurrentRecord current(record.get());
    std::unique_lock<std::recursive_mutex> lock(mutex_);
    AsyncEstablishSessionContext(
        record, [this](const std::shared_ptr<EventRecordData>& ready) { ProcessEvent(ready); });
    UpdateTimer(lock);
}

void LogonProcessor::AsyncEstablishSessionContext(const std::shared_ptr<EventRecordData>& record,
                                                  const EventContinuation& continuation) {
    // The record's link keeps the session alive while the event is handled.
    LinkToSession(*record, FindSessionContext(*record));
    const std::shared_ptr<SESSION_CONTEXT>& context = record->sessionContext;
    std::exception_ptr replayFailure;

    if (IsProfileServiceEvent(*record)) {
        const uint32_t threadId = record->threadId;
        if (context) {
            if (context->profileThreadId != threadId) {
                context->profileThreadId = threadId;
                replayFailure = ReplayHeldBack(
                    heldBackByThread_,
                    [threadId](const EventRecordData& held) { return held.threadId == threadId; },
                    context, continuation);
            }
        } else {
            LinkToSession(*record,
                          NewestSession(record->timestamp, [threadId](const SESSION_CONTEXT& c) {
                              return c.profileThreadId != 0 && c.profileThreadId == threadId;
                          }));
            if (!context) {
                HoldBack(heldBackByThread_, record);
                return;
            }
        }
    } else if (IsPolicyActivityEvent(*record)) {
        const GUID activityId = record->activityId;
        if (context) {
            if (IsZeroGuid(context->policyActivityId)) {
                context->policyActivityId = activityId;
                replayFailure = ReplayHeldBack(
                    heldBackByActivity_,
                    [&activityId](const EventRecordData& held) {
                        return GuidEquals(held.activityId, activityId);
                    },
                    context, continuation);
            }
        } else {
            LinkToSession(*record,
                          NewestSession(record->timestamp, [&activityId](const SESSION_CONTEXT& c) {
                              return GuidEquals(c.policyActivityId, activityId);
                          }));
            // Machine policy runs under an activity of its own that no logon
            // claims; its handler serves every open session at once.
            if (!context && record->eventId != kMachinePolicyFinished) {
                HoldBack(heldBackByActivity_, record);
                return;
            }
        }
    }
    continuation(record);
    if (replayFailure) {
        std::rethrow_exception(replayFailure);
    }
}

std::shared_ptr<SESSION_CONTEXT> LogonProcessor::FindSessionContext(
    const EventRecordData& record) const {
    static const Sid localSystem = *Sid::FromString(kLocalSystemSid);
    std::shared_ptr<SESSION_CONTEXT> context;
    const uint32_t sessionId = EventSessionId(record);
    if (sessionId != kNoSessionId) {
        context = sessionIndex_.BySessionId(sessionId, record.timestamp);
    }
    if (!context && record.userSid && !(*record.userSid == localSystem)) {
        context = sessionIndex_.BySid(*record.userSid, record.timestamp);
    }
    return context;
}

// Windows reuses session ids: an event belongs to the newest matching session
// that already existed when the event happened.
std::shared_ptr<SESSION_CONTEXT> LogonProcessor::NewestSession(
    uint64_t timestamp, const std::function<bool(const SESSION_CONTEXT&)>& matches) const {
    std::shared_ptr<SESSION_CONTEXT> newest;
    for (const auto& context : activeSessions_) {
        if (context->createdAt <= timestamp && matches(*context) &&
            (!newest || context->createdAt >= newest->createdAt)) {
            newest = context;
        }
    }
    return newest;
}

void LogonProcessor::HoldBack(HeldBackEvents& heldBack,
                              const std::shared_ptr<EventRecordData>& record) {
    const uint64_t now = record->timestamp;
    heldBack.erase(std::remove_if(heldBack.begin(), heldBack.end(),
                                  [now](const std::shared_ptr<EventRecordData>& held) {
                                      return now > kHeldBackMaxAge &&
                                             held->timestamp < now - kHeldBackMaxAge;
                                  }),
                   heldBack.end());
    heldBack.push_back(record);
    while (heldBack.size() > kHeldBackMaxCount) {
        heldBack.pop_front();
    }
}

std::exception_ptr LogonProcessor::ReplayHeldBack(
    HeldBackEvents& heldBack, const std::function<bool(const EventRecordData&)>& claimed,
    const std::shared_ptr<SESSION_CONTEXT>& context, const EventContinuation& continuation) {
    const auto firstClaimed = std::stable_partition(
        heldBack.begin(), heldBack.end(),
        [&claimed](const std::shared_ptr<EventRecordData>& held) { return !claimed(*held); });
    const std::vector<std::shared_ptr<EventRecordData>> replay(
        std::make_move_iterator(firstClaimed), std::make_move_iterator(heldBack.end()));
    heldBack.erase(firstClaimed, heldBack.end());
    // One failing event must not cost the others theirs: the first failure is
    // reported once the whole batch and the claiming event are handled.
    std::exception_ptr firstFailure;
    for (const auto& held : replay) {
        LinkToSession(*held, context);
        ScopedCurrentRecord current(held.get());
        try {
            continuation(held);
        } catch (...) {
            if (!firstFailure) {
                firstFailure = std::current_exception();
            }
        }
    }
    return firstFailure;
}

void LogonProcessor::ProcessEvent(const std::shared_ptr<EventRecordData>& record) {
    // A session that an earlier held-back event settled takes no more events.
    if (record->sessionContext && record->sessionContext->logonComplete) {
        LinkToSession(*record, nullptr);
    }
    RouteEvent(*record);
    if (config_.logEveryEvent) {
        LogEventAsString(*record);
    }
    // The record's link keeps the session alive until it is dropped here.
    const std::shared_ptr<SESSION_CONTEXT>& context = record->sessionContext;
    if (!context) {
        return;
    }
    ProcessSessionState(*context, record->timestamp, false);
    if (context->logonComplete) {
        DropSession(context);
        LinkToSession(*record, nullptr);
    } else {
        context->lastEvent = record->LineFields();
    }
}

void LogonProcessor::RouteEvent(EventRecordData& record) {
    struct Route {
        const GUID& provider;
        uint16_t eventId;
        void (LogonProcessor::*handler)(EventRecordData&);
    };
    static const Route kRoutes[] = {
        {providers::kUserProfiles, 5, &LogonProcessor::Profiles_HiveLoaded},
        {providers::kUserProfiles, 6, &LogonProcessor::Profiles_SyncStarted},
        {providers::kUserProfiles, 7, &LogonProcessor::Profiles_SyncFinished},
        {providers::kUserProfiles, 67, &LogonProcessor::Profiles_LoadedInfo},
        {providers::kGroupPolicy, 4016, &LogonProcessor::GroupPolicy_CSEStarted},
        {providers::kGroupPolicy, 5016, &LogonProcessor::GroupPolicy_CSEFinished},
        {providers::kGroupPolicy, 8001, &LogonProcessor::GroupPolicy_UserPolicyFinished},
        {providers::kGroupPolicy, kMachinePolicyFinished,
         &LogonProcessor::GroupPolicy_MachinePolicyFinished},
        {providers::kKernelProcess, 1, &LogonProcessor::Process_Started},
        {providers::kKernelProcess, 2, &LogonProcessor::Process_Exited},
        {providers::kLocalSessionManager, 21, &LogonProcessor::TS_LSM_Logon},
        {providers::kRemoteAgent, 11, &LogonProcessor::Tessera_SessionAttached},
        {providers::kRemoteAgent, 16, &LogonProcessor::Tessera_PLMXGeneric},
    };
    constexpr uint8_t kOpcodeStop = 2;

    if (GuidEquals(record.providerId, providers::kWinlogon)) {
        RouteWinlogon(record);
        return;
    }
    if (GuidEquals(record.providerId, providers::kShellCore)) {
        if (record.eventId == 9602 && record.opcode == kOpcodeStop) {
            Explorer_Initialized(record);
        }
        return;
    }
    for (const Route& route : kRoutes) {
        if (route.eventId == record.eventId && GuidEquals(route.provider, record.providerId)) {
            (this->*route.handler)(record);
            return;
        }
    }
}

void LogonProcessor::LogEventAsString(EventRecordData& record) {
    // Kept per thread: every event is written this way.
    thread_local std::wstring text;
    record.AssignMessageText(text);
    LogFormatted(kLevelVerbose, L"logonmon::LogonProcessor::LogEventAsString", "%ws", text.c_str());
}

void LogonProcessor::UpdateTimer(std::unique_lock<std::recursive_mutex>& lock) {
    // Both destroyed with the lock released: stopping waits for a tick in
    // progress, which takes the lock.
    std::unique_ptr<PeriodicTimer> cancelled = std::move(cancelledTimer_);
    std::unique_ptr<PeriodicTimer> stopped;
    if (config_.realTime && !activeSessions_.empty()) {
        if (!timer_) {
            // With no timeout the tick still paces the sampling.
            const uint32_t period = config_.sessionTimeoutMs == 0
                                        ? kLongestTimerPeriodMs
                                        : std::min(config_.sessionTimeoutMs, kLongestTimerPeriodMs);
            timer_ = services_.timers->StartPeriodic(period, [this] { OnTimer(); });
        }
        SwitchSampling(true);
    } else if (config_.realTime) {
        stopped = std::move(timer_);
    }
    lock.unlock();
    cancelled.reset();
    if (!stopped) {
        return;
    }
    stopped.reset();
    lock.lock();
    // Another event may have started a new timer meanwhile.
    if (!timer_) {
        SwitchSampling(false);
    }
}

void LogonProcessor::SwitchSampling(bool enable) {
    if (samplingEnabled_ != enable) {
        samplingEnabled_ = enable;
        EnableSampling(enable);
    }
}

void LogonProcessor::StopTimer() {
    std::unique_ptr<PeriodicTimer> stopped;
    std::unique_ptr<PeriodicTimer> cancelled;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        stopped = std::move(timer_);
        cancelled = std::move(cancelledTimer_);
    }
}

void LogonProcessor::RunSessionTimeoutCheck(bool forced) {
    const uint64_t now = services_.clock->NowFileTime();
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    const auto sessions = activeSessions_;
    for (const auto& context : sessions) {
        // Lines written meanwhile go to the session's log with its last event.
        std::optional<EventRecordData> lastEvent;
        if (context->lastEvent) {
            LinkToSession(lastEvent.emplace(*context->lastEvent), context);
        }
        ScopedCurrentRecord current(lastEvent ? &*lastEvent : nullptr);
        ProcessSessionState(*context, now, forced);
        if (context->logonComplete) {
            DropSession(context);
        }
    }
}

void LogonProcessor::ProcessSessionState(SESSION_CONTEXT& context, uint64_t now, bool forced) {
    static constexpr wchar_t kFunction[] = L"logonmon::LogonProcessor::ProcessSessionState";
    const auto shellStarted = context.timingPoints.find(texts::kShellStartedPoint);
    if (shellStarted == context.timingPoints.end()) {
        return;
    }
    const bool ending =
        std::any_of(std::begin(kSessionEndingPoints), std::end(kSessionEndingPoints),
                    [&context](const wchar_t* name) { return HasPoint(context, name); });
    if (ending) {
        LogFormatted(kLevelInfo, kFunction, "Session is ending...");
    }
    const bool attached = HasPoint(context, texts::kAgentAttachedPoint);
    const bool complete = config_.waitForAttach
                              ? attached && (context.applicationSession ||
                                             HasPoint(context, texts::kShellInitializedPoint))
                              : HasPoint(context, texts::kShellInitializedPoint);
    context.logonComplete = complete;

    if (!complete && !ending && !forced) {
        if (config_.sessionTimeoutMs == 0) {
            return;
        }
        const uint64_t deadline =
            shellStarted->second + uint64_t{config_.sessionTimeoutMs} * kTicksPerMillisecond;
        if (deadline >= now) {
            return;
        }
        LogFormatted(kLevelError, kFunction,
                     "Timed out waiting for %ws event.  Shell started at %ws.  Timeout %ws.  "
                     "sessionId=%d",
                     attached ? L"ShellInitialized" : L"Tessera Session Attached",
                     TimestampText(shellStarted->second, true).c_str(),
                     TimestampText(deadline, true).c_str(), context.sessionId);
    }
    context.logonComplete = true;
    OnLogonEnd(context);
}

std::shared_ptr<SESSION_CONTEXT> LogonProcessor::InitSession(uint32_t sessionId,
                                                             const EventRecordData& logonEvent) {
    if (sessionId == kNoSessionId || !logonEvent.userSid) {
        return nullptr;
    }
    auto context = std::make_shared<SESSION_CONTEXT>();
    context->sessionId = sessionId;
    context->userSid = logonEvent.userSid;
    context->userSidText = logonEvent.userSid->ToString();
    context->createdAt = logonEvent.timestamp;
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    activeSessions_.push_back(context);
    sessionIndex_.Add(context);
    return context;
}

void LogonProcessor::DropSession(const std::shared_ptr<SESSION_CONTEXT>& context) {
    activeSessions_.erase(std::remove(activeSessions_.begin(), activeSessions_.end(), context),
                          activeSessions_.end());
    sessionIndex_.Remove(*context);
}

void LogonProcessor::VisitSessions(const std::function<void(SESSION_CONTEXT&)>& visitor) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    for (const auto& context : activeSessions_) {
        visitor(*context);
    }
}

}  // namespace logonmon
