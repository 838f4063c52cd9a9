#include "trace/SessionProperties.h"

#include <cstring>
#include <stdexcept>
#include <string>

namespace logonmon {
namespace {

// WNODE_HEADER.ClientContext: timestamps as FILETIMEs, which decoding expects.
constexpr ULONG kSystemTimeClock = 2;

void CopyName(const std::wstring& name, wchar_t (&target)[SessionProperties::kNameCapacity],
              const char* tooLong) {
    if (name.size() >= SessionProperties::kNameCapacity) {
        throw std::runtime_error(tooLong);
    }
    std::memcpy(target, name.c_str(), (name.size() + 1) * sizeof(wchar_t));
}

}  // namespace

SessionProperties::SessionProperties(const Controller& session, Clock clock) {
    static_assert(sizeof(Block) == 4216);
    static_assert(offsetof(Block, sessionName) == sizeof(EVENT_TRACE_PROPERTIES));

    EVENT_TRACE_PROPERTIES& properties = block_.properties;
    properties.Wnode.BufferSize = sizeof(Block);
    properties.Wnode.Flags = WNODE_FLAG_TRACED_GUID;
    properties.LoggerNameOffset = offsetof(Block, sessionName);
    CopyName(session.SessionName(), block_.sessionName, "session name string too long");
    if (!session.LogFileName().empty()) {
        properties.LogFileNameOffset = offsetof(Block, logFileName);
        CopyName(session.LogFileName(), block_.logFileName, "file name string too long");
    }
    properties.LogFileMode = session.LogFileMode();
    properties.MaximumFileSize = session.MaximumFileSize();
    properties.FlushTimer = session.FlushTimer();
    if (clock == Clock::SystemTime) {
        properties.Wnode.ClientContext = kSystemTimeClock;
    }
}

}  // namespace logonmon
