#include "logonmon/CurrentRecord.h"

#include <windows.h>

namespace logonmon {

namespace {
// Written once at start-up, before event threads exist.
DWORD slotIndex = TLS_OUT_OF_INDEXES;
}  // namespace

bool AllocateCurrentRecordSlot() {
    if (slotIndex == TLS_OUT_OF_INDEXES) {
        slotIndex = TlsAlloc();
    }
    return slotIndex != TLS_OUT_OF_INDEXES;
}

void FreeCurrentRecordSlot() {
    if (slotIndex != TLS_OUT_OF_INDEXES) {
        TlsFree(slotIndex);
        slotIndex = TLS_OUT_OF_INDEXES;
    }
}

EventRecordData* CurrentRecord() {
    if (slotIndex == TLS_OUT_OF_INDEXES) {
        return nullptr;
    }
    return static_cast<EventRecordData*>(TlsGetValue(slotIndex));
}

void SetCurrentRecord(EventRecordData* record) {
    if (slotIndex != TLS_OUT_OF_INDEXES) {
        TlsSetValue(slotIndex, record);
    }
}

}  // namespace logonmon
