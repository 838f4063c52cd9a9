#include "tools/LogonEvents.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "tests/support/EventBuilder.h"
#include "trace/Providers.h"

namespace plmx::samples {

namespace {

using namespace logonmon::etw;
using plmx::testing::EventBuilder;
using plmx::testing::PropertyDefinition;
namespace providers = logonmon::providers;

constexpr wchar_t kLocalSystem[] = L"S-1-5-18";
constexpr wchar_t kMediumIntegrity[] = L"S-1-16-8192";
constexpr uint8_t kLevelInformational = 4;
constexpr uint8_t kOpcodeInfo = 0;
constexpr uint64_t kTicksPerMs = 10'000;

// Manifest keywords of the events written here.
constexpr uint64_t kPerfInstrumentation = 0x10000;
constexpr uint64_t kPerfDiagnostics = 0x20000;
constexpr uint64_t kPerfTrackContext = 0x80000;
constexpr uint64_t kWinlogonNotify = 0x200000000000;
constexpr uint64_t kShell = 0x10000;
constexpr uint64_t kStartupPerf = 0x4000000;
constexpr uint64_t kProcessKeyword = 0x10;

// Tasks.
constexpr uint16_t kTaskShellCommandList = 9;
constexpr uint16_t kTaskNotifyExecute = 801;
constexpr uint16_t kTaskCallSubscriber = 811;
constexpr uint16_t kTaskProcessStart = 1;
constexpr uint16_t kTaskProcessStop = 2;
constexpr uint16_t kTaskInitializingExplorer = 9601;

// The remote agent's fixed payloads: session id, then UTF-16 fields.
constexpr size_t kAttachPayloadSize = 132;
constexpr size_t kGenericPayloadSize = 3092;
constexpr size_t kGenericTextOffset = 20;
constexpr size_t kGenericTextBytes = 1024;

struct Descriptor {
    const wchar_t* taskName;
    GUID provider;
    uint16_t id;
    uint8_t version;
    uint16_t task;
    uint8_t opcode;
    uint64_t keyword;
};

// Who wrote the event: process, thread, terminal session (TS_ID item) and
// the SID of the writing thread's token (SID item).
struct Writer {
    uint32_t pid;
    uint32_t tid;
    uint32_t session;
    std::wstring sid;
};

PropertyDefinition Number32(const wchar_t* name, uint32_t value) {
    return {name, kInTypeUInt32, 0, plmx::testing::UInt32Bytes(value), false};
}
PropertyDefinition Number64(const wchar_t* name, uint64_t value) {
    return {name, kInTypeUInt64, 0, plmx::testing::UInt64Bytes(value), false};
}
PropertyDefinition Boolean(const wchar_t* name, bool value) {
    return {name, kInTypeBoolean, 0, plmx::testing::UInt32Bytes(value ? 1 : 0), false};
}
PropertyDefinition Text(const wchar_t* name, const std::wstring& value) {
    return plmx::testing::StringProperty(name, value);
}
PropertyDefinition AnsiText(const wchar_t* name, const std::string& value) {
    std::vector<uint8_t> bytes(value.begin(), value.end());
    bytes.push_back(0);
    return {name, kInTypeAnsiString, 0, std::move(bytes), false};
}
PropertyDefinition FileTime(const wchar_t* name, uint64_t value) {
    return {name, kInTypeFileTime, 0, plmx::testing::UInt64Bytes(value), false};
}
PropertyDefinition Guid(const wchar_t* name, const GUID& value) {
    std::vector<uint8_t> bytes(sizeof(GUID));
    std::memcpy(bytes.data(), &value, sizeof(GUID));
    return {name, kInTypeGuid, 0, std::move(bytes), false};
}
PropertyDefinition SidValue(const wchar_t* name, const std::wstring& sid) {
    return {name, kInTypeSid, 0, plmx::testing::SidBytes(sid), false};
}

void Utf16Field(std::vector<uint8_t>& payload, size_t offset, size_t bytes,
                const std::wstring& text) {
    const std::vector<uint8_t> encoded = plmx::testing::Utf16Bytes(text);
    std::memcpy(payload.data() + offset, encoded.data(), std::min(bytes, encoded.size()));
}

void Emit(const LogonEvents::Sink& sink, const Descriptor& descriptor, uint64_t time,
          const Writer& writer, std::vector<PropertyDefinition> properties,
          std::optional<GUID> activity = std::nullopt,
          std::optional<std::vector<uint8_t>> payload = std::nullopt) {
    auto event = std::make_unique<EventBuilder>();
    EventBuilder& builder = *event;
    builder.Provider(descriptor.provider)
        .EventId(descriptor.id)
        .Version(descriptor.version)
        .Task(descriptor.task)
        .Opcode(descriptor.opcode)
        .Keyword(descriptor.keyword)
        .Level(kLevelInformational)
        .ProcessId(writer.pid)
        .ThreadId(writer.tid)
        .Timestamp(time)
        .UserSid(writer.sid)
        .SessionId(writer.session);
    if (descriptor.taskName != nullptr) {
        builder.TaskName(descriptor.taskName);
    }
    if (activity) {
        builder.ActivityId(*activity);
    }
    for (PropertyDefinition& property : properties) {
        builder.Property(std::move(property));
    }
    if (payload) {
        builder.Payload(std::move(*payload));
    }
    sink(std::move(event));
}

}  // namespace

LogonEvents::LogonEvents(Sink sink, MachineProcesses machine, LogonIdentity logon, uint64_t start)
    : sink_(std::move(sink)), machine_(machine), logon_(std::move(logon)), start_(start) {}

uint64_t LogonEvents::Time(uint32_t ms) const {
    return start_ + ms * kTicksPerMs;
}

// Winlogon writes as the system on its session's notification thread; the
// Login notification runs impersonating the user.
void LogonEvents::Notify(uint32_t ms, Notification notification, Phase phase) {
    const bool start = phase == Phase::kStart;
    const Descriptor descriptor{
        L"NotifyExecute",
        providers::kWinlogon,
        static_cast<uint16_t>(start ? 801 : 802),
        0,
        kTaskNotifyExecute,
        static_cast<uint8_t>(phase),
        kPerfInstrumentation | kWinlogonNotify | (start ? kPerfTrackContext : 0)};
    const std::wstring sid =
        notification == Notification::kLogin ? logon_.userSid : std::wstring(kLocalSystem);
    Emit(sink_, descriptor, Time(ms),
         {logon_.winlogonPid, logon_.winlogonPid + 4, logon_.sessionId, sid},
         {Number32(L"Event", static_cast<uint32_t>(notification))});
}

void LogonEvents::Subscriber(uint32_t ms, Notification notification, const std::wstring& subscriber,
                             Phase phase) {
    const Descriptor descriptor{L"CallSubscriber",
                                providers::kWinlogon,
                                static_cast<uint16_t>(phase == Phase::kStart ? 811 : 812),
                                0,
                                kTaskCallSubscriber,
                                static_cast<uint8_t>(phase),
                                kPerfInstrumentation};
    Emit(sink_, descriptor, Time(ms),
         {logon_.winlogonPid, logon_.winlogonPid + 4, logon_.sessionId, kLocalSystem},
         {Number32(L"Event", static_cast<uint32_t>(notification)),
          Text(L"SubscriberName", subscriber)});
}

void LogonEvents::ShellCommandsRun(uint32_t ms) {
    const Descriptor descriptor{L"ExecuteShellCommandList",
                                providers::kWinlogon,
                                10,
                                0,
                                kTaskShellCommandList,
                                static_cast<uint8_t>(Phase::kStop),
                                kPerfInstrumentation | kPerfDiagnostics};
    Emit(sink_, descriptor, Time(ms),
         {logon_.winlogonPid, logon_.winlogonPid + 4, logon_.sessionId, logon_.userSid}, {});
}

void LogonEvents::SessionManagerLogon(uint32_t ms) {
    const Descriptor descriptor{nullptr, providers::kLocalSessionManager, 21, 0, 0, kOpcodeInfo, 0};
    Emit(sink_, descriptor, Time(ms),
         {machine_.sessionManager, machine_.sessionManager + 8, 0, kLocalSystem},
         {Text(L"User", logon_.account), Number32(L"SessionID", logon_.sessionId),
          Text(L"Address", logon_.clientAddress)});
}

void LogonEvents::ProfileLogonNotice(uint32_t ms) {
    const Descriptor descriptor{nullptr, providers::kUserProfiles, 1, 0, 0, kOpcodeInfo, 0};
    Emit(sink_, descriptor, Time(ms),
         {machine_.profileService, machine_.profileService + logon_.sessionId * 8, 0, kLocalSystem},
         {Number32(L"Session", logon_.sessionId)});
}

// The profile service handles a logon on one thread, impersonating the user.
void LogonEvents::HiveLoaded(uint32_t ms, const std::wstring& file, const std::wstring& key) {
    const Descriptor descriptor{nullptr, providers::kUserProfiles, 5, 0, 0, kOpcodeInfo, 0};
    Emit(sink_, descriptor, Time(ms),
         {machine_.profileService, machine_.profileService + logon_.sessionId * 8, 0,
          logon_.userSid},
         {Text(L"File", file), Text(L"Key", key)});
}

void LogonEvents::ProfileSync(uint32_t ms, Phase phase) {
    const std::wstring source =
        L"\\\\fs01\\profiles$\\" + logon_.account.substr(logon_.account.find(L'\\') + 1) + L".V6";
    std::vector<PropertyDefinition> properties{Text(L"Source", source),
                                               Text(L"Target", logon_.profilePath)};
    if (phase == Phase::kStop) {
        properties.push_back(Text(L"Result", L"0"));
    }
    const Descriptor descriptor{nullptr,
                                providers::kUserProfiles,
                                static_cast<uint16_t>(phase == Phase::kStart ? 6 : 7),
                                0,
                                0,
                                kOpcodeInfo,
                                0};
    Emit(sink_, descriptor, Time(ms),
         {machine_.profileService, machine_.profileService + logon_.sessionId * 8, 0,
          logon_.userSid},
         std::move(properties));
}

void LogonEvents::ProfileInfo(uint32_t ms) {
    const Descriptor descriptor{nullptr, providers::kUserProfiles, 67, 0, 0, kOpcodeInfo, 0};
    Emit(sink_, descriptor, Time(ms),
         {machine_.profileService, machine_.profileService + logon_.sessionId * 8, 0,
          logon_.userSid},
         {Text(L"LogonType", L"Interactive"), Text(L"LocalPath", logon_.profilePath),
          Text(L"ProfileType", L"Roaming")});
}

// User policy runs in the Group Policy service impersonating the user, under
// one activity id for the whole pass.
void LogonEvents::ExtensionStarted(uint32_t ms, const Extension& extension, bool async,
                                   bool listChanged) {
    const Descriptor descriptor{
        nullptr, providers::kGroupPolicy, 4016, 0, 0, static_cast<uint8_t>(Phase::kStart), 0};
    Emit(sink_, descriptor, Time(ms),
         {machine_.policyService, machine_.policyService + 12, 0, logon_.userSid},
         {Guid(L"CSEExtensionId", plmx::testing::GuidFromText(extension.id)),
          Text(L"CSEExtensionName", extension.name), Boolean(L"IsExtensionAsyncProcessing", async),
          Boolean(L"IsGPOListChanged", listChanged),
          Text(L"GPOListStatusString",
               listChanged ? L"Changes were detected." : L"No changes were detected."),
          Text(L"DescriptionString", L"Logon Policy"),
          Text(L"ApplicableGPOList", L"Default Domain Policy, VDI Users")},
         logon_.policyActivity);
}

void LogonEvents::ExtensionFinished(uint32_t ms, const Extension& extension, uint32_t elapsedMs,
                                    uint32_t errorCode) {
    const Descriptor descriptor{
        nullptr, providers::kGroupPolicy, 5016, 0, 0, static_cast<uint8_t>(Phase::kStop), 0};
    Emit(sink_, descriptor, Time(ms),
         {machine_.policyService, machine_.policyService + 12, 0, logon_.userSid},
         {Number32(L"CSEElaspedTimeInMilliSeconds", elapsedMs), Number32(L"ErrorCode", errorCode),
          Text(L"CSEExtensionName", extension.name),
          Guid(L"CSEExtensionId", plmx::testing::GuidFromText(extension.id))},
         logon_.policyActivity);
}

// Version 1 of 8001 (user) and 8004 (machine); machine policy runs as the
// system and belongs to no session.
void LogonEvents::PolicyFinished(uint32_t ms, uint32_t elapsedSeconds, bool machine) {
    const Descriptor descriptor{nullptr,
                                providers::kGroupPolicy,
                                static_cast<uint16_t>(machine ? 8004 : 8001),
                                1,
                                0,
                                static_cast<uint8_t>(Phase::kStop),
                                0};
    const std::wstring principal = machine ? L"CONTOSO\\VDI-0042$" : logon_.account;
    Emit(sink_, descriptor, Time(ms),
         {machine_.policyService, machine_.policyService + (machine ? 16 : 12), 0,
          machine ? std::wstring(kLocalSystem) : logon_.userSid},
         {Number32(L"PolicyElaspedTimeInSeconds", elapsedSeconds), Number32(L"ErrorCode", 0),
          Text(L"PrincipalSamName", principal), Number32(L"IsMachine", machine ? 1 : 0),
          Boolean(L"IsConnectivityFailure", false)},
         machine ? std::nullopt : std::optional<GUID>(logon_.policyActivity));
}

// Version 3 of ProcessStart, written by the parent in the user's session.
void LogonEvents::ProcessStarted(uint32_t ms, uint32_t pid, uint32_t parentPid,
                                 const std::wstring& image) {
    const Descriptor descriptor{L"ProcessStart",
                                providers::kKernelProcess,
                                1,
                                3,
                                kTaskProcessStart,
                                static_cast<uint8_t>(Phase::kStart),
                                kProcessKeyword};
    Emit(sink_, descriptor, Time(ms), {parentPid, parentPid + 4, logon_.sessionId, logon_.userSid},
         {Number32(L"ProcessID", pid), Number64(L"ProcessSequenceNumber", 0x1a00 + pid),
          FileTime(L"CreateTime", Time(ms)), Number32(L"ParentProcessID", parentPid),
          Number64(L"ParentProcessSequenceNumber", 0x1a00 + parentPid),
          Number32(L"SessionID", logon_.sessionId), Number32(L"Flags", 0),
          Number32(L"ProcessTokenElevationType", 3), Number32(L"ProcessTokenIsElevated", 0),
          SidValue(L"MandatoryLabel", kMediumIntegrity), Text(L"ImageName", image),
          Number32(L"ImageChecksum", 0x2c1f4), Number32(L"TimeDateStamp", 0x5f8e2a11),
          Text(L"PackageFullName", L""), Text(L"PackageRelativeAppId", L"")});
}

// Version 2 of ProcessStop, written by the exiting process.
void LogonEvents::ProcessExited(uint32_t ms, uint32_t pid, uint32_t startedMs,
                                const std::string& image) {
    const Descriptor descriptor{L"ProcessStop",
                                providers::kKernelProcess,
                                2,
                                2,
                                kTaskProcessStop,
                                static_cast<uint8_t>(Phase::kStop),
                                kProcessKeyword};
    Emit(sink_, descriptor, Time(ms), {pid, pid + 4, logon_.sessionId, logon_.userSid},
         {Number32(L"ProcessID", pid), Number64(L"ProcessSequenceNumber", 0x1a00 + pid),
          FileTime(L"CreateTime", Time(startedMs)), FileTime(L"ExitTime", Time(ms)),
          Number32(L"ExitCode", 0), Number32(L"TokenElevationType", 3),
          Number32(L"HandleCount", 112), Number64(L"CommitCharge", 2215936),
          Number64(L"CommitPeak", 2822144), Number64(L"CPUCycleCount", 48811204),
          Number32(L"ReadOperationCount", 31), Number32(L"WriteOperationCount", 2),
          Number32(L"ReadTransferKiloBytes", 412), Number32(L"WriteTransferKiloBytes", 1),
          Number32(L"HardFaultCount", 7), AnsiText(L"ImageName", image)});
}

void LogonEvents::ShellInitialized(uint32_t ms) {
    const Descriptor descriptor{L"Explorer_InitializingExplorer",
                                providers::kShellCore,
                                9602,
                                0,
                                kTaskInitializingExplorer,
                                static_cast<uint8_t>(Phase::kStop),
                                kShell | kStartupPerf};
    Emit(sink_, descriptor, Time(ms),
         {logon_.explorerPid, logon_.explorerPid + 4, logon_.sessionId, logon_.userSid}, {});
}

void LogonEvents::AgentAttached(uint32_t ms, const std::wstring& sessionType) {
    std::vector<uint8_t> payload(kAttachPayloadSize, 0);
    std::memcpy(payload.data(), &logon_.sessionId, sizeof(uint32_t));
    Utf16Field(payload, sizeof(uint32_t), kAttachPayloadSize - sizeof(uint32_t), sessionType);
    Emit(sink_, Descriptor{nullptr, providers::kRemoteAgent, 11, 0, 0, kOpcodeInfo, 0}, Time(ms),
         {machine_.remoteAgent, machine_.remoteAgent + 4, 0, kLocalSystem}, {}, std::nullopt,
         std::move(payload));
}

void LogonEvents::AgentEvent(uint32_t ms, const std::wstring& product,
                             const std::wstring& component, const std::wstring& event) {
    std::vector<uint8_t> payload(kGenericPayloadSize, 0);
    std::memcpy(payload.data(), &logon_.sessionId, sizeof(uint32_t));
    size_t offset = kGenericTextOffset;
    for (const std::wstring* text : {&product, &component, &event}) {
        Utf16Field(payload, offset, kGenericTextBytes, *text);
        offset += kGenericTextBytes;
    }
    Emit(sink_, Descriptor{nullptr, providers::kRemoteAgent, 16, 0, 0, kOpcodeInfo, 0}, Time(ms),
         {machine_.remoteAgent, machine_.remoteAgent + 4, 0, kLocalSystem}, {}, std::nullopt,
         std::move(payload));
}

}  // namespace plmx::samples
