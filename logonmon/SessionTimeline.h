// The phases of one logon as the session summary shows them: Winlogon's
// notifications with their subscribers, and five phases an administrator
// looks for first.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "logonmon/SessionContext.h"

namespace logonmon {

// The value of the timing point `name`, 0 when the session has none.
uint64_t PointValue(const TimingPoints& points, std::wstring_view name);

// Seconds from `start` to `stop` (100 ns units), worked out in single
// precision on the unsigned difference: a stop before its start gives a huge
// value rather than a negative one.
float DurationSeconds(uint64_t start, uint64_t stop);

// A span of two timing points; empty while either is 0.
struct TimelinePhase {
    uint64_t start = 0;
    uint64_t stop = 0;

    bool Empty() const { return start == 0 || stop == 0; }
};

struct SubscriberPhase {
    std::wstring subscriber;
    TimelinePhase phase;
};

struct NotificationPhase {
    TimelinePhase phase;
    // Complete subscriber phases, in the order they started.
    std::vector<SubscriberPhase> subscribers;
};

struct SessionTimeline {
    // Notifications with both a start and a stop, by name.
    std::map<std::wstring, NotificationPhase> notifications;
    TimelinePhase profileSync;
    TimelinePhase userHiveLoad;
    TimelinePhase folderRedirection;
    TimelinePhase shellInitialization;
    TimelinePhase wholeLogon;
};

SessionTimeline BuildSessionTimeline(const TimingPoints& points);

// One line per phase, each ending in "\n": the notifications in name order,
// each followed by its subscribers, then the non-empty fixed phases.
std::wstring FormatSessionTimeline(const SessionTimeline& timeline);

}  // namespace logonmon
