#include "logonmon/LogonProcessor.h"

namespace logonmon {

void LogonProcessor::GroupPolicy_CSEStarted(EventRecordData&) {}
void LogonProcessor::GroupPolicy_CSEFinished(EventRecordData&) {}
void LogonProcessor::GroupPolicy_UserPolicyFinished(EventRecordData&) {}
void LogonProcessor::GroupPolicy_MachinePolicyFinished(EventRecordData&) {}

}  // namespace logonmon
