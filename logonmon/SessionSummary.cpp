// The "Session Summary" block of a settled logon.
#include <iterator>
#include <string>
#include <variant>

#include "logonmon/LogonProcessor.h"
#include "logonmon/ProcessorTexts.h"
#include "logonmon/SessionTimeline.h"

namespace logonmon {

namespace {

struct FixedDuration {
    const char* label;
    const wchar_t* start;
    const wchar_t* stop;
};

constexpr FixedDuration kFixedDurations[] = {
    {"Profile Sync Time", texts::kProfileSyncStartPoint, texts::kProfileSyncStopPoint},
    {"Logon Start To User Hive Loaded Time", texts::kLogonStartPoint, texts::kUserHiveLoadedPoint},
    {"Logon Start To User Classes Hive Loaded Time", texts::kLogonStartPoint,
     texts::kClassesHiveLoadedPoint},
    {"Shell Load Time", texts::kShellStartPoint, texts::kShellInitializedPoint},
    // Nothing this processor handles sets the folder redirection points; the
    // row shows once a source of them is routed.
    {"Windows Folder Redirection Apply Time", texts::kFolderRedirectionStartPoint,
     texts::kFolderRedirectionStopPoint},
};
// The profile rows, then the shell and folder redirection rows.
constexpr size_t kProfileRows = 3;

std::wstring SummaryHeader(const SESSION_CONTEXT& session) {
    return L"****************** Session Summary (User=" + session.userName + L", sessionId=" +
           std::to_wstring(static_cast<int32_t>(session.sessionId)) + L") *****************";
}

}  // namespace

void LogonProcessor::LogSummary(SESSION_CONTEXT& session) {
    static constexpr wchar_t kFunction[] = L"logonmon::LogonProcessor::LogSummary";

    // A logon seen without its Login event has not named its user yet.
    ResolveAccount(session);
    const std::wstring header = SummaryHeader(session);
    LogFormatted(kLevelInfo, kFunction, "%ws", header.c_str());

    const std::wstring timeline = FormatSessionTimeline(BuildSessionTimeline(session.timingPoints));
    for (size_t begin = 0, end = timeline.find(L'\n'); end != std::wstring::npos;
         begin = end + 1, end = timeline.find(L'\n', begin)) {
        LogFormatted(kLevelInfo, kFunction, "%ws", timeline.substr(begin, end - begin).c_str());
    }

    const auto logFixedDurations = [this, &session](size_t first, size_t last) {
        for (size_t row = first; row < last; ++row) {
            const FixedDuration& duration = kFixedDurations[row];
            const uint64_t start = PointValue(session.timingPoints, duration.start);
            const uint64_t stop = PointValue(session.timingPoints, duration.stop);
            if (start != 0 && stop != 0) {
                LogFormatted(kLevelInfo,
                             L"logonmon::LogonProcessor::LogSummary::<lambda_1>::operator ()",
                             "%s: %.2f seconds", duration.label,
                             static_cast<double>(DurationSeconds(start, stop)));
            }
        }
    };
    logFixedDurations(0, kProfileRows);
    logFixedDurations(kProfileRows, std::size(kFixedDurations));

    for (const auto& [name, value] : session.namedDurations.SortedByName()) {
        if (const float* seconds = std::get_if<float>(&value)) {
            LogFormatted(kLevelInfo, kFunction, "%ws: %.2f seconds", std::wstring(name).c_str(),
                         static_cast<double>(*seconds));
        } else {
            LogFormatted(kLevelInfo, kFunction, "%ws: %dms", std::wstring(name).c_str(),
                         std::get<int32_t>(value));
        }
    }

    uint32_t cseTotalMs = 0;
    for (const auto& [extension, milliseconds] : session.cseDurations) {
        cseTotalMs += milliseconds;
    }
    LogFormatted(kLevelInfo, kFunction, "Group Policy Summary: ");
    LogFormatted(kLevelInfo, kFunction, "   Async. Policies: %d", session.asyncPolicies);
    LogFormatted(kLevelInfo, kFunction, "   Sync. Policies: %d", session.syncPolicies);
    LogFormatted(kLevelInfo, kFunction, "   Failed Policies: %d", session.failedPolicies);
    LogFormatted(kLevelInfo, kFunction, "   Changed Policies: %d", session.changedPolicies);
    LogFormatted(kLevelInfo, kFunction, "   Group Policy CSE Total Time: %dms",
                 static_cast<int32_t>(cseTotalMs));
    for (const auto& [extension, milliseconds] : session.cseDurations.SortedByName()) {
        LogFormatted(kLevelInfo, kFunction, "     CSE: '%ws' Duration: %dms",
                     std::wstring(extension).c_str(), static_cast<int32_t>(milliseconds));
    }

    LogExtendedSummary(session);

    const std::wstring footer(header.size(), L'*');
    LogFormatted(kLevelInfo, kFunction, "%ws", footer.c_str());
}

}  // namespace logonmon
