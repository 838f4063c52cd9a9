#include <cstdint>
#include <optional>

#include "logonmon/EventFields.h"
#include "logonmon/LogonProcessor.h"

namespace logonmon {

namespace {

bool IsTrue(const std::wstring& text) {
    return EqualsIgnoreCase(text, L"true");
}

// Whole seconds; stored as the whole-number kind, which the summary prints
// with "ms".
std::optional<int32_t> PolicySeconds(const EventRecordData& record) {
    const auto seconds = ParseDecimal(PropertyText(record, L"PolicyElaspedTimeInSeconds"));
    if (!seconds || *seconds > static_cast<uint32_t>(INT32_MAX)) {
        return std::nullopt;
    }
    return static_cast<int32_t>(*seconds);
}

}  // namespace

void LogonProcessor::GroupPolicy_CSEStarted(EventRecordData& record) {
    if (!record.sessionContext) {
        return;
    }
    SESSION_CONTEXT& context = *record.sessionContext;
    if (IsTrue(PropertyText(record, L"IsExtensionAsyncProcessing"))) {
        ++context.asyncPolicies;
    } else {
        ++context.syncPolicies;
    }
    if (IsTrue(PropertyText(record, L"IsGPOListChanged"))) {
        ++context.changedPolicies;
    }
}

void LogonProcessor::GroupPolicy_CSEFinished(EventRecordData& record) {
    if (!record.sessionContext) {
        return;
    }
    SESSION_CONTEXT& context = *record.sessionContext;
    const auto milliseconds = ParseDecimal(PropertyText(record, L"CSEElaspedTimeInMilliSeconds"));
    if (milliseconds) {
        context.cseDurations[PropertyText(record, L"CSEExtensionName")] += *milliseconds;
    }
    if (ParseDecimal(PropertyText(record, L"ErrorCode")).value_or(0) != 0) {
        ++context.failedPolicies;
    }
}

void LogonProcessor::GroupPolicy_UserPolicyFinished(EventRecordData& record) {
    if (!record.sessionContext) {
        return;
    }
    if (const auto seconds = PolicySeconds(record)) {
        record.sessionContext->namedDurations[L"User Policy Time"] = *seconds;
    }
}

// Machine policy belongs to no single session: every open one gets it.
void LogonProcessor::GroupPolicy_MachinePolicyFinished(EventRecordData& record) {
    const auto seconds = PolicySeconds(record);
    if (!seconds) {
        return;
    }
    for (const auto& context : activeSessions_) {
        context->namedDurations[L"Machine Policy Time"] = *seconds;
    }
}

}  // namespace logonmon
