// One followed logon session.
#pragma once

#include <cstdint>
#include <memory>

struct SessionLog;

namespace logonmon {

struct SESSION_CONTEXT {
    uint32_t sessionId = 0;
    // The session's own log; created empty by the log writer on first need.
    std::shared_ptr<::SessionLog> sessionLog;
};

}  // namespace logonmon
