// The per-thread slot holding the event record a thread is handling: set by
// the logon processor while an event is handled, read by the log writer.
#pragma once

namespace logonmon {

class EventRecordData;

// Allocates the slot (a TLS index on Windows); call once at start-up before
// any event thread starts. Returns false when no slot can be had.
bool AllocateCurrentRecordSlot();
void FreeCurrentRecordSlot();

EventRecordData* CurrentRecord();
void SetCurrentRecord(EventRecordData* record);

// Sets the slot for its lifetime and restores the previous value.
class ScopedCurrentRecord {
  public:
    explicit ScopedCurrentRecord(EventRecordData* record) : previous_(CurrentRecord()) {
        SetCurrentRecord(record);
    }
    ~ScopedCurrentRecord() { SetCurrentRecord(previous_); }
    ScopedCurrentRecord(const ScopedCurrentRecord&) = delete;
    ScopedCurrentRecord& operator=(const ScopedCurrentRecord&) = delete;

  private:
    EventRecordData* previous_;
};

}  // namespace logonmon
