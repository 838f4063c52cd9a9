#include "logonmon/EventFields.h"
#include "logonmon/LogonProcessor.h"
#include "logonmon/ProcessorTexts.h"

namespace logonmon {

void LogonProcessor::TS_LSM_Logon(EventRecordData&) {}

void LogonProcessor::Explorer_Initialized(EventRecordData& record) {
    static constexpr wchar_t kFunction[] = L"logonmon::LogonProcessor::Explorer_Initialized";
    if (!record.sessionContext) {
        LogFormatted(kLevelError, kFunction, texts::kContextNotFoundBySessionId,
                     EventSessionId(record));
        return;
    }
    record.sessionContext->timingPoints[L"Explorer_Initialized_Stop"] = record.timestamp;
    LogFormatted(kLevelInfo, kFunction, "Shell Initialized");
}

void LogonProcessor::Tessera_SessionAttached(EventRecordData&) {}
void LogonProcessor::Tessera_PLMXGeneric(EventRecordData&) {}

}  // namespace logonmon
