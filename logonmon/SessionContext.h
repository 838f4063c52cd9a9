// One followed logon session.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "logonmon/NamedValues.h"
#include "logonmon/TimingPoints.h"
#include "trace/EventRecordData.h"
#include "trace/Sid.h"

struct SessionLog;

namespace logonmon {

// A named duration: whole milliseconds, or seconds.
using NamedDuration = std::variant<int32_t, float>;

// A logon script host process (GPSCRIPT.EXE) of the session.
struct ScriptHost {
    uint32_t parentProcessId = 0;
    // A PowerShell script runs under it.
    bool powerShell = false;
};

struct SESSION_CONTEXT {
    uint32_t sessionId = 0;
    std::optional<Sid> userSid;
    std::wstring userSidText;
    // Resolved from the SID on first need.
    std::wstring userName;
    std::wstring userDomain;
    // The remote agent attached an application session, which has no shell.
    bool applicationSession = false;
    bool logonComplete = false;
    // The latest event routed here, as the timeout check's log lines show it.
    std::optional<EventLineFields> lastEvent;
    TimingPoints timingPoints;
    // 0xFFFFFFFF once Winlogon's Profiles subscriber finished the logon.
    uint32_t profileFinished = 0;
    std::wstring localProfilePath;
    std::wstring profileSyncSource;
    std::wstring profileSyncTarget;
    // The remote client, as the session manager reports it.
    std::wstring clientUser;
    std::wstring clientAddress;

    // Group Policy client-side extensions.
    int32_t asyncPolicies = 0;
    int32_t syncPolicies = 0;
    int32_t changedPolicies = 0;
    int32_t failedPolicies = 0;
    // Extension name (interned) to milliseconds spent in it.
    NamedValues<uint32_t> cseDurations;
    // Policy and logon script times by name.
    NamedValues<NamedDuration> namedDurations;
    // By process id.
    std::map<uint32_t, ScriptHost> scriptHosts;

    // Timestamp of the event that created the context; tells apart two
    // logons that reused one session id.
    uint64_t createdAt = 0;
    // The profile service thread and the Group Policy activity that work for
    // this session, learnt from their first event that found the session.
    uint32_t profileThreadId = 0;
    GUID policyActivityId{};

    // The session's own log; created empty by the log writer on first need.
    std::shared_ptr<::SessionLog> sessionLog;
};

// Binds an event to its session, or to none; the event's log prefix then
// shows the session's id.
inline void LinkToSession(EventRecordData& record, std::shared_ptr<SESSION_CONTEXT> context) {
    record.sessionIdOverride = context ? &context->sessionId : nullptr;
    record.sessionContext = std::move(context);
}

}  // namespace logonmon
