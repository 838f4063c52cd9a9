#include "logonmon/EventFields.h"
#include "logonmon/LogonProcessor.h"
#include "logonmon/ProcessorTexts.h"

namespace logonmon {

namespace {

// The remote agent's payloads: a session id, then UTF-16 text fields.
constexpr size_t kAttachPayloadSize = 132;
constexpr size_t kSessionTypeOffset = 4;
constexpr size_t kSessionTypeUnits = 64;

constexpr size_t kGenericPayloadSize = 3092;
constexpr size_t kProductOffset = 20;
constexpr size_t kComponentOffset = 1044;
constexpr size_t kEventOffset = 2068;
constexpr size_t kGenericTextUnits = 512;

}  // namespace

void LogonProcessor::TS_LSM_Logon(EventRecordData& record) {
    if (!record.sessionContext) {
        LogFormatted(kLevelError, L"logonmon::LogonProcessor::TS_LSM_Logon",
                     texts::kContextNotFoundBySessionId, EventSessionId(record));
        return;
    }
    record.sessionContext->clientUser = PropertyText(record, L"User");
    record.sessionContext->clientAddress = PropertyText(record, L"Address");
}

void LogonProcessor::Explorer_Initialized(EventRecordData& record) {
    static constexpr wchar_t kFunction[] = L"logonmon::LogonProcessor::Explorer_Initialized";
    if (!record.sessionContext) {
        LogFormatted(kLevelError, kFunction, texts::kContextNotFoundBySessionId,
                     EventSessionId(record));
        return;
    }
    record.sessionContext->timingPoints[texts::kShellInitializedPoint] = record.timestamp;
    LogFormatted(kLevelInfo, kFunction, "Shell Initialized");
}

void LogonProcessor::Tessera_SessionAttached(EventRecordData& record) {
    static constexpr wchar_t kFunction[] = L"logonmon::LogonProcessor::Tessera_SessionAttached";
    if (!record.sessionContext) {
        LogFormatted(kLevelError, kFunction, texts::kContextNotFoundBySessionId,
                     EventSessionId(record));
        return;
    }
    SESSION_CONTEXT& context = *record.sessionContext;
    context.timingPoints[texts::kAgentAttachedPoint] = record.timestamp;
    LogFormatted(kLevelInfo, kFunction, "Tessera Session Attached");
    if (record.userData.size() != kAttachPayloadSize) {
        LogFormatted(kLevelError, kFunction, "Tessera_SessionAttached event bad payload length");
        return;
    }
    context.applicationSession = EqualsIgnoreCase(
        PayloadText(record, kSessionTypeOffset, kSessionTypeUnits), L"APPLICATION");
}

void LogonProcessor::Tessera_PLMXGeneric(EventRecordData& record) {
    static constexpr wchar_t kFunction[] = L"logonmon::LogonProcessor::Tessera_PLMXGeneric";
    if (record.userData.size() != kGenericPayloadSize) {
        LogFormatted(kLevelError, kFunction, "Tessera PLMX generic event has a bad payload length");
        return;
    }
    LogFormatted(kLevelInfo, kFunction, "Tessera Event: Product: %ws, Component: %ws, Event: %ws",
                 PayloadText(record, kProductOffset, kGenericTextUnits).c_str(),
                 PayloadText(record, kComponentOffset, kGenericTextUnits).c_str(),
                 PayloadText(record, kEventOffset, kGenericTextUnits).c_str());
}

}  // namespace logonmon
