// A session log as the replay writes it: the service's line layout, each line
// ended as the service's text-mode stream ends it (carriage return and line
// feed), so that a replayed log reads byte for byte like the service's. Lines
// gather in memory and reach the file in large writes.
#pragma once

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <memory>

#include "trace/EventRecordData.h"

class SessionLogFile {
  public:
    // Creates the file anew.
    explicit SessionLogFile(const std::filesystem::path& path);
    // Writes what is still pending.
    ~SessionLogFile();
    SessionLogFile(const SessionLogFile&) = delete;
    SessionLogFile& operator=(const SessionLogFile&) = delete;

    const std::filesystem::path& Path() const { return path_; }

    // One line written while `record` is handled.
    void WriteLine(const logonmon::EventRecordData& record, const wchar_t* function,
                   const char* format, va_list args);
    // Writes what is pending; tells whether the file was created and every
    // line so far reached it.
    bool Flush();

  private:
    std::filesystem::path path_;
    std::ofstream stream_;
    std::unique_ptr<char[]> pending_;
    size_t used_ = 0;
};
