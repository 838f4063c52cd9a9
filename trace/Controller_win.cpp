#include "trace/Controller.h"

#include <evntprov.h>

#include <algorithm>
#include <cstring>

#include "trace/DebugOutput.h"
#include "trace/EtwControlApi.h"
#include "trace/ProviderLists.h"
#include "trace/SessionProperties.h"
#include "trace/TextForms.h"

namespace logonmon {
namespace {

// EVENT_FILTER_TYPE_EVENT_ID and the head of EVENT_FILTER_EVENT_ID, missing
// from older SDK headers; the event ids follow the head.
constexpr ULONG kEventFilterTypeEventId = 0x80000200;
struct EventIdFilterHead {
    BOOLEAN filterIn;
    UCHAR reserved;
    USHORT count;
};
static_assert(sizeof(EventIdFilterHead) == 2 * sizeof(USHORT));

// An EVENT_FILTER_EVENT_ID that lets exactly `ids` through, in 16-bit words.
std::vector<USHORT> EventIdFilter(const std::vector<uint16_t>& ids) {
    constexpr size_t kHeadWords = sizeof(EventIdFilterHead) / sizeof(USHORT);
    std::vector<USHORT> filter(kHeadWords + ids.size());
    const EventIdFilterHead head{TRUE, 0, static_cast<USHORT>(ids.size())};
    std::memcpy(filter.data(), &head, sizeof(head));
    std::copy(ids.begin(), ids.end(), filter.begin() + kHeadWords);
    return filter;
}

// The controller handle StartTraceW gives, closed when the owner goes.
class SessionHandle {
  public:
    explicit SessionHandle(TRACEHANDLE handle) : handle_(handle) {}
    ~SessionHandle() { EtwControl().CloseTrace(handle_); }
    SessionHandle(const SessionHandle&) = delete;
    SessionHandle& operator=(const SessionHandle&) = delete;

    TRACEHANDLE Get() const { return handle_; }

  private:
    TRACEHANDLE handle_;
};

// An empty id list means every event, so it wins over any filter.
void MergeEventIds(std::vector<uint16_t>& ids, const std::vector<uint16_t>& added) {
    if (ids.empty()) {
        return;
    }
    if (added.empty()) {
        ids.clear();
        return;
    }
    for (uint16_t id : added) {
        if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
            ids.push_back(id);
        }
    }
}

}  // namespace

Controller::Controller(std::wstring sessionName, std::vector<TraceProvider> providers)
    : sessionName_(std::move(sessionName)),
      logFileMode_(EVENT_TRACE_REAL_TIME_MODE),
      providers_(std::move(providers)) {}

Controller Controller::Timing() {
    return Controller(kTimingSessionName, TimingProviders());
}

Controller Controller::Diagnostic() {
    return Controller(kDiagnosticSessionName, {});
}

Controller Controller::DiagnosticFile(const std::wstring& path) {
    Controller session = Diagnostic();
    session.SwitchToFile(path);
    session.AddTimingProviders();
    session.AddDiagnosticProviders();
    session.AddProcessProviders();
    return session;
}

void Controller::SwitchToFile(const std::wstring& path) {
    sessionName_ = kFileSessionName;
    logFileMode_ &= ~static_cast<uint32_t>(EVENT_TRACE_REAL_TIME_MODE);
    if (!path.empty()) {
        logFileName_ = path;
    }
}

void Controller::AddProviders(const std::vector<TraceProvider>& providers) {
    for (const TraceProvider& added : providers) {
        const auto present =
            std::find_if(providers_.begin(), providers_.end(),
                         [&](const TraceProvider& p) { return p.providerId == added.providerId; });
        if (present == providers_.end()) {
            providers_.push_back(added);
            continue;
        }
        present->enableProperty |= added.enableProperty;
        present->level = std::max(present->level, added.level);
        MergeEventIds(present->eventIds, added.eventIds);
    }
}

void Controller::AddTimingProviders() {
    AddProviders(TimingProviders());
}

void Controller::AddDiagnosticProviders() {
    AddProviders(DiagnosticProviders());
}

void Controller::AddProcessProviders() {
    AddProviders(ProcessProviders());
}

ULONG Controller::Start() const {
    if (sessionName_.empty()) {
        return ERROR_INVALID_PARAMETER;
    }
    SessionProperties properties(*this, SessionProperties::Clock::SystemTime);
    TRACEHANDLE handle = 0;
    const ULONG status = EtwControl().StartTrace(&handle, sessionName_.c_str(), properties.Get());
    if (status == ERROR_ALREADY_EXISTS) {
        // The caller decides whether a running session of this name is stale.
        return status;
    }
    if (status != ERROR_SUCCESS) {
        DebugOutput("LogonMonitor: Failed starting trace, GLE=%d",
                    static_cast<int>(GetLastError()));
        return status;
    }
    ULONG enabled;
    {
        const SessionHandle session(handle);
        enabled = EnableProviders(session.Get());
    }
    if (enabled != ERROR_SUCCESS) {
        // Half a provider list measures nothing useful.
        Stop();
    }
    return enabled;
}

ULONG Controller::Stop() const {
    if (sessionName_.empty()) {
        return ERROR_INVALID_PARAMETER;
    }
    SessionProperties properties(*this, SessionProperties::Clock::SystemDefault);
    return EtwControl().ControlTrace(0, sessionName_.c_str(), properties.Get(),
                                     EVENT_TRACE_CONTROL_STOP);
}

ULONG Controller::EnableProviders(TRACEHANDLE session) const {
    if (session == 0) {
        return ERROR_INVALID_PARAMETER;
    }
    for (const TraceProvider& provider : providers_) {
        ENABLE_TRACE_PARAMETERS parameters{};
        parameters.Version = ENABLE_TRACE_PARAMETERS_VERSION_2;
        parameters.EnableProperty = provider.enableProperty;
        EVENT_FILTER_DESCRIPTOR descriptor{};
        std::vector<USHORT> filter;
        if (!provider.eventIds.empty()) {
            filter = EventIdFilter(provider.eventIds);
            descriptor.Ptr = reinterpret_cast<ULONGLONG>(filter.data());
            descriptor.Size = static_cast<ULONG>(filter.size() * sizeof(USHORT));
            descriptor.Type = kEventFilterTypeEventId;
            parameters.EnableFilterDesc = &descriptor;
            parameters.FilterDescCount = 1;
        }
        const ULONG status = EtwControl().EnableTraceEx2(
            session, provider.providerId, EVENT_CONTROL_CODE_ENABLE_PROVIDER,
            static_cast<UCHAR>(provider.level & 0xFF), 0, 0, 0, &parameters);
        if (status != ERROR_SUCCESS) {
            const DWORD lastError = GetLastError();
            DebugOutput("LogonMonitor: EnableTraceEx2 %s failed, GLE=%d",
                        Utf8FromWide(GuidText(provider.providerId)).c_str(),
                        static_cast<int>(lastError));
            return status;
        }
    }
    return ERROR_SUCCESS;
}

}  // namespace logonmon
