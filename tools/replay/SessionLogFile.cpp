#include "tools/replay/SessionLogFile.h"

#include <cstring>

#include "log/LogLineFormat.h"

namespace {

constexpr char kLineEnd[] = "\r\n";
constexpr size_t kLineEndSize = sizeof kLineEnd - 1;
// Room for the longest line, and as much again gathered before writing.
constexpr size_t kPendingSize = 2 * (kLogLineBufferSize + kLineEndSize);

}  // namespace

SessionLogFile::SessionLogFile(const std::filesystem::path& path)
    : path_(path),
      stream_(path, std::ios::binary | std::ios::trunc),
      pending_(new char[kPendingSize]) {}

SessionLogFile::~SessionLogFile() {
    Flush();
}

void SessionLogFile::WriteLine(const logonmon::EventRecordData& record, const wchar_t* function,
                               const char* format, va_list args) {
    if (kPendingSize - used_ < kLogLineBufferSize + kLineEndSize) {
        Flush();
    }
    // Formatted in place: the line buffer is the pending text's free end.
    char* const line = pending_.get() + used_;
    const size_t length =
        AppendLogMessage(line, FormatEventPrefix(line, record, function), format, args);
    std::memcpy(line + length, kLineEnd, kLineEndSize);
    used_ += length + kLineEndSize;
}

bool SessionLogFile::Flush() {
    if (used_ != 0) {
        stream_.write(pending_.get(), static_cast<std::streamsize>(used_));
        used_ = 0;
    }
    return stream_.good();
}
