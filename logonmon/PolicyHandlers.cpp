#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>

#include "logonmon/EventFields.h"
#include "logonmon/LogonProcessor.h"

namespace logonmon {

namespace {

// Boolean properties are decoded as numbers ("1", "0", "-1"); older
// providers wrote "true" or "false".
bool IsTrue(const std::wstring& text) {
    if (EqualsIgnoreCase(text, L"true")) {
        return true;
    }
    const std::wstring_view digits =
        std::wstring_view(text).substr(!text.empty() && text[0] == L'-' ? 1 : 0);
    return !digits.empty() && std::all_of(digits.begin(), digits.end(), [](wchar_t c) {
        return c >= L'0' && c <= L'9';
    }) && digits.find_first_not_of(L'0') != std::wstring_view::npos;
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
    // An unreadable time still lists the extension, at 0 ms.
    context.cseDurations[InternedName(PropertyText(record, L"CSEExtensionName"))] +=
        ParseDecimal(PropertyText(record, L"CSEElaspedTimeInMilliSeconds")).value_or(0);
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
