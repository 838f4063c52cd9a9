// Scripts the events of one logon as the logon providers write them: header
// fields, extended data (terminal session, user SID) and payloads laid out as
// the providers' manifests describe (Windows 10 event versions), so that a
// trace made of them decodes like one recorded on a desktop. Each event also
// names its task, which the logon processor reads from the schema.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tests/support/EventBuilder.h"
#include "trace/EtwTypes.h"

namespace plmx::samples {

// The machine's service processes that write logon events.
struct MachineProcesses {
    uint32_t sessionManager = 0x3a8;  // LSM's svchost
    uint32_t profileService = 0x5c4;
    uint32_t policyService = 0x4f0;
    uint32_t remoteAgent = 0x1b70;
};

struct LogonIdentity {
    uint32_t sessionId = 2;
    std::wstring userSid;
    std::wstring account;  // DOMAIN\user
    std::wstring profilePath;
    std::wstring clientAddress;
    uint32_t winlogonPid = 0;
    uint32_t userinitPid = 0;
    uint32_t explorerPid = 0;
    GUID policyActivity{};
};

// Winlogon's notification numbers, the values of its "Event" property.
enum class Notification : uint32_t {
    kCreateSession = 0,
    kTerminateSession = 1,
    kLogin = 2,
    kLogoff = 3,
    kStartShell = 12,
    kEndShell = 13,
};

enum class Phase : uint8_t { kStart = 1, kStop = 2 };

struct Extension {
    const wchar_t* id;  // braced GUID
    const wchar_t* name;
};

class LogonEvents {
  public:
    // Receives each event as a builder, whose record also carries the
    // event's schema for the test decoder.
    using Sink = std::function<void(std::unique_ptr<plmx::testing::EventBuilder>)>;

    // Times are milliseconds after `start` (a FILETIME).
    LogonEvents(Sink sink, MachineProcesses machine, LogonIdentity logon, uint64_t start);

    void Notify(uint32_t ms, Notification notification, Phase phase);
    void Subscriber(uint32_t ms, Notification notification, const std::wstring& subscriber,
                    Phase phase);
    void ShellCommandsRun(uint32_t ms);
    void SessionManagerLogon(uint32_t ms);
    void ProfileLogonNotice(uint32_t ms);
    void HiveLoaded(uint32_t ms, const std::wstring& file, const std::wstring& key);
    void ProfileSync(uint32_t ms, Phase phase);
    void ProfileInfo(uint32_t ms);
    void ExtensionStarted(uint32_t ms, const Extension& extension, bool async, bool listChanged);
    void ExtensionFinished(uint32_t ms, const Extension& extension, uint32_t elapsedMs,
                           uint32_t errorCode);
    void PolicyFinished(uint32_t ms, uint32_t elapsedSeconds, bool machine);
    void ProcessStarted(uint32_t ms, uint32_t pid, uint32_t parentPid, const std::wstring& image);
    void ProcessExited(uint32_t ms, uint32_t pid, uint32_t startedMs, const std::string& image);
    void ShellInitialized(uint32_t ms);
    void AgentAttached(uint32_t ms, const std::wstring& sessionType);
    void AgentEvent(uint32_t ms, const std::wstring& product, const std::wstring& component,
                    const std::wstring& event);

  private:
    uint64_t Time(uint32_t ms) const;

    Sink sink_;
    MachineProcesses machine_;
    LogonIdentity logon_;
    uint64_t start_;
};

}  // namespace plmx::samples
