#include "trace/EtlWriter.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "trace/EtlLayout.h"

using namespace logonmon::etl;

namespace {

// Values a Windows 10 x64 logger writes into its log-file header.
constexpr uint32_t kWindowsVersion = 0x0501000A;
constexpr uint32_t kWindowsBuild = 19041;
constexpr uint32_t kTimerResolution = 156250;
constexpr uint32_t kPointerSize = 8;
constexpr uint16_t kLoggerId = 1;

size_t ItemSize(const EVENT_HEADER_EXTENDED_DATA_ITEM& item) {
    return AlignRecord(kItemHeaderSize + item.DataSize);
}

void StoreText(uint8_t* at, const std::u16string& text) {
    std::memcpy(at, text.c_str(), (text.size() + 1) * sizeof(char16_t));
}

}  // namespace

EtlWriter::EtlWriter(std::ostream& out, EtlWriterOptions options)
    : out_(out),
      options_(std::move(options)),
      buffer_(options_.bufferSize, kPaddingByte),
      filled_(kBufferHeaderSize) {
    const size_t names = (options_.loggerName.size() + options_.logFileName.size() + 2) * 2;
    if (options_.bufferSize % kRecordAlignment != 0 ||
        options_.bufferSize < kBufferHeaderSize + kSystemHeaderSize + kLogTail64.size + names) {
        throw std::length_error("ETL buffer size too small for the log-file header");
    }
    // Room for the header buffer, completed by Finish.
    out_.write(reinterpret_cast<const char*>(buffer_.data()),
               static_cast<std::streamsize>(buffer_.size()));
}

void EtlWriter::Write(const EVENT_RECORD& record) {
    size_t size = kEventHeaderSize + record.UserDataLength;
    for (uint16_t i = 0; i < record.ExtendedDataCount; ++i) {
        size += ItemSize(record.ExtendedData[i]);
    }
    if (size > UINT16_MAX || size > buffer_.size() - kBufferHeaderSize) {
        throw std::length_error("event record too large for an ETL buffer");
    }
    if (filled_ + size > buffer_.size()) {
        FlushBuffer();
    }
    uint8_t* at = buffer_.data() + filled_;
    EVENT_HEADER header = record.EventHeader;
    header.Size = static_cast<uint16_t>(size);
    header.HeaderType = kEventHeaderTypeMarker;
    header.Flags = static_cast<uint16_t>(record.ExtendedDataCount != 0
                                             ? header.Flags | kEventHeaderFlagExtendedInfo
                                             : header.Flags & ~kEventHeaderFlagExtendedInfo);
    std::memcpy(at, &header, kEventHeaderSize);
    at += kEventHeaderSize;
    for (uint16_t i = 0; i < record.ExtendedDataCount; ++i) {
        const EVENT_HEADER_EXTENDED_DATA_ITEM& item = record.ExtendedData[i];
        const size_t itemSize = ItemSize(item);
        Store<uint16_t>(at + kItemSizeOffset, static_cast<uint16_t>(itemSize));
        Store<uint16_t>(at + kItemTypeOffset, item.ExtType);
        Store<uint16_t>(at + kItemLinkageOffset,
                        i + 1 < record.ExtendedDataCount ? kItemLinkage : 0);
        Store<uint16_t>(at + kItemDataSizeOffset, item.DataSize);
        std::memset(at + kItemHeaderSize, 0, itemSize - kItemHeaderSize);
        if (item.DataSize != 0) {
            std::memcpy(at + kItemHeaderSize,
                        reinterpret_cast<const void*>(static_cast<uintptr_t>(item.DataPtr)),
                        item.DataSize);
        }
        at += itemSize;
    }
    if (record.UserDataLength != 0) {
        std::memcpy(at, record.UserData, record.UserDataLength);
    }
    std::fill(buffer_.data() + filled_ + size, buffer_.data() + filled_ + AlignRecord(size), 0);
    filled_ += AlignRecord(size);

    const int64_t time = record.EventHeader.TimeStamp.QuadPart;
    bufferTime_ = std::max(bufferTime_, time);
    firstTime_ = std::min(firstTime_, time);
    lastTime_ = std::max(lastTime_, time);
}

bool EtlWriter::Finish() {
    if (filled_ > kBufferHeaderSize) {
        FlushBuffer();
    }
    if (firstTime_ > lastTime_) {
        firstTime_ = lastTime_ = 0;
    }
    WriteHeaderBuffer();
    out_.flush();
    return static_cast<bool>(out_);
}

