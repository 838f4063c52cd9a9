// The EVENT_TRACE_PROPERTIES block that StartTraceW and ControlTraceW take,
// with room behind it for the session name and the log file name.
#pragma once

#include <windows.h>
#include <evntrace.h>

#include <cstddef>

#include "trace/Controller.h"

namespace logonmon {

class SessionProperties {
  public:
    // Characters per name, the terminating null included.
    static constexpr size_t kNameCapacity = 1024;

    enum class Clock { SystemDefault, SystemTime };

    // Throws std::runtime_error when a name does not fit.
    SessionProperties(const Controller& session, Clock clock);

    EVENT_TRACE_PROPERTIES* Get() { return &block_.properties; }

  private:
    struct Block {
        EVENT_TRACE_PROPERTIES properties;
        wchar_t sessionName[kNameCapacity];
        wchar_t logFileName[kNameCapacity];
    };

    Block block_{};
};

}  // namespace logonmon
