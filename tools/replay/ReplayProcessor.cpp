#include "tools/replay/ReplayProcessor.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "logonmon/CurrentRecord.h"
#include "logonmon/PrintfFormat.h"
#include "trace/TextForms.h"

namespace {

// The service's session log name: "plmx_session_<identifier>_<session>.txt".
constexpr char kSessionLogNameFormat[] = "plmx_session_%ws_%d.txt";

// The trace-file mode of the service: no timeouts, no timer, every event
// written to its session's log.
logonmon::SESSION_CONFIG TraceFileConfig() {
    logonmon::SESSION_CONFIG config;
    config.sessionTimeoutMs = 0;
    config.waitForAttach = false;
    config.realTime = false;
    config.logEveryEvent = true;
    return config;
}

// glibc's mktime, which the processor calls for process times, re-reads the
// zone file on every call while TZ is unset; naming the same file reads it
// once. A TZ of the user's own is left alone.
void PinLocalTimeZone() {
#ifdef __GLIBC__
    setenv("TZ", ":/etc/localtime", 0);
#endif
}

// FNV-1a, 64 bits.
uint64_t Hash(uint64_t hash, const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) {
        hash = (hash ^ bytes[i]) * 0x100000001b3ull;
    }
    return hash;
}

std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = logonmon::FormatPrintf(format, args);
    va_end(args);
    return text;
}

}  // namespace

ReplayProcessor::ReplayProcessor(std::filesystem::path folder, std::string traceName)
    : LogonProcessor(TraceFileConfig()),
      folder_(std::move(folder)),
      traceName_(std::move(traceName)) {
    PinLocalTimeZone();
}

void ReplayProcessor::Finish() {
    RunSessionTimeoutCheck(true);
}

std::vector<std::filesystem::path> ReplayProcessor::UnsettledLogs() const {
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : logs_) {
        paths.push_back(entry.second->Path());
    }
    return paths;
}

// Drawn like a UUID, but from the trace and the logon rather than at random.
std::wstring ReplayProcessor::LogIdentifier(const logonmon::SESSION_CONTEXT& session) const {
    uint64_t halves[2] = {0xcbf29ce484222325ull, 0x84222325cbf29ce4ull};
    for (uint64_t& half : halves) {
        half = Hash(half, traceName_.data(), traceName_.size());
        half = Hash(half, &session.sessionId, sizeof session.sessionId);
        half = Hash(half, &session.createdAt, sizeof session.createdAt);
    }
    GUID id{};
    std::memcpy(&id, halves, sizeof id);
    return logonmon::GuidText(id, false);
}

void ReplayProcessor::OnLogonStart(logonmon::SESSION_CONTEXT& session) {
    if (logs_.count(&session) != 0) {
        return;
    }
    const std::string name = Format(kSessionLogNameFormat, LogIdentifier(session).c_str(),
                                    static_cast<int>(session.sessionId));
    logs_[&session] = std::make_unique<SessionLogFile>(folder_ / name);
}

void ReplayProcessor::OnLogonEnd(logonmon::SESSION_CONTEXT& session) {
    ReplayedSession settled;
    settled.sessionId = session.sessionId;
    summary_ = &settled.summary;
    LogSummary(session);
    summary_ = nullptr;
    const auto log = logs_.find(&session);
    if (log != logs_.end()) {
        settled.logPath = log->second->Path();
        settled.logWritten = log->second->Flush();
        logs_.erase(log);
    }
    settled_.push_back(std::move(settled));
}

void ReplayProcessor::LogFormatted(uint32_t, const wchar_t* function, const char* format, ...) {
    const logonmon::EventRecordData* record = logonmon::CurrentRecord();
    SessionLogFile* log = nullptr;
    if (record != nullptr && record->sessionContext) {
        const auto found = logs_.find(record->sessionContext.get());
        log = found != logs_.end() ? found->second.get() : nullptr;
    }
    va_list args;
    va_start(args, format);
    if (summary_ != nullptr) {
        va_list copy;
        va_copy(copy, args);
        summary_->push_back(logonmon::FormatPrintf(format, copy));
        va_end(copy);
    }
    if (log != nullptr) {
        log->WriteLine(*record, function, format, args);
    }
    va_end(args);
}