void EtlWriter::FlushBuffer() {
    uint8_t* header = buffer_.data();
    std::fill(header, header + kBufferHeaderSize, 0);
    const auto filled = static_cast<uint32_t>(filled_);
    Store<uint32_t>(header + kBufferSizeOffset, options_.bufferSize);
    Store<uint32_t>(header + kSavedOffsetOffset, filled);
    Store<uint32_t>(header + kCurrentOffsetOffset, filled);
    Store<int64_t>(header + kBufferTimeStampOffset, bufferTime_);
    Store<int64_t>(header + kSequenceNumberOffset, buffersWritten_);
    Store<uint16_t>(header + kClientContextOffset + 2, kLoggerId);
    Store<uint32_t>(header + kBufferStateOffset, kBufferStateFlushed);
    Store<uint32_t>(header + kFilledOffset, filled);
    Store<uint16_t>(header + kBufferFlagOffset, kBufferFlagFlushed);
    out_.write(reinterpret_cast<const char*>(buffer_.data()),
               static_cast<std::streamsize>(buffer_.size()));
    ++buffersWritten_;
    std::fill(buffer_.begin(), buffer_.end(), kPaddingByte);
    filled_ = kBufferHeaderSize;
    bufferTime_ = 0;
}

// The first buffer: its header and one record, the system-header event that
// carries TRACE_LOGFILE_HEADER and the two names after it.
void EtlWriter::WriteHeaderBuffer() {
    std::fill(buffer_.begin(), buffer_.end(), kPaddingByte);
    uint8_t* buffer = buffer_.data();
    const size_t names = (options_.loggerName.size() + options_.logFileName.size() + 2) * 2;
    const size_t recordSize = kSystemHeaderSize + kLogTail64.size + names;
    const auto filled = static_cast<uint32_t>(AlignRecord(kBufferHeaderSize + recordSize));
    std::fill(buffer, buffer + filled, 0);
    Store<uint32_t>(buffer + kBufferSizeOffset, options_.bufferSize);
    Store<uint32_t>(buffer + kSavedOffsetOffset, filled);
    Store<uint32_t>(buffer + kCurrentOffsetOffset, filled);
    Store<uint16_t>(buffer + kClientContextOffset + 2, kLoggerId);
    Store<uint32_t>(buffer + kBufferStateOffset, kBufferStateFlushed);
    Store<uint32_t>(buffer + kFilledOffset, filled);
    Store<uint16_t>(buffer + kBufferFlagOffset, kBufferFlagFlushed);
    Store<uint16_t>(buffer + kBufferTypeOffset, kBufferTypeHeader);

    uint8_t* record = buffer + kBufferHeaderSize;
    Store<uint16_t>(record, kSystemMarkerVersion);
    record[kHeaderTypeByte] = kSystem64;
    record[kMarkerFlagsByte] = kMarkerFlagMask;
    Store<uint16_t>(record + kSystemSizeOffset, static_cast<uint16_t>(recordSize));
    Store<uint16_t>(record + kSystemHookIdOffset, kHookLogFileHeader);
    Store<int64_t>(record + kSystemTimeOffset, firstTime_);

    uint8_t* header = record + kSystemHeaderSize;
    Store<uint32_t>(header + kLogBufferSize, options_.bufferSize);
    Store<uint32_t>(header + kLogVersion, kWindowsVersion);
    Store<uint32_t>(header + kLogProviderVersion, kWindowsBuild);
    Store<uint32_t>(header + kLogNumberOfProcessors, 1);
    Store<int64_t>(header + kLogEndTime, lastTime_);
    Store<uint32_t>(header + kLogTimerResolution, kTimerResolution);
    Store<uint32_t>(header + kLogFileMode, kLogFileModeSequential);
    Store<uint32_t>(header + kLogBuffersWritten, buffersWritten_);
    Store<uint32_t>(header + kLogStartBuffers, 1);
    Store<uint32_t>(header + kLogPointerSize, kPointerSize);
    Store<int64_t>(header + kLogTail64.bootTime, firstTime_);
    Store<int64_t>(header + kLogTail64.perfFreq, kFileTimeUnitsPerSecond);
    Store<int64_t>(header + kLogTail64.startTime, firstTime_);
    Store<uint32_t>(header + kLogTail64.clockType, kClockSystemTime);
    StoreText(header + kLogTail64.size, options_.loggerName);
    StoreText(header + kLogTail64.size + (options_.loggerName.size() + 1) * 2,
              options_.logFileName);

    out_.seekp(0);
    out_.write(reinterpret_cast<const char*>(buffer), static_cast<std::streamsize>(buffer_.size()));
    out_.seekp(0, std::ios::end);
}
