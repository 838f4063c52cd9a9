#include "log/LogLineFormat.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "log/LogWriter.h"
#include "logonmon/PrintfFormat.h"
#include "trace/EventRecordData.h"
#include "trace/TextForms.h"

namespace {

constexpr size_t kTimestampSize = 24;

// Returns the length written, or -1 when the text did not fit or could not be
// converted.
int FormatInto(char* buffer, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = logonmon::FormatPrintfToBuffer(buffer, size, format, args);
    va_end(args);
    return length;
}

void FormatTimestamp(const SYSTEMTIME& time, char (&text)[kTimestampSize]) {
    FormatInto(text, kTimestampSize, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", time.wYear, time.wMonth,
               time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
}

constexpr uint64_t kFileTimeUnitsPerSecond = 10'000'000;
constexpr uint64_t kFileTimeUnitsPerMillisecond = 10'000;

// The local time of an event up to its second ("2024-01-02T03:04:05."),
// kept from the line before: events come in time order, so that most lines
// share their second with the one before, and the conversion to local time
// is what costs. Its milliseconds are the UTC time's, in every zone.
class EventSecondText {
  public:
    const char* For(uint64_t fileTime) {
        const uint64_t second = fileTime / kFileTimeUnitsPerSecond;
        if (second != second_) {
            const SYSTEMTIME time =
                logonmon::FileTimeToLocalSystemTime(second * kFileTimeUnitsPerSecond);
            FormatInto(text_, sizeof text_, "%04d-%02d-%02dT%02d:%02d:%02d.", time.wYear,
                       time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond);
            second_ = second;
        }
        return text_;
    }

  private:
    uint64_t second_ = UINT64_MAX;
    char text_[kTimestampSize] = {};
};

// The texts of the last few sources: the lines of a session log come from a
// handful of providers.
class SourceTexts {
  public:
    // Writes the text of `source` at `out`, as FormatWideText would.
    int Put(char* out, size_t room, const wchar_t* source) {
        if (source == nullptr) {
            return logonmon::FormatWideText(out, room, source);
        }
        const std::wstring_view wanted(source);
        for (const Kept& kept : kept_) {
            if (kept.text.size() < room && kept.source == wanted) {
                std::memcpy(out, kept.text.data(), kept.text.size() + 1);
                return static_cast<int>(kept.text.size());
            }
        }
        const int length = logonmon::FormatWideText(out, room, source);
        if (length >= 0) {
            Kept& kept = kept_[next_];
            next_ = (next_ + 1) % kept_.size();
            kept.source = wanted;
            kept.text.assign(out, static_cast<size_t>(length));
        }
        return length;
    }

  private:
    struct Kept {
        std::wstring source;
        std::string text;
    };
    std::array<Kept, 8> kept_;
    size_t next_ = 0;
};

}  // namespace

const char* LevelTag(uint32_t level) {
    static constexpr struct {
        uint32_t bit;
        const char* tag;
    } kTags[] = {
        {LOG_LEVEL_ERROR, "ERROR"}, {LOG_LEVEL_INFO, "INFO"},   {LOG_LEVEL_DEBUG, "DEBUG"},
        {LOG_LEVEL_TRACE, "TRACE"}, {LOG_LEVEL_FATAL, "FATAL"},
    };
    for (const auto& entry : kTags) {
        if ((level & entry.bit) != 0) {
            return entry.tag;
        }
    }
    return "NONE";
}

namespace {

char* PutText(char* out, std::string_view text) {
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
}

}  // namespace

int FormatEventPrefix(char* buffer, const logonmon::EventRecordData& record,
                      const wchar_t* function) {
    // The event's own time, so that a replayed trace shows the trace's times.
    thread_local EventSecondText second;
    thread_local SourceTexts sourceTexts;
    const wchar_t* source = record.providerName.empty() ? function : record.providerName.c_str();
    // "%s%03d %s (%s) [%04d] [%ws] ", written by hand: every line of a session
    // log has one. The source's conversion stays the C runtime's.
    char* out = PutText(buffer, second.For(record.timestamp));
    out = logonmon::PutDecimal(
        out, static_cast<uint32_t>(record.timestamp / kFileTimeUnitsPerMillisecond % 1000), 3);
    *out++ = ' ';
    out = PutText(out, record.LevelName());
    out = PutText(out, " (");
    out = record.PutLogPrefix(out);
    out = PutText(out, ") [");
    out = logonmon::PutDecimal(out, record.eventId, 4);
    out = PutText(out, "] [");
    const size_t written = static_cast<size_t>(out - buffer);
    const int sourceLength = sourceTexts.Put(out, kLogLineBufferSize - written, source);
    if (sourceLength < 0) {
        return -1;
    }
    // Then "] ", as much of it as leaves room for the null, as one format
    // would have written it.
    const size_t used = written + static_cast<size_t>(sourceLength);
    const std::string_view end = std::string_view("] ").substr(0, kLogLineBufferSize - 1 - used);
    PutText(buffer + used, end)[0] = '\0';
    return end.size() == 2 ? static_cast<int>(used + end.size()) : -1;
}

int FormatPlainPrefix(char* buffer, const SYSTEMTIME& now, uint32_t level, uint32_t processId,
                      uint32_t threadId, const wchar_t* function) {
    char timestamp[kTimestampSize];
    FormatTimestamp(now, timestamp);
    return FormatInto(buffer, kLogLineBufferSize, "%s %s (%.4x-%.4x) [%ws] ", timestamp,
                      LevelTag(level), static_cast<unsigned>(processId),
                      static_cast<unsigned>(threadId), function);
}

size_t AppendLogMessage(char* buffer, int prefixLength, const char* format, va_list args) {
    // A failed format ends at its last valid byte, whether it ran out of room
    // or met an argument it could not convert.
    const auto validLength = [](const char* text, int length) {
        return length < 0 ? std::strlen(text) : static_cast<size_t>(length);
    };
    const size_t prefix = validLength(buffer, prefixLength);
    const size_t available = kLogLineBufferSize - prefix;
    return prefix + validLength(buffer + prefix, logonmon::FormatPrintfToBuffer(
                                                     buffer + prefix, available, format, args));
}
