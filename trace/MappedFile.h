// A whole file mapped read-only into memory: the trace reader works on the
// bytes where they lie, without copying them into a buffer of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class MappedFile {
  public:
    // Maps `path` (in the ANSI code page on Windows). An empty file maps to
    // no bytes; error() is empty when mapping worked.
    explicit MappedFile(const std::string& path);
    ~MappedFile();
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    // "cannot open <path>" or "cannot read <path>".
    const std::string& error() const { return error_; }

  private:
    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
    std::string error_;
};
