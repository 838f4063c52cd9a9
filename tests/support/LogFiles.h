#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/Settings.h"
#include "log/LogWriter.h"

namespace plmx::testing {

class TempFolder {
  public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::wstring& Path() const { return path_; }  // ends in a backslash

  private:
    std::wstring path_;
};

// Points the process-wide settings at `folder` with every level on and opens
// the main log there; closes it and restores the settings when it goes.
class ScopedMainLog {
  public:
    explicit ScopedMainLog(const std::wstring& folder, uint32_t maxSize = 100000000);
    ~ScopedMainLog();
    ScopedMainLog(const ScopedMainLog&) = delete;
    ScopedMainLog& operator=(const ScopedMainLog&) = delete;

    std::wstring Path() const { return MainLogPath(); }
    std::wstring BackupPath() const { return MainLogPath() + L".bak"; }

  private:
    Settings saved_;
};

class StdoutCapture {
  public:
    StdoutCapture();
    ~StdoutCapture();

    std::wstring Path() const;  // flushed first

  private:
    TempFolder folder_;
    int savedDescriptor_;
};

std::string ReadFileBytes(const std::wstring& path);
std::vector<std::string> ReadLines(const std::wstring& path);
// "<level> [<source>] <message>" of each line, the event id left out;
// "<unparsed> <line>" for a line that is not a log line.
std::vector<std::string> Tagged(const std::vector<std::string>& lines);
// "<level> <message>" of the file's lines whose source begins with `source`.
std::vector<std::string> LinesFrom(const std::wstring& path, const std::string& source);

std::string Narrow(const std::wstring& text);

}  // namespace plmx::testing
