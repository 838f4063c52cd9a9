#include "logonmon/CurrentRecord.h"

namespace logonmon {

namespace {
thread_local EventRecordData* currentRecord = nullptr;
}  // namespace

// A thread_local needs no allocation.
bool AllocateCurrentRecordSlot() {
    return true;
}
void FreeCurrentRecordSlot() {}

EventRecordData* CurrentRecord() {
    return currentRecord;
}
void SetCurrentRecord(EventRecordData* record) {
    currentRecord = record;
}

}  // namespace logonmon
