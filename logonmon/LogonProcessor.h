// The logon state machine: routes decoded events to their handlers, keeps one
// context per logon session, records its timing points and decides when the
// logon is complete. Platform-neutral; the owner fills in the virtual hooks.
#pragma once

#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "logonmon/ProcessorServices.h"
#include "logonmon/SessionContext.h"
#include "logonmon/SessionIndex.h"
#include "trace/EtwTypes.h"
#include "trace/EventRecordData.h"

namespace logonmon {

struct SESSION_CONFIG {
    // How long after the shell started a logon may take before it counts as
    // timed out; 0: never.
    uint32_t sessionTimeoutMs = 0;
    // A logon is complete only once the remote agent attached.
    bool waitForAttach = false;
    // Events come from a live trace: the periodic timeout check runs.
    bool realTime = false;
    // Every event is also written to the log as text.
    bool logEveryEvent = false;
};

// Trace levels of the processor's log lines.
inline constexpr uint32_t kLevelError = 2;
inline constexpr uint32_t kLevelInfo = 4;
inline constexpr uint32_t kLevelVerbose = 5;

using EventContinuation = std::function<void(const std::shared_ptr<EventRecordData>&)>;

class LogonProcessor {
  public:
    explicit LogonProcessor(const SESSION_CONFIG& config = {},
                            const ProcessorServices& services = {});
    LogonProcessor(const LogonProcessor&) = delete;
    LogonProcessor& operator=(const LogonProcessor&) = delete;

    // The owner's hooks, in this order. Ticks of the periodic timer reach
    // OnTimer, so a derived class calls StopTimer first in its destructor.
    virtual ~LogonProcessor();
    // A logon began (the logon event was handled).
    virtual void OnLogonStart(SESSION_CONTEXT& session);
    // The logon is settled; called once per session, then it is dropped.
    virtual void OnLogonEnd(SESSION_CONTEXT& session);
    // Whether any session is open, while the periodic timer runs.
    virtual void EnableSampling(bool enable);
    virtual void LogSummary(SESSION_CONTEXT& session);
    virtual void LogExtendedSummary(SESSION_CONTEXT& session);
    // One log line: trace level (2, 4 or 5), the writing function's full
    // name, a printf format with Microsoft conventions ("%ws"), arguments.
    virtual void LogFormatted(uint32_t level, const wchar_t* function, const char* format, ...);
    // The periodic tick: the timeout check; once it leaves no session open,
    // sampling is switched off and the timer stops.
    virtual void OnTimer();

    // Set before events arrive.
    void Configure(const SESSION_CONFIG& config);

    // The one entry for events; exceptions of decoding and handlers leave it
    // with the lock released and the event dropped.
    void HandleEventRecord(const EVENT_RECORD* eventRecord);

    // Finds the record's session and calls `continuation` with it, with every
    // held-back event that the session now claims first; or holds the record
    // back until a later event shows which session it belongs to. The caller
    // holds the lock.
    void AsyncEstablishSessionContext(const std::shared_ptr<EventRecordData>& record,
                                      const EventContinuation& continuation);

    // Settles the sessions against the clock; `forced` settles every session
    // whose shell started (end of a trace file).
    void RunSessionTimeoutCheck(bool forced);

    // The completion and timeout rule for one session at time `now`; the
    // caller holds the lock.
    void ProcessSessionState(SESSION_CONTEXT& context, uint64_t now, bool forced);

    // A new session context in the active list; none without a session id or
    // when the logon event carries no user SID.
    std::shared_ptr<SESSION_CONTEXT> InitSession(uint32_t sessionId,
                                                 const EventRecordData& logonEvent);

    // Calls `visitor` for every open session, under the processor's lock.
    void VisitSessions(const std::function<void(SESSION_CONTEXT&)>& visitor);

    // Stops the periodic timer and waits for a tick in progress.
    void StopTimer();

  private:
    using HeldBackEvents = std::deque<std::shared_ptr<EventRecordData>>;

    // Steps after the session is known: route, log, settle.
    void ProcessEvent(const std::shared_ptr<EventRecordData>& record);
    void RouteEvent(EventRecordData& record);
    void LogEventAsString(EventRecordData& record);
    // Called with the lock held through `lock`, which it releases while it
    // destroys timers.
    void UpdateTimer(std::unique_lock<std::recursive_mutex>& lock);
    // Tells the owner when the answer changes.
    void SwitchSampling(bool enable);
    void DropSession(const std::shared_ptr<SESSION_CONTEXT>& context);

    std::shared_ptr<SESSION_CONTEXT> FindSessionContext(const EventRecordData& record) const;
    std::shared_ptr<SESSION_CONTEXT> NewestSession(
        uint64_t timestamp, const std::function<bool(const SESSION_CONTEXT&)>& matches) const;
    void HoldBack(HeldBackEvents& heldBack, const std::shared_ptr<EventRecordData>& record);
    // Hands every held-back event that `claimed` selects to `continuation`,
    // in order; returns the first exception one of them threw.
    std::exception_ptr ReplayHeldBack(HeldBackEvents& heldBack,
                                      const std::function<bool(const EventRecordData&)>& claimed,
                                      const std::shared_ptr<SESSION_CONTEXT>& context,
                                      const EventContinuation& continuation);

    // Winlogon.
    void RouteWinlogon(EventRecordData& record);
    void RecordWinlogonTimingPoint(EventRecordData& record, const std::wstring& notification,
                                   const std::wstring& subscriber);
    void Winlogon_CreateSession(EventRecordData& record);
    void Winlogon_Login_Started(EventRecordData& record);
    void Profiles_Finished(EventRecordData& record);
    void ResolveAccount(SESSION_CONTEXT& context);

    // Profile service, Group Policy, shell, session manager, remote agent.
    void Profiles_HiveLoaded(EventRecordData& record);
    void Profiles_SyncStarted(EventRecordData& record);
    void Profiles_SyncFinished(EventRecordData& record);
    void Profiles_LoadedInfo(EventRecordData& record);
    void GroupPolicy_CSEStarted(EventRecordData& record);
    void GroupPolicy_CSEFinished(EventRecordData& record);
    void GroupPolicy_UserPolicyFinished(EventRecordData& record);
    void GroupPolicy_MachinePolicyFinished(EventRecordData& record);
    void TS_LSM_Logon(EventRecordData& record);
    void Explorer_Initialized(EventRecordData& record);
    void Tessera_SessionAttached(EventRecordData& record);
    void Tessera_PLMXGeneric(EventRecordData& record);

    // Logon scripts.
    void Process_Started(EventRecordData& record);
    void Process_Exited(EventRecordData& record);

    // Recursive, like the critical section the owner's hooks expect: a hook
    // called under it may visit the sessions.
    mutable std::recursive_mutex mutex_;
    SESSION_CONFIG config_;
    const ProcessorServices services_;
    // In creation order.
    std::vector<std::shared_ptr<SESSION_CONTEXT>> activeSessions_;
    // The same sessions, for finding an event's session.
    SessionIndex sessionIndex_;
    // Profile service events by thread, Group Policy events by activity,
    // waiting for the session that claims them.
    HeldBackEvents heldBackByThread_;
    HeldBackEvents heldBackByActivity_;
    std::unique_ptr<PeriodicTimer> timer_;
    // Cancelled by its own tick, which cannot wait for itself; destroyed
    // later on another thread.
    std::unique_ptr<PeriodicTimer> cancelledTimer_;
    // What the owner was last told through EnableSampling.
    bool samplingEnabled_ = false;
};

}  // namespace logonmon
