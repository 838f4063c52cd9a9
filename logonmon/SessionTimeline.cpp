#include "logonmon/SessionTimeline.h"

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <optional>
#include <string_view>

#include "logonmon/ProcessorTexts.h"
#include "trace/PropertyValueText.h"
#include "trace/TextForms.h"

namespace logonmon {

namespace {

constexpr float kTicksPerSecond = 10'000'000.0f;
constexpr size_t kLabelWidth = 20;

constexpr std::wstring_view kSubscriberPrefix = L"WL_CallSubscriber_";
constexpr std::wstring_view kStart = L"Start";
constexpr std::wstring_view kStop = L"Stop";

struct NotificationPoints {
    std::wstring name;
    std::wstring start;
    std::wstring stop;
};

// The point names of every Winlogon notification, made on first use (the
// initialisation of a local static is thread-safe) and shared by all
// summaries.
const std::vector<NotificationPoints>& Notifications() {
    static const std::vector<NotificationPoints> notifications = [] {
        std::vector<NotificationPoints> all;
        for (const wchar_t* name : WinlogonNotificationNames()) {
            const std::wstring prefix = L"WL_NotifyExecute_" + std::wstring(name) + L"_";
            all.push_back({name, prefix + std::wstring(kStart), prefix + std::wstring(kStop)});
        }
        return all;
    }();
    return notifications;
}

// The first candidate that is present with a non-zero value, else 0.
uint64_t FirstPresent(const TimingPoints& points, std::initializer_list<const wchar_t*> names) {
    for (const wchar_t* name : names) {
        if (const uint64_t value = PointValue(points, name); value != 0) {
            return value;
        }
    }
    return 0;
}

TimelinePhase PhaseFrom(const TimingPoints& points, std::initializer_list<const wchar_t*> starts,
                        std::initializer_list<const wchar_t*> stops) {
    TimelinePhase phase;
    phase.start = FirstPresent(points, starts);
    if (phase.start != 0) {
        phase.stop = FirstPresent(points, stops);
    }
    return phase;
}

struct SubscriberPoint {
    std::wstring subscriber;
    std::wstring notification;
    bool start = false;
};

// "WL_CallSubscriber_" subscriber "_" notification "_" Start/Stop. The
// notification and the ending are cut from the right, so a subscriber name
// may itself hold "_".
std::optional<SubscriberPoint> ParseSubscriberPoint(std::wstring_view name) {
    if (!name.starts_with(kSubscriberPrefix)) {
        return std::nullopt;
    }
    name.remove_prefix(kSubscriberPrefix.size());
    const size_t endingCut = name.rfind(L'_');
    if (endingCut == std::wstring_view::npos) {
        return std::nullopt;
    }
    const std::wstring_view ending = name.substr(endingCut + 1);
    if (ending != kStart && ending != kStop) {
        return std::nullopt;
    }
    if (endingCut == 0) {
        return std::nullopt;
    }
    const size_t notificationCut = name.rfind(L'_', endingCut - 1);
    if (notificationCut == std::wstring_view::npos || notificationCut == 0) {
        return std::nullopt;
    }
    return SubscriberPoint{
        std::wstring(name.substr(0, notificationCut)),
        std::wstring(name.substr(notificationCut + 1, endingCut - notificationCut - 1)),
        ending == kStart};
}

// Notification name to its subscribers' complete phases, in start order.
std::map<std::wstring, std::vector<SubscriberPhase>> SubscriberPhases(const TimingPoints& points) {
    std::map<std::wstring, std::map<std::wstring, TimelinePhase>> byNotification;
    for (const auto& [name, value] : points) {
        if (!name.starts_with(kSubscriberPrefix)) {
            continue;
        }
        const std::optional<SubscriberPoint> point = ParseSubscriberPoint(name);
        if (!point) {
            continue;
        }
        TimelinePhase& phase = byNotification[point->notification][point->subscriber];
        (point->start ? phase.start : phase.stop) = value;
    }

    std::map<std::wstring, std::vector<SubscriberPhase>> phases;
    for (const auto& [notification, subscribers] : byNotification) {
        std::vector<SubscriberPhase> complete;
        for (const auto& [subscriber, phase] : subscribers) {
            if (!phase.Empty()) {
                complete.push_back({subscriber, phase});
            }
        }
        // Winlogon calls its subscribers one after another; their order of
        // work reads best.
        std::stable_sort(complete.begin(), complete.end(),
                         [](const SubscriberPhase& left, const SubscriberPhase& right) {
                             return left.phase.start < right.phase.start;
                         });
        if (!complete.empty()) {
            phases.emplace(notification, std::move(complete));
        }
    }
    return phases;
}

std::wstring SecondsText(float seconds) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", static_cast<double>(seconds));
    return std::wstring(text, text + std::char_traits<char>::length(text));
}

// "%-20s %s - %s (dur %.2f seconds)\n", or "%20s ..." when nested.
void AppendLine(std::wstring& text, const std::wstring& label, bool nested,
                const TimelinePhase& phase) {
    const size_t padding = label.size() < kLabelWidth ? kLabelWidth - label.size() : 0;
    if (nested) {
        text.append(padding, L' ').append(label);
    } else {
        text.append(label).append(padding, L' ');
    }
    text += L" " + TimestampText(phase.start, true) + L" - " + TimestampText(phase.stop, true) +
            L" (dur " + SecondsText(DurationSeconds(phase.start, phase.stop)) + L" seconds)\n";
}

}  // namespace

