// The open sessions by terminal session id and by user SID, so that finding
// an event's session does not walk every open session.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "logonmon/SessionContext.h"

namespace logonmon {

class SessionIndex {
  public:
    void Add(const std::shared_ptr<SESSION_CONTEXT>& context);
    void Remove(const SESSION_CONTEXT& context);
    // Gives an indexed session another user.
    void ChangeSid(const std::shared_ptr<SESSION_CONTEXT>& context, const std::optional<Sid>& sid);

    // Windows reuses session ids: the newest matching session that already
    // existed at `timestamp`, or none.
    std::shared_ptr<SESSION_CONTEXT> BySessionId(uint32_t sessionId, uint64_t timestamp) const;
    std::shared_ptr<SESSION_CONTEXT> BySid(const Sid& sid, uint64_t timestamp) const;

  private:
    // Sorted by their key; sessions of one key in the order they were added.
    using Sessions = std::vector<std::shared_ptr<SESSION_CONTEXT>>;

    // Where the last search by id found its sessions: events come in runs
    // of one session. Forgotten whenever the index changes.
    struct LastRange {
        bool valid = false;
        uint32_t sessionId = 0;
        size_t first = 0;
        size_t last = 0;
    };

    Sessions bySessionId_;
    Sessions bySid_;
    mutable LastRange lastById_;
};

}  // namespace logonmon
