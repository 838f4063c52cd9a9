#include "trace/EtlReader.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "trace/EtlLayout.h"
#include "trace/MappedFile.h"

using namespace logonmon::etl;

namespace {

static_assert(sizeof(EVENT_HEADER) == kEventHeaderSize);
static_assert(sizeof(EVENT_RECORD::BufferContext) == sizeof(uint32_t));

// The largest buffer ETW allocates is 1 MiB, and clocks tick at most a few
// GHz; anything far beyond is damage.
constexpr uint32_t kMaxBufferSize = 64u << 20;
constexpr int64_t kMaxClockFrequency = 100'000'000'000;

std::string AtOffset(const std::string& what, size_t offset) {
    return what + " at offset " + std::to_string(offset);
}

// Turns raw record timestamps into FILETIMEs the way ProcessTrace does: the
// log-file header's own timestamp is the raw reading taken at StartTime.
class Clock {
  public:
    Clock() = default;
    Clock(uint32_t type, int64_t frequency, int64_t reference, int64_t startTime)
        : type_(type), frequency_(frequency), reference_(reference), startTime_(startTime) {}

    int64_t ToFileTime(int64_t raw) const {
        if (type_ == kClockSystemTime) {
            return raw;
        }
        // Split to keep the product in range; damaged readings wrap around
        // instead of overflowing.
        const auto delta =
            static_cast<int64_t>(static_cast<uint64_t>(raw) - static_cast<uint64_t>(reference_));
        const auto whole = static_cast<uint64_t>(delta / frequency_);
        const int64_t rest = delta % frequency_ * kFileTimeUnitsPerSecond / frequency_;
        return static_cast<int64_t>(static_cast<uint64_t>(startTime_) +
                                    whole * kFileTimeUnitsPerSecond + static_cast<uint64_t>(rest));
    }

