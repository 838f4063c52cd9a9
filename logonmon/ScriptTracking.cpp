#include "logonmon/LogonProcessor.h"

namespace logonmon {

void LogonProcessor::Process_Started(EventRecordData&) {}
void LogonProcessor::Process_Exited(EventRecordData&) {}

}  // namespace logonmon
