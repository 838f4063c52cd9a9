#include "trace/EtlReader.h"

#include <algorithm>
#include <cstdio>
#include <optional>
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

// Where an event record lies and what delivering it needs. Kept small: an
// out-of-order trace is indexed with one for each of its records.
struct RecordAt {
    int64_t timestamp;  // already converted
    size_t offset;
    uint32_t bufferContext;
    uint16_t size;  // EVENT_HEADER.Size is 16 bits
    uint16_t itemCount;
};
static_assert(sizeof(RecordAt) <= 24);

class EtlParser {
  public:
    EtlParser(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    // Calls `visit` with every event record up to the first damage, in file
    // order, until it returns false. Returns the damage, if any.
    template <typename Visit>
    std::string Walk(Visit visit) {
        std::string error = ReadLogFileHeader();
        if (!error.empty()) {
            return error;
        }
        const size_t buffersInFile = (size_ + bufferSize_ - 1) / bufferSize_;
        const size_t buffersToRead =
            buffersWritten_ != 0 ? std::min<size_t>(buffersWritten_, buffersInFile) : buffersInFile;
        bool goOn = true;
        for (size_t buffer = 0; buffer < buffersToRead && goOn && error.empty(); ++buffer) {
            error = WalkBuffer(buffer * bufferSize_, visit, &goOn);
        }
        if (goOn && error.empty() && buffersWritten_ > buffersInFile) {
            error = AtOffset("the log-file header counts " + std::to_string(buffersWritten_) +
                                 " buffers, the file holds " + std::to_string(buffersInFile) +
                                 "; the next is missing",
                             buffersInFile * bufferSize_);
        }
        return error;
    }

    void Deliver(const RecordAt& at, const std::function<void(const EVENT_RECORD&)>& onEvent) {
        EVENT_RECORD record{};
        const uint8_t* start = data_ + at.offset;
        const uint8_t* end = start + at.size;
        std::memcpy(&record.EventHeader, start, kEventHeaderSize);
        record.EventHeader.TimeStamp.QuadPart = at.timestamp;
        std::memcpy(&record.BufferContext, &at.bufferContext, sizeof(uint32_t));
        const uint8_t* next = start + kEventHeaderSize;
        items_.resize(at.itemCount);
        for (uint16_t i = 0; i < at.itemCount; ++i) {
            EVENT_HEADER_EXTENDED_DATA_ITEM& item = items_[i];
            item = EVENT_HEADER_EXTENDED_DATA_ITEM{};
            item.ExtType = Load<uint16_t>(next + kItemTypeOffset);
            item.Linkage = i + 1 < at.itemCount ? 1 : 0;
            item.DataSize = Load<uint16_t>(next + kItemDataSizeOffset);
            item.DataPtr = reinterpret_cast<uintptr_t>(next + kItemHeaderSize);
            next += Load<uint16_t>(next + kItemSizeOffset);
        }
        record.ExtendedDataCount = at.itemCount;
        record.ExtendedData = items_.empty() ? nullptr : items_.data();
        record.UserDataLength = static_cast<uint16_t>(end - next);
        record.UserData = next == end ? nullptr : const_cast<uint8_t*>(next);
        onEvent(record);
    }

    // Asks for a record some records ahead of the one delivered from an index.
    void Prefetch(const RecordAt& ahead) const { __builtin_prefetch(data_ + ahead.offset); }

    // Records rarely take less than this with their extended data.
    size_t TypicalRecordCount() const {
        constexpr size_t kTypicalRecordSize = 128;
        return size_ / kTypicalRecordSize;
    }

  private:
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

    // How far ahead of the record at hand the file is asked for while walking.
    static constexpr size_t kReadAhead = 1024;

    template <typename Visit>
    std::string WalkBuffer(size_t buffer, Visit& visit, bool* goOn) {
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
        for (size_t at = buffer + kBufferHeaderSize; at < buffer + filled && *goOn;) {
            // Each record's size leads to the next, so that the reads cannot
            // overlap by themselves: asking early for what lies ahead does.
            __builtin_prefetch(data_ + std::min(at + kReadAhead, size_ - 1));
            size_t recordSize = 0;
            std::optional<RecordAt> event;
            std::string error = ReadRecord(at, buffer + filled, context, &recordSize, &event);
            if (!error.empty()) {
                return error;
            }
            if (event) {
                *goOn = visit(*event);
            }
            at += AlignRecord(recordSize);
        }
        return {};
    }

    // Reads the record at `at`, which its buffer's data ends at `end`: its
    // size, and where it is an event record, what delivering it needs.
    std::string ReadRecord(size_t at, size_t end, uint32_t context, size_t* recordSize,
                           std::optional<RecordAt>* event) const {
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
        *event =
            RecordAt{clock_.ToFileTime(raw), at, context, static_cast<uint16_t>(size), itemCount};
        return {};
    }

    const uint8_t* data_;
    size_t size_;
    uint32_t bufferSize_ = 0;
    uint32_t buffersWritten_ = 0;
    Clock clock_;
    std::vector<EVENT_HEADER_EXTENDED_DATA_ITEM> items_;
};

// A trace whose records are out of time order is indexed and sorted first.
// Equal times keep their order in the file.
uint64_t DeliverSorted(EtlParser& parser, std::string* error,
                       const std::function<void(const EVENT_RECORD&)>& onEvent) {
    std::vector<RecordAt> records;
    records.reserve(parser.TypicalRecordCount());
    *error = parser.Walk([&records](const RecordAt& record) {
        records.push_back(record);
        return true;
    });
    std::stable_sort(records.begin(), records.end(),
                     [](const RecordAt& left, const RecordAt& right) {
                         return left.timestamp < right.timestamp;
                     });
    constexpr size_t kDeliverAhead = 8;
    for (size_t next = 0; next < records.size(); ++next) {
        if (next + kDeliverAhead < records.size()) {
            parser.Prefetch(records[next + kDeliverAhead]);
        }
        parser.Deliver(records[next], onEvent);
    }
    return records.size();
}

}  // namespace

EtlReadResult ReadEtlBytes(const uint8_t* data, size_t size,
                           const std::function<void(const EVENT_RECORD&)>& onEvent) {
    EtlParser parser(data, size);
    EtlReadResult result;
    // Traces are mostly in time order already: then the file is walked once
    // to find that out and once to deliver, with no index of every record.
    bool inOrder = true;
    int64_t latest = INT64_MIN;
    std::string damage = parser.Walk([&inOrder, &latest](const RecordAt& record) {
        inOrder = record.timestamp >= latest;
        latest = record.timestamp;
        return inOrder;
    });
    if (inOrder) {
        // A file still being written may have changed since.
        std::string delivered = parser.Walk([&parser, &result, &onEvent](const RecordAt& record) {
            parser.Deliver(record, onEvent);
            ++result.events;
            return true;
        });
        if (damage.empty()) {
            damage = std::move(delivered);
        }
    } else {
        result.events = DeliverSorted(parser, &damage, onEvent);
    }
    result.error = std::move(damage);
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
