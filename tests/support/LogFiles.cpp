#include "tests/support/LogFiles.h"

#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "log/LogWriter.h"

namespace plmx::testing {

TempFolder::TempFolder() {
    static std::atomic<unsigned> counter{0};
    const std::wstring name =
        L"plmx-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(counter++);
    path_ = (std::filesystem::temp_directory_path() / name).wstring() + L"\\";
    std::filesystem::remove_all(path_);
    std::filesystem::create_directory(path_);
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

ScopedMainLog::ScopedMainLog(const std::wstring& folder, uint32_t maxSize)
    : saved_(Settings::Instance()) {
    Settings& settings = Settings::Instance();
    settings.LogPath = AddTrailingSeparator(AddLongPathPrefix(folder));
    settings.LogLevel = 0x1F;
    settings.LogMaxSize = maxSize;
    if (!OpenMainLog()) {
        throw std::runtime_error("cannot open the main log");
    }
}

ScopedMainLog::~ScopedMainLog() {
    CloseMainLog();
    Settings::Instance() = saved_;
}

std::wstring ScopedMainLog::Path() const {
    return MainLogPath();
}

std::wstring ScopedMainLog::BackupPath() const {
    const std::wstring path = MainLogPath();
    return path.substr(0, path.rfind(L'.')) + L".txt.bak";
}

StdoutCapture::StdoutCapture() {
    fflush(stdout);
    savedDescriptor_ = _dup(_fileno(stdout));
    const int file = _wopen((folder_.Path() + L"stdout").c_str(), _O_WRONLY | _O_CREAT | _O_BINARY,
                            _S_IREAD | _S_IWRITE);
    _dup2(file, _fileno(stdout));
    _close(file);
}

StdoutCapture::~StdoutCapture() {
    fflush(stdout);
    _dup2(savedDescriptor_, _fileno(stdout));
    _close(savedDescriptor_);
}

std::string StdoutCapture::Text() const {
    return ReadFileBytes(Path());
}

std::wstring StdoutCapture::Path() const {
    fflush(stdout);
    return folder_.Path() + L"stdout";
}

std::string ReadFileBytes(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

std::vector<std::string> ReadLines(const std::wstring& path) {
    std::istringstream bytes(ReadFileBytes(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(bytes, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        lines.push_back(line);
    }
    return lines;
}

std::optional<LogLine> ParseLogLine(const std::string& line) {
    // "<timestamp> <level> (<ids>) [<source>] " or, for events,
    // "<timestamp> <level> (<ids>) [<event id>] [<source>] ".
    const size_t level = line.find(' ') + 1;
    const size_t open = line.find(" (", level);
    const size_t close = line.find(") [", open);
    if (level != 24 || open == std::string::npos || close == std::string::npos) {
        return std::nullopt;
    }
    size_t source = close + 3;
    const size_t idEnd = line.find("] [", source);
    if (idEnd != std::string::npos && idEnd > source &&
        line.find_first_not_of("0123456789", source) == idEnd) {
        source = idEnd + 3;
    }
    const size_t sourceEnd = line.find("] ", source);
    if (sourceEnd == std::string::npos) {
        return std::nullopt;
    }
    return LogLine{line.substr(level, open - level), line.substr(open + 2, close - open - 2),
                   line.substr(source, sourceEnd - source), line.substr(sourceEnd + 2)};
}

std::vector<std::string> LinesFrom(const std::wstring& path, const std::string& source) {
    std::vector<std::string> lines;
    for (const std::string& text : ReadLines(path)) {
        const std::optional<LogLine> line = ParseLogLine(text);
        if (line && line->source.starts_with(source)) {
            lines.push_back(line->level + " " + line->message);
        }
    }
    return lines;
}

std::vector<std::string> Tagged(const std::vector<std::string>& lines) {
    std::vector<std::string> tagged;
    for (const std::string& line : lines) {
        const std::optional<LogLine> parsed = ParseLogLine(line);
        tagged.push_back(parsed ? parsed->level + " [" + parsed->source + "] " + parsed->message
                                : "<unparsed> " + line);
    }
    return tagged;
}

std::string Narrow(const std::wstring& text) {
    return std::string(text.begin(), text.end());
}

}  // namespace plmx::testing
