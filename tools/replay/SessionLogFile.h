// A session log as the replay writes it: the service's line layout, each line
// ended as the service's text-mode stream ends it (carriage return and line
// feed), so that a replayed log reads byte for byte like the service's.
#pragma once

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <memory>

#include "trace/EventRecordData.h"

class SessionLogFile {
  public:
    // Creates the file anew; Good() tells whether that worked.
    explicit SessionLogFile(const std::filesystem::path& path);

    bool Good() const { return stream_.good(); }
    const std::filesystem::path& Path() const { return path_; }

    // One line written while `record` is handled.
    void WriteLine(const logonmon::EventRecordData& record, const wchar_t* function,
                   const char* format, va_list args);

  private:
    std::filesystem::path path_;
    std::ofstream stream_;
    std::unique_ptr<char[]> line_;
};