  private:
    uint32_t type_ = kClockSystemTime;
    int64_t frequency_ = kFileTimeUnitsPerSecond;
    int64_t reference_ = 0;
    int64_t startTime_ = 0;
};

// Kept small: a trace holds millions.
struct IndexedRecord {
    int64_t timestamp;  // already converted
    size_t offset;
    uint32_t bufferContext;
    uint16_t size;  // EVENT_HEADER.Size is 16 bits
    uint16_t itemCount;
};
static_assert(sizeof(IndexedRecord) <= 24);

class EtlParser {
  public:
    EtlParser(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    // Indexes every EVENT_HEADER record; returns the damage, if any.
    std::string Index() {
        std::string error = ReadLogFileHeader();
        if (!error.empty()) {
            return error;
        }
        // Records rarely take less than this with their extended data; one
        // allocation then holds the whole index.
        constexpr size_t kTypicalRecordSize = 128;
        records_.reserve(size_ / kTypicalRecordSize);
        const size_t buffersInFile = (size_ + bufferSize_ - 1) / bufferSize_;
        const size_t buffersToRead =
            buffersWritten_ != 0 ? std::min<size_t>(buffersWritten_, buffersInFile) : buffersInFile;
        for (size_t buffer = 0; buffer < buffersToRead && error.empty(); ++buffer) {
            error = IndexBuffer(buffer * bufferSize_);
        }
        if (error.empty() && buffersWritten_ > buffersInFile) {
            error = AtOffset("the log-file header counts " + std::to_string(buffersWritten_) +
                                 " buffers, the file holds " + std::to_string(buffersInFile) +
                                 "; the next is missing",
                             buffersInFile * bufferSize_);
        }
        return error;
    }

    uint64_t Deliver(const std::function<void(const EVENT_RECORD&)>& onEvent) {
        if (!std::is_sorted(records_.begin(), records_.end(), EarlierThan)) {
            std::stable_sort(records_.begin(), records_.end(), EarlierThan);
        }
        std::vector<EVENT_HEADER_EXTENDED_DATA_ITEM> items;
        for (size_t next = 0; next < records_.size(); ++next) {
            const IndexedRecord& indexed = records_[next];
            if (next + kDeliverAhead < records_.size()) {
                __builtin_prefetch(data_ + records_[next + kDeliverAhead].offset);
            }
            EVENT_RECORD record{};
            const uint8_t* start = data_ + indexed.offset;
            const uint8_t* end = start + indexed.size;
            std::memcpy(&record.EventHeader, start, kEventHeaderSize);
            record.EventHeader.TimeStamp.QuadPart = indexed.timestamp;
            std::memcpy(&record.BufferContext, &indexed.bufferContext, sizeof(uint32_t));
            const uint8_t* at = start + kEventHeaderSize;
            items.resize(indexed.itemCount);
            for (uint16_t i = 0; i < indexed.itemCount; ++i) {
                EVENT_HEADER_EXTENDED_DATA_ITEM& item = items[i];
                item = EVENT_HEADER_EXTENDED_DATA_ITEM{};
                item.ExtType = Load<uint16_t>(at + kItemTypeOffset);
                item.Linkage = i + 1 < indexed.itemCount ? 1 : 0;
                item.DataSize = Load<uint16_t>(at + kItemDataSizeOffset);
                item.DataPtr = reinterpret_cast<uintptr_t>(at + kItemHeaderSize);
                at += Load<uint16_t>(at + kItemSizeOffset);
            }
            record.ExtendedDataCount = indexed.itemCount;
            record.ExtendedData = items.empty() ? nullptr : items.data();
            record.UserDataLength = static_cast<uint16_t>(end - at);
            record.UserData = at == end ? nullptr : const_cast<uint8_t*>(at);
            onEvent(record);
        }
        return records_.size();
    }

  private:
    static bool EarlierThan(const IndexedRecord& left, const IndexedRecord& right) {
        return left.timestamp < right.timestamp;
    }

    std::string ReadLogFileHeader() {
        constexpr size_t kRecord = kBufferHeaderSize;
        const auto tooShort = [this] {
            return AtOffset(
                "a file of " + std::to_string(size_) + " bytes is too short for a log-file header",
                0);
        };
        if (size_ < kRecord + kSystemHeaderSize + kLogTail32.size) {
            return tooShort();
        }
        bufferSize_ = Load<uint32_t>(data_ + kBufferSizeOffset);
        if (bufferSize_ < kRecord + kSystemHeaderSize + kLogTail64.size ||
            bufferSize_ > kMaxBufferSize || bufferSize_ % kRecordAlignment != 0) {
            return AtOffset("buffer size " + std::to_string(bufferSize_) + " is not usable", 0);
        }
        const uint8_t* record = data_ + kRecord;
        const uint8_t type = record[kHeaderTypeByte];
        if ((record[kMarkerFlagsByte] & kMarkerFlagMask) != kMarkerFlagMask ||
            (type != kSystem32 && type != kSystem64) ||
            Load<uint16_t>(record + kSystemHookIdOffset) != kHookLogFileHeader) {
            return AtOffset("the first record is not a log-file header", kRecord);
        }
        const LogFileHeaderTail& tail = type == kSystem64 ? kLogTail64 : kLogTail32;
        if (size_ < kRecord + kSystemHeaderSize + tail.size) {
            return tooShort();
        }
        if (Load<uint16_t>(record + kSystemSizeOffset) < kSystemHeaderSize + tail.size) {
            return AtOffset("the log-file header is cut short", kRecord);
        }
        const uint8_t* header = record + kSystemHeaderSize;
        buffersWritten_ = Load<uint32_t>(header + kLogBuffersWritten);
        const auto clockType = Load<uint32_t>(header + tail.clockType);
        int64_t frequency = 0;
        switch (clockType) {
            case 0:
            case kClockQpc:
                frequency = Load<int64_t>(header + tail.perfFreq);
                break;
            case kClockSystemTime:
                frequency = kFileTimeUnitsPerSecond;
                break;
            case kClockCpuCycle:
                frequency = int64_t{Load<uint32_t>(header + kLogCpuSpeedInMHz)} * 1'000'000;
                break;
            default:
                return AtOffset("unknown timestamp clock " + std::to_string(clockType),
                                kRecord + kSystemHeaderSize + tail.clockType);
        }
        if (frequency <= 0 || frequency > kMaxClockFrequency) {
            return AtOffset("the log-file header gives no usable clock frequency",
                            kRecord + kSystemHeaderSize + tail.clockType);
        }
        clock_ = Clock(clockType, frequency, Load<int64_t>(record + kSystemTimeOffset),
                       Load<int64_t>(header + tail.startTime));
        return {};
    }

    // How far ahead of the record at hand the file is asked for: in bytes
    // while indexing, in records while delivering.
    static constexpr size_t kReadAhead = 1024;
    static constexpr size_t kDeliverAhead = 8;

    std::string IndexBuffer(size_t buffer) {
        if (size_ - buffer < bufferSize_) {
            return AtOffset("truncated buffer: " + std::to_string(size_ - buffer) + " of " +
                                std::to_string(bufferSize_) + " bytes",
                            buffer);
        }
        const uint8_t* header = data_ + buffer;
        if (Load<uint32_t>(header + kBufferSizeOffset) != bufferSize_) {
            return AtOffset("buffer size " +
                                std::to_string(Load<uint32_t>(header + kBufferSizeOffset)) +
                                " differs from the file's " + std::to_string(bufferSize_),
                            buffer);
        }
        const auto filled = Load<uint32_t>(header + kFilledOffset);
        if (filled < kBufferHeaderSize || filled > bufferSize_) {
            return AtOffset(
                "buffer data end " + std::to_string(filled) + " lies outside its buffer",
                buffer + kFilledOffset);
        }
        const auto context = Load<uint32_t>(header + kClientContextOffset);
        for (size_t at = buffer + kBufferHeaderSize; at < buffer + filled;) {
            // Each record's size leads to the next, so that the reads cannot
            // overlap by themselves: asking early for what lies ahead does.
            __builtin_prefetch(data_ + std::min(at + kReadAhead, size_ - 1));
            size_t recordSize = 0;
            std::string error = IndexRecord(at, buffer + filled, context, &recordSize);
            if (!error.empty()) {
                return error;
            }
            at += AlignRecord(recordSize);
        }
        return {};
    }

    std::string IndexRecord(size_t at, size_t end, uint32_t context, size_t* recordSize) {
        if (end - at < 2 * sizeof(uint32_t)) {
            return AtOffset("a record header is cut off by the end of its buffer's data", at);
        }
        const uint8_t* record = data_ + at;
        const uint8_t flags = record[kMarkerFlagsByte] & kMarkerFlagMask;
        const uint8_t type = record[kHeaderTypeByte];
        if ((flags & kMarkerTraceHeader) == 0) {
            char marker[16];
            std::snprintf(marker, sizeof marker, "0x%08X", Load<uint32_t>(record));
            return AtOffset(std::string("unknown record marker ") + marker, at);
        }
        const bool eventHeader =
            flags == kMarkerFlagMask && (type == kEventHeader32 || type == kEventHeader64);
        const bool sizeSecond = flags == kMarkerFlagMask && SizeInSecondWord(type);
        const size_t size = Load<uint16_t>(record + (sizeSecond ? kSystemSizeOffset : 0));
        const size_t minimum = eventHeader ? kEventHeaderSize : 2 * sizeof(uint32_t);
        if (size < minimum) {
            return AtOffset("record size " + std::to_string(size) + " is too small", at);
        }
        if (size > end - at) {
            return AtOffset("a record of " + std::to_string(size) +
                                " bytes runs past its buffer's data, which ends at offset " +
                                std::to_string(end),
                            at);
        }
        *recordSize = size;
        if (!eventHeader) {
            return {};  // classic, system and message records are not delivered
        }
        uint16_t itemCount = 0;
        if ((Load<uint16_t>(record + offsetof(EVENT_HEADER, Flags)) &
             kEventHeaderFlagExtendedInfo) != 0) {
            size_t item = kEventHeaderSize;
            bool more = true;
            while (more) {
                if (size - item < kItemHeaderSize) {
                    return AtOffset("an extended data item runs past its record", at + item);
                }
                const size_t itemSize = Load<uint16_t>(record + item + kItemSizeOffset);
                const size_t dataSize = Load<uint16_t>(record + item + kItemDataSizeOffset);
                if (itemSize < kItemHeaderSize + dataSize || itemSize > size - item ||
                    itemCount == UINT16_MAX) {
                    return AtOffset("an extended data item runs past its record", at + item);
                }
                more = (Load<uint16_t>(record + item + kItemLinkageOffset) & kItemLinkage) != 0;
                item += itemSize;
                ++itemCount;
            }
        }
        const int64_t raw = Load<int64_t>(record + offsetof(EVENT_HEADER, TimeStamp));
        records_.push_back(IndexedRecord{clock_.ToFileTime(raw), at, context,
                                         static_cast<uint16_t>(size), itemCount});
        return {};
    }

    const uint8_t* data_;
    size_t size_;
    uint32_t bufferSize_ = 0;
    uint32_t buffersWritten_ = 0;
    Clock clock_;
    std::vector<IndexedRecord> records_;
};

}  // namespace

EtlReadResult ReadEtlBytes(const uint8_t* data, size_t size,
                           const std::function<void(const EVENT_RECORD&)>& onEvent) {
    EtlParser parser(data, size);
    EtlReadResult result;
    result.error = parser.Index();
    result.events = parser.Deliver(onEvent);
    result.complete = result.error.empty();
    return result;
}

EtlReadResult ReadEtlFile(const std::string& path,
                          const std::function<void(const EVENT_RECORD&)>& onEvent) {
    const MappedFile file(path);
    if (!file.error().empty()) {
        return EtlReadResult{0, false, file.error()};
    }
    return ReadEtlBytes(file.data(), file.size(), onEvent);
}