uint64_t PointValue(const TimingPoints& points, std::wstring_view name) {
    const auto found = points.find(name);
    return found == points.end() ? 0 : found->second;
}

float DurationSeconds(uint64_t start, uint64_t stop) {
    return static_cast<float>(stop - start) / kTicksPerSecond;
}

SessionTimeline BuildSessionTimeline(const TimingPoints& points) {
    SessionTimeline timeline;
    std::map<std::wstring, std::vector<SubscriberPhase>> subscribers = SubscriberPhases(points);
    for (const NotificationPoints& notification : Notifications()) {
        const auto start = points.find(notification.start);
        const auto stop = points.find(notification.stop);
        if (start == points.end() || stop == points.end()) {
            continue;
        }
        NotificationPhase& row = timeline.notifications[notification.name];
        row.phase = {start->second, stop->second};
        if (const auto found = subscribers.find(notification.name); found != subscribers.end()) {
            row.subscribers = std::move(found->second);
        }
    }

    timeline.profileSync =
        PhaseFrom(points, {texts::kProfileSyncStartPoint}, {texts::kProfileSyncStopPoint});
    timeline.userHiveLoad =
        PhaseFrom(points, {texts::kProfileSyncStopPoint, texts::kProfilesSubscriberStartPoint},
                  {texts::kClassesHiveLoadedPoint, texts::kUserHiveLoadedPoint});
    timeline.folderRedirection = PhaseFrom(points, {texts::kFolderRedirectionStartPoint},
                                           {texts::kFolderRedirectionStopPoint});
    timeline.shellInitialization =
        PhaseFrom(points, {texts::kUserinitStopPoint, texts::kShellStartedPoint},
                  {texts::kShellInitializedPoint});
    timeline.wholeLogon = PhaseFrom(points, {texts::kLogonStartPoint},
                                    {texts::kShellInitializedPoint, texts::kShellStartedPoint});
    // A remote logon is complete only once the agent attached the session:
    // when the attach comes after the shell, the user waited for it too. An
    // application session has no shell, and its attach ends the logon.
    if (timeline.wholeLogon.start != 0) {
        timeline.wholeLogon.stop =
            std::max(timeline.wholeLogon.stop, PointValue(points, texts::kAgentAttachedPoint));
    }
    return timeline;
}

std::wstring FormatSessionTimeline(const SessionTimeline& timeline) {
    std::wstring text;
    for (const auto& [name, notification] : timeline.notifications) {
        AppendLine(text, name, false, notification.phase);
        for (const SubscriberPhase& subscriber : notification.subscribers) {
            AppendLine(text, subscriber.subscriber, true, subscriber.phase);
        }
    }
    const std::pair<const wchar_t*, const TimelinePhase*> fixedPhases[] = {
        {L"ProfileSync", &timeline.profileSync},
        {L"UserHiveLoad", &timeline.userHiveLoad},
        {L"FolderRedirection", &timeline.folderRedirection},
        {L"ShellInit", &timeline.shellInitialization},
        {L"TotalLogon", &timeline.wholeLogon},
    };
    for (const auto& [label, phase] : fixedPhases) {
        if (!phase->Empty()) {
            AppendLine(text, label, false, *phase);
        }
    }
    return text;
}

}  // namespace logonmon
