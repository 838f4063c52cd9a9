#include "logonmon/LogonProcessor.h"

namespace logonmon {

void LogonProcessor::Profiles_HiveLoaded(EventRecordData&) {}
void LogonProcessor::Profiles_SyncStarted(EventRecordData&) {}
void LogonProcessor::Profiles_SyncFinished(EventRecordData&) {}
void LogonProcessor::Profiles_LoadedInfo(EventRecordData&) {}

}  // namespace logonmon
