// Writes EVENT_RECORDs into an .etl file laid out as Windows writes one: a
// log-file header buffer, then fixed-size buffers of EVENT_HEADER records with
// their extended data items. Timestamps are stored as given, as FILETIMEs
// (the system-time clock of the monitor's own sessions).
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "trace/EtwTypes.h"

struct EtlWriterOptions {
    uint32_t bufferSize = 64 * 1024;
    std::u16string loggerName;
    std::u16string logFileName;
};

class EtlWriter {
  public:
    // `out` must be seekable: the log-file header is completed by Finish.
    explicit EtlWriter(std::ostream& out, EtlWriterOptions options = {});
    EtlWriter(const EtlWriter&) = delete;
    EtlWriter& operator=(const EtlWriter&) = delete;

    // Throws std::length_error for a record that no buffer can hold.
    void Write(const EVENT_RECORD& record);
    // Writes the last buffer and the log-file header; false when the stream
    // failed. Nothing may be written afterwards.
    bool Finish();

  private:
    void FlushBuffer();
    void WriteHeaderBuffer();

    std::ostream& out_;
    EtlWriterOptions options_;
    std::vector<uint8_t> buffer_;
    size_t filled_;
    uint32_t buffersWritten_ = 1;  // the header buffer, written last
    int64_t bufferTime_ = 0;
    int64_t firstTime_ = INT64_MAX;
    int64_t lastTime_ = INT64_MIN;
};
