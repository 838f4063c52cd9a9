#include "logonmon/EventFields.h"
#include "logonmon/LogonProcessor.h"
#include "logonmon/ProcessorTexts.h"

namespace logonmon {

void LogonProcessor::Profiles_HiveLoaded(EventRecordData& record) {
    // Hives of sessions that are not followed (services, other users) are
    // loaded all the time: nothing to say about them.
    if (!record.sessionContext) {
        return;
    }
    // The profile service names the files in exactly this case.
    const std::wstring file = PropertyText(record, L"File");
    if (file.find(L"ntuser.dat") != std::wstring::npos) {
        record.sessionContext->timingPoints[texts::kUserHiveLoadedPoint] = record.timestamp;
    } else if (file.find(L"UsrClass.dat") != std::wstring::npos) {
        record.sessionContext->timingPoints[texts::kClassesHiveLoadedPoint] = record.timestamp;
    }
}

void LogonProcessor::Profiles_SyncStarted(EventRecordData& record) {
    if (!record.sessionContext) {
        LogFormatted(kLevelError, L"logonmon::LogonProcessor::Profiles_SyncStarted",
                     texts::kContextNotFoundBySid, SidText(record).c_str());
        return;
    }
    SESSION_CONTEXT& context = *record.sessionContext;
    context.profileSyncSource = PropertyText(record, L"Source");
    context.profileSyncTarget = PropertyText(record, L"Target");
    context.timingPoints[texts::kProfileSyncStartPoint] = record.timestamp;
}

void LogonProcessor::Profiles_SyncFinished(EventRecordData& record) {
    if (!record.sessionContext) {
        LogFormatted(kLevelError, L"logonmon::LogonProcessor::Profiles_SyncFinished",
                     texts::kContextNotFoundBySid, SidText(record).c_str());
        return;
    }
    record.sessionContext->timingPoints[texts::kProfileSyncStopPoint] = record.timestamp;
}

void LogonProcessor::Profiles_LoadedInfo(EventRecordData& record) {
    if (!record.sessionContext) {
        LogFormatted(kLevelError, L"logonmon::LogonProcessor::Profiles_LoadedInfo",
                     texts::kContextNotFoundBySid, SidText(record).c_str());
        return;
    }
    if (record.sessionContext->localProfilePath.empty()) {
        record.sessionContext->localProfilePath = PropertyText(record, L"LocalPath");
    }
}

}  // namespace logonmon
