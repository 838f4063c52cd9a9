// The layout of an .etl file as Windows writes it, shared by the reader and
// the writer. Sources (public documentation and write-ups; no code):
// - evntrace.h / evntcons.h as documented on learn.microsoft.com:
//   TRACE_LOGFILE_HEADER, EVENT_TRACE_HEADER, EVENT_HEADER,
//   EVENT_HEADER_EXTENDED_DATA_ITEM, ETW_BUFFER_CONTEXT, the clock types of
//   WNODE_HEADER.ClientContext.
// - Geoff Chappell's studies of the trace buffers (geoffchappell.com,
//   "WMI_BUFFER_HEADER", "Trace Headers", "TRACE_LOGFILE_HEADER",
//   "SYSTEM_TRACE_HEADER"): a file is a sequence of fixed-size buffers, each a
//   72-byte buffer header followed by 8-byte aligned records; the first
//   record of the file is the log-file header event.
// - EVENT_HEADER_EXTENDED_DATA_ITEM as stored in a buffer: an 8-byte item
//   header (item size, type, linkage bit, data size) before each item's data,
//   checked against files written by Windows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace logonmon::etl {

// Buffer header (WMI_BUFFER_HEADER, x64 and x86 alike).
inline constexpr size_t kBufferHeaderSize = 0x48;
inline constexpr size_t kBufferSizeOffset = 0x00;       // ULONG BufferSize
inline constexpr size_t kSavedOffsetOffset = 0x04;      // ULONG SavedOffset
inline constexpr size_t kCurrentOffsetOffset = 0x08;    // ULONG CurrentOffset
inline constexpr size_t kBufferTimeStampOffset = 0x10;  // LARGE_INTEGER TimeStamp
inline constexpr size_t kSequenceNumberOffset = 0x18;   // LONGLONG SequenceNumber
inline constexpr size_t kClientContextOffset = 0x28;    // ETW_BUFFER_CONTEXT
inline constexpr size_t kBufferStateOffset = 0x2C;      // ETW_BUFFER_STATE
inline constexpr size_t kFilledOffset = 0x30;           // ULONG Offset: end of the records
inline constexpr size_t kBufferFlagOffset = 0x34;       // USHORT BufferFlag
inline constexpr size_t kBufferTypeOffset = 0x36;       // USHORT BufferType
// What Windows writes in the last three for a flushed buffer, and the buffer
// type of the one that holds the log-file header.
inline constexpr uint32_t kBufferStateFlushed = 3;
inline constexpr uint16_t kBufferFlagFlushed = 0x20;
inline constexpr uint16_t kBufferTypeHeader = 4;
// Unused space after the records.
inline constexpr uint8_t kPaddingByte = 0xFF;

inline constexpr size_t kRecordAlignment = 8;

// Every record starts with a marker whose top byte carries these flags and,
// for all but the message header, the header type in the byte below.
inline constexpr uint8_t kMarkerTraceHeader = 0x80;
inline constexpr uint8_t kMarkerEventTrace = 0x40;
inline constexpr uint8_t kMarkerFlagMask = kMarkerTraceHeader | kMarkerEventTrace;
inline constexpr size_t kHeaderTypeByte = 2;
inline constexpr size_t kMarkerFlagsByte = 3;

// TRACE_HEADER_TYPE_* values.
enum HeaderType : uint8_t {
    kSystem32 = 0x01,
    kSystem64 = 0x02,
    kCompact32 = 0x03,
    kCompact64 = 0x04,
    kPerfInfo32 = 0x10,
    kPerfInfo64 = 0x11,
    kEventHeader32 = 0x12,
    kEventHeader64 = 0x13,
};

// System, compact and perfinfo headers keep their size in the second word;
// all others (EVENT_TRACE_HEADER, instance, message and EVENT_HEADER records)
// start with it.
inline bool SizeInSecondWord(uint8_t headerType) {
    switch (headerType) {
        case kSystem32:
        case kSystem64:
        case kCompact32:
        case kCompact64:
        case kPerfInfo32:
        case kPerfInfo64:
            return true;
        default:
            return false;
    }
}

// SYSTEM_TRACE_HEADER: marker, size and hook id, thread, process, time,
// kernel and user time.
inline constexpr size_t kSystemHeaderSize = 32;
inline constexpr size_t kSystemSizeOffset = 4;
inline constexpr size_t kSystemHookIdOffset = 6;
inline constexpr size_t kSystemTimeOffset = 16;
inline constexpr uint16_t kSystemMarkerVersion = 2;
inline constexpr uint16_t kHookLogFileHeader = 0;  // WMI_LOG_TYPE_HEADER

// EVENT_HEADER as stored; the record's size is its first word.
inline constexpr size_t kEventHeaderSize = 80;
inline constexpr uint16_t kEventHeaderFlagExtendedInfo = 0x0001;
inline constexpr uint16_t kEventHeaderTypeMarker =
    (uint16_t{kMarkerFlagMask} << 8) | uint16_t{kEventHeader64};

// Extended data item header as stored.
inline constexpr size_t kItemHeaderSize = 8;
inline constexpr size_t kItemSizeOffset = 0;
inline constexpr size_t kItemTypeOffset = 2;
inline constexpr size_t kItemLinkageOffset = 4;
inline constexpr size_t kItemDataSizeOffset = 6;
inline constexpr uint16_t kItemLinkage = 0x0001;  // another item follows

// TRACE_LOGFILE_HEADER after the system header of the first record. The two
// string pointers are 4 or 8 bytes (the record's header type says which),
// which moves everything after them.
inline constexpr size_t kLogBufferSize = 0x00;
inline constexpr size_t kLogVersion = 0x04;
inline constexpr size_t kLogProviderVersion = 0x08;
inline constexpr size_t kLogNumberOfProcessors = 0x0C;
inline constexpr size_t kLogEndTime = 0x10;
inline constexpr size_t kLogTimerResolution = 0x18;
inline constexpr size_t kLogFileMode = 0x20;
inline constexpr size_t kLogBuffersWritten = 0x24;
inline constexpr size_t kLogStartBuffers = 0x28;
inline constexpr size_t kLogPointerSize = 0x2C;
inline constexpr size_t kLogCpuSpeedInMHz = 0x34;
inline constexpr size_t kTimeZoneSize = 172;
// Offsets of BootTime, PerfFreq, StartTime, ReservedFlags (the clock type)
// and the header's size, for 8- and 4-byte pointers.
struct LogFileHeaderTail {
    size_t bootTime;
    size_t perfFreq;
    size_t startTime;
    size_t clockType;
    size_t size;
};
inline constexpr LogFileHeaderTail kLogTail64{0xF8, 0x100, 0x108, 0x110, 0x118};
inline constexpr LogFileHeaderTail kLogTail32{0xF0, 0xF8, 0x100, 0x108, 0x110};

// WNODE_HEADER.ClientContext clock types (0 means the default, QPC).
inline constexpr uint32_t kClockQpc = 1;
inline constexpr uint32_t kClockSystemTime = 2;
inline constexpr uint32_t kClockCpuCycle = 3;
inline constexpr uint32_t kLogFileModeSequential = 0x1;  // EVENT_TRACE_FILE_MODE_SEQUENTIAL

inline constexpr int64_t kFileTimeUnitsPerSecond = 10'000'000;

template <typename T>
T Load(const uint8_t* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

template <typename T>
void Store(uint8_t* at, T value) {
    std::memcpy(at, &value, sizeof value);
}

inline size_t AlignRecord(size_t size) {
    return (size + kRecordAlignment - 1) & ~(kRecordAlignment - 1);
}

}  // namespace logonmon::etl
