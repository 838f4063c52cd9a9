#include "tests/support/LogFiles.h"

#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <string>
#include <stdexcept>

#include "log/LogWriter.h"

namespace plmx::testing {

TempFolder::TempFolder() {
    static std::atomic<unsigned> counter{0};
    wchar_t temp[MAX_PATH + 1];
    const DWORD length = GetTempPathW(MAX_PATH + 1, temp);
    if (length == 0 || length > MAX_PATH) {
        throw std::runtime_error("no temporary directory");
    }
    path_ = std::wstring(temp) + L"plmx-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
            std::to_wstring(GetTickCount64()) + L"-" + std::to_wstring(counter++) + L"\\";
    if (!CreateDirectoryW(path_.c_str(), nullptr)) {
        throw std::runtime_error("cannot create a temporary folder");
    }
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(path_), ignored);
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
    std::wstring path = MainLogPath();
    return path.substr(0, path.rfind(L'.')) + L".txt.bak";
}

StdoutCapture::StdoutCapture() : file_(folder_.Path() + L"stdout.txt") {
    fflush(stdout);
    savedDescriptor_ = _dup(_fileno(stdout));
    const int descriptor =
        _wopen(file_.c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY, _S_IREAD | _S_IWRITE);
    if (savedDescriptor_ == -1 || descriptor == -1) {
        throw std::runtime_error("cannot capture standard output");
    }
    _dup2(descriptor, _fileno(stdout));
    _close(descriptor);
}

StdoutCapture::~StdoutCapture() {
    fflush(stdout);
    _dup2(savedDescriptor_, _fileno(stdout));
    _close(savedDescriptor_);
}

std::string StdoutCapture::Text() const {
    fflush(stdout);
    return ReadFileBytes(file_);
}

std::string ReadFileBytes(const std::wstring& path) {
    // Shares everything, like any reader of a log that is still open.
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return {};
    }
    std::string bytes;
    char chunk[65536];
    DWORD read = 0;
    while (ReadFile(file, chunk, sizeof(chunk), &read, nullptr) && read > 0) {
        bytes.append(chunk, read);
    }
    CloseHandle(file);
    return bytes;
}

std::vector<std::string> SplitLines(const std::string& bytes) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < bytes.size()) {
        const size_t end = bytes.find("\r\n", start);
        if (end == std::string::npos) {
            lines.push_back(bytes.substr(start));
            break;
        }
        lines.push_back(bytes.substr(start, end - start));
        start = end + 2;
    }
    return lines;
}

std::vector<std::string> ReadLines(const std::wstring& path) {
    return SplitLines(ReadFileBytes(path));
}

namespace {

bool IsTimestamp(const std::string& text) {
    static constexpr char kShape[] = "dddd-dd-ddTdd:dd:dd.ddd";
    if (text.size() != sizeof(kShape) - 1) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) {
            return false;
        }
    }
    return true;
}

// Takes the text up to `delimiter` from `position` on and moves past it.
bool TakeUntil(const std::string& line, size_t& position, const char* delimiter,
               std::string* taken) {
    const size_t end = line.find(delimiter, position);
    if (end == std::string::npos) {
        return false;
    }
    *taken = line.substr(position, end - position);
    position = end + std::char_traits<char>::length(delimiter);
    return true;
}

}  // namespace

std::optional<LogLine> ParseLogLine(const std::string& line) {
    LogLine parsed;
    size_t position = 0;
    if (!TakeUntil(line, position, " ", &parsed.timestamp) || !IsTimestamp(parsed.timestamp) ||
        !TakeUntil(line, position, " (", &parsed.level) ||
        !TakeUntil(line, position, ") [", &parsed.ids)) {
        return std::nullopt;
    }
    const size_t close = line.find("] ", position);
    if (close == std::string::npos) {
        return std::nullopt;
    }
    const std::string first = line.substr(position, close - position);
    position = close + 2;
    const bool eventLine = !first.empty() &&
                           first.find_first_not_of("0123456789") == std::string::npos &&
                           line.compare(position, 1, "[") == 0;
    if (eventLine) {
        parsed.eventId = first;
        if (!TakeUntil(line, ++position, "] ", &parsed.source)) {
            return std::nullopt;
        }
    } else {
        parsed.source = first;
    }
    parsed.message = line.substr(position);
    return parsed;
}

std::vector<std::string> Messages(const std::vector<std::string>& lines) {
    std::vector<std::string> messages;
    for (const std::string& line : lines) {
        const std::optional<LogLine> parsed = ParseLogLine(line);
        messages.push_back(parsed ? parsed->message : "<unparsed> " + line);
    }
    return messages;
}

std::string Narrow(const std::wstring& text) {
    std::string narrow;
    for (wchar_t c : text) {
        narrow += static_cast<char>(c);
    }
    return narrow;
}

}  // namespace plmx::testing
