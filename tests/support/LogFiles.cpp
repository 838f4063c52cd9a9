#include "tests/support/LogFiles.h"

#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace plmx::testing {

namespace {

// "<timestamp> <level> (<ids>) [<source>] " or, for events,
// "<timestamp> <level> (<ids>) [<event id>] [<source>] "; bounded, so that
// matching a long line needs no deep recursion.
const std::regex kPrefix(
    R"(^.{23} ([^ ]{1,16}) \([^)]{0,64}\) (?:\[\d{1,5}\] )?\[([^\]]{0,256})\] )");

}  // namespace

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

StdoutCapture::StdoutCapture() : savedDescriptor_(_dup(_fileno(stdout))) {
    fflush(stdout);
    const int file = _wopen(Path().c_str(), _O_WRONLY | _O_CREAT | _O_BINARY, _S_IREAD | _S_IWRITE);
    _dup2(file, _fileno(stdout));
    _close(file);
}

StdoutCapture::~StdoutCapture() {
    fflush(stdout);
    _dup2(savedDescriptor_, _fileno(stdout));
    _close(savedDescriptor_);
}

std::wstring StdoutCapture::Path() const {
    fflush(stdout);
    return folder_.Path() + L"stdout";
}

std::string ReadFileBytes(const std::wstring& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(std::filesystem::path(path), std::ios::binary).rdbuf();
    return bytes.str();
}

std::vector<std::string> ReadLines(const std::wstring& path) {
    std::istringstream bytes(ReadFileBytes(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(bytes, line);) {
        if (line.ends_with('\r')) {
            line.pop_back();
        }
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> Tagged(const std::vector<std::string>& lines) {
    std::vector<std::string> tagged;
    for (const std::string& line : lines) {
        std::smatch prefix;
        tagged.push_back(std::regex_search(line, prefix, kPrefix)
                             ? prefix.str(1) + " [" + prefix.str(2) + "] " + prefix.suffix().str()
                             : "<unparsed> " + line);
    }
    return tagged;
}

std::vector<std::string> LinesFrom(const std::wstring& path, const std::string& source) {
    std::vector<std::string> lines;
    for (const std::string& line : ReadLines(path)) {
        std::smatch prefix;
        if (std::regex_search(line, prefix, kPrefix) && prefix.str(2).starts_with(source)) {
            lines.push_back(prefix.str(1) + " " + prefix.suffix().str());
        }
    }
    return lines;
}

std::string Narrow(const std::wstring& text) {
    return std::string(text.begin(), text.end());
}

}  // namespace plmx::testing
