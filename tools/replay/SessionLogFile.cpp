#include "tools/replay/SessionLogFile.h"

#include "log/LogLineFormat.h"

SessionLogFile::SessionLogFile(const std::filesystem::path& path)
    : path_(path),
      stream_(path, std::ios::binary | std::ios::trunc),
      line_(new char[kLogLineBufferSize]) {}

void SessionLogFile::WriteLine(const logonmon::EventRecordData& record, const wchar_t* function,
                               const char* format, va_list args) {
    char* const line = line_.get();
    const size_t length =
        AppendLogMessage(line, FormatEventPrefix(line, record, function), format, args);
    stream_.write(line, static_cast<std::streamsize>(length));
    stream_.write("\r\n", 2);
}
