#include "log/LogWriter.h"

#include <windows.h>
#include <fcntl.h>
#include <io.h>

#include <cstring>
#include <memory>
#include <stdexcept>

#include "app/Settings.h"
#include "log/LogLock.h"
#include "log/SessionLog.h"
#include "logonmon/CurrentRecord.h"
#include "logonmon/PrintfFormat.h"
#include "logonmon/SessionContext.h"
#include "trace/EventRecordData.h"
#include "trace/TextForms.h"
#include "trace/UniqueHandle.h"

namespace {

constexpr size_t kLineBufferSize = 0x10000;
constexpr size_t kTimestampSize = 24;
constexpr wchar_t kMainLogName[] = L"plmx.txt";
constexpr wchar_t kBackupSuffix[] = L".txt.bak";

class RecursiveLock {
  public:
    RecursiveLock() { InitializeCriticalSection(&section_); }
    ~RecursiveLock() { DeleteCriticalSection(&section_); }
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

    void Lock() { EnterCriticalSection(&section_); }
    void Unlock() { LeaveCriticalSection(&section_); }

  private:
    CRITICAL_SECTION section_;
};

// The writer's shared state; everything but the lock is guarded by the lock.
struct LogState {
    RecursiveLock lock;
    FILE* mainLog = nullptr;
    std::wstring mainLogPath;
    std::unique_ptr<char[]> lineBuffer;

    char* LineBuffer() {
        if (!lineBuffer) {
            lineBuffer.reset(new char[kLineBufferSize]());
        }
        return lineBuffer.get();
    }
};

// Never destroyed, so that lines written while static objects are torn down
// still find the lock.
LogState& State() {
    static LogState* const state = new LogState;
    return *state;
}

class FileDescriptor {
  public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    ~FileDescriptor() {
        if (descriptor_ != -1) {
            _close(descriptor_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int Get() const { return descriptor_; }
    void Release() { descriptor_ = -1; }

  private:
    int descriptor_;
};

void CloseStream(FILE*& stream) {
    if (stream != nullptr) {
        fflush(stream);
        fclose(stream);
        stream = nullptr;
    }
}

// Opens `path` for reading and appending in text mode, positioned at its end.
// Other processes may read, write, rename and delete the file meanwhile.
FILE* OpenShared(const std::wstring& path) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return nullptr;
    }
    UniqueHandle handle(file);
    FileDescriptor descriptor(
        _open_osfhandle(reinterpret_cast<intptr_t>(handle.Get()), _O_APPEND | _O_TEXT));
    if (descriptor.Get() == -1) {
        return nullptr;
    }
    handle.Release();
    FILE* stream = _fdopen(descriptor.Get(), "a+");
    if (stream == nullptr) {
        return nullptr;
    }
    descriptor.Release();
    fseek(stream, 0, SEEK_END);
    return stream;
}

FILE* OpenLogFile(const std::wstring& path) {
    RecurseCreateFolder(Settings::Instance().LogPath);
    FILE* stream = OpenShared(path);
    if (stream == nullptr) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, L"OpenLog", "Failed to open Log: %ws", path.c_str());
    }
    return stream;
}

// The stream slot a line goes to when the caller names none: the session log
// of the event being handled when that log is open, else the main log.
FILE** ChooseSlot(LogState& state, logonmon::EventRecordData* record) {
    if (record != nullptr && record->sessionContext) {
        const std::shared_ptr<SessionLog> sessionLog = SessionLogOf(*record->sessionContext);
        if (sessionLog->stream != nullptr) {
            return &sessionLog->stream;
        }
    }
    return &state.mainLog;
}

// Levels with several bits take the tag of the lowest known one.
const char* LevelTag(uint32_t level) {
    static constexpr struct {
        uint32_t bit;
        const char* tag;
    } kTags[] = {
        {LOG_LEVEL_ERROR, "ERROR"}, {LOG_LEVEL_INFO, "INFO"},   {LOG_LEVEL_DEBUG, "DEBUG"},
        {LOG_LEVEL_TRACE, "TRACE"}, {LOG_LEVEL_FATAL, "FATAL"},
    };
    for (const auto& entry : kTags) {
        if ((level & entry.bit) != 0) {
            return entry.tag;
        }
    }
    return "NONE";
}

// Returns the length written, or -1 when the text did not fit or could not be
// converted.
int FormatInto(char* buffer, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = logonmon::FormatPrintfToBuffer(buffer, size, format, args);
    va_end(args);
    return length;
}

void FormatTimestamp(const SYSTEMTIME& time, char (&text)[kTimestampSize]) {
    FormatInto(text, kTimestampSize, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", time.wYear, time.wMonth,
               time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
}

// Writes the line prefix at the start of `buffer`; returns its length, or -1
// as FormatInto does.
int FormatPrefix(char* buffer, const logonmon::EventRecordData* record, uint32_t level,
                 const wchar_t* function) {
    char timestamp[kTimestampSize];
    if (record != nullptr) {
        // The event's own time, so that a replayed trace shows the trace's times.
        FormatTimestamp(
            logonmon::UtcToLocalSystemTime(logonmon::FileTimeToUtcSystemTime(record->timestamp)),
            timestamp);
        const wchar_t* source =
            record->providerName.empty() ? function : record->providerName.c_str();
        return FormatInto(buffer, kLineBufferSize, "%s %ws (%ws) [%04d] [%ws] ", timestamp,
                          record->LevelName().c_str(), record->LogPrefix().c_str(),
                          static_cast<int>(record->eventId), source);
    }
    SYSTEMTIME now;
    GetLocalTime(&now);
    FormatTimestamp(now, timestamp);
    return FormatInto(buffer, kLineBufferSize, "%s %s (%.4x-%.4x) [%ws] ", timestamp,
                      LevelTag(level), static_cast<unsigned>(GetCurrentProcessId()),
                      static_cast<unsigned>(GetCurrentThreadId()), function);
}

// Formats one line into the shared buffer and writes it with one write and
// one flush. Messages that do not fit are cut; the line end needs no room of
// its own because it replaces the terminating null.
void WriteLine(LogState& state, FILE* stream, const logonmon::EventRecordData* record,
               uint32_t level, const wchar_t* function, const char* format, va_list args) {
    char* const buffer = state.LineBuffer();
    // A failed format ends at its last valid byte, whether it ran out of room
    // or met an argument it could not convert.
    const auto validLength = [](const char* text, int length) {
        return length < 0 ? std::strlen(text) : static_cast<size_t>(length);
    };
    const size_t prefixLength = validLength(buffer, FormatPrefix(buffer, record, level, function));
    const size_t available = kLineBufferSize - prefixLength;
    const size_t messageLength =
        validLength(buffer + prefixLength,
                    logonmon::FormatPrintfToBuffer(buffer + prefixLength, available, format, args));
    const size_t length = prefixLength + messageLength;
    buffer[length] = '\n';
    fwrite(buffer, 1, length + 1, stream);
    fflush(stream);
}

}  // namespace

LogLockGuard::LogLockGuard() {
    State().lock.Lock();
}

LogLockGuard::~LogLockGuard() {
    State().lock.Unlock();
}

void LogMessage(FILE** target, uint32_t level, const wchar_t* function, const char* format, ...) {
    va_list args;
    va_start(args, format);
    // A failed roll throws out of the write; the list is ended either way.
    try {
        LogMessageV(target, level, function, format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
}

void LogMessageV(FILE** target, uint32_t level, const wchar_t* function, const char* format,
                 va_list args) {
    logonmon::EventRecordData* const record = logonmon::CurrentRecord();
    LogState& state = State();
    LogLockGuard lock;
    // Chosen before the level check: a session gets its log record even
    // from lines that are filtered out.
    FILE** const slot = target != nullptr ? target : ChooseSlot(state, record);
    const Settings& settings = Settings::Instance();
    if ((level & settings.LogLevel) == 0) {
        return;
    }
    WriteLine(state, *slot != nullptr ? *slot : stdout, record, level, function, format, args);

    // The line that crosses the limit stays in the old file.
    if (slot == &state.mainLog && state.mainLog != nullptr) {
        const long long position = _ftelli64(state.mainLog);
        if (position >= 0 && position > static_cast<long long>(settings.LogMaxSize)) {
            RollMainLog();
        }
    }
}

bool OpenMainLog() {
    LogState& state = State();
    const std::wstring path = Settings::Instance().LogPath + kMainLogName;
    long long size = -1;
    {
        LogLockGuard lock;
        FILE* stream = OpenLogFile(path);
        if (stream == nullptr) {
            return false;
        }
        CloseStream(state.mainLog);
        state.mainLog = stream;
        state.mainLogPath = path;
        size = _ftelli64(stream);
    }
    if (size >= 0) {
        LogMessage(nullptr, LOG_LEVEL_INFO, L"OpenMainLog", "Opened main log, Size: %lld", size);
    }
    return true;
}

void CloseMainLog() {
    LogLockGuard lock;
    CloseStream(State().mainLog);
}

std::wstring MainLogPath() {
    LogLockGuard lock;
    return State().mainLogPath;
}

bool OpenLog(const std::wstring& path, SessionLog& sessionLog) {
    LogLockGuard lock;
    FILE* stream = OpenLogFile(path);
    if (stream == nullptr) {
        return false;
    }
    CloseStream(sessionLog.stream);
    sessionLog.stream = stream;
    sessionLog.path = path;
    return true;
}

void RollMainLog() {
    LogState& state = State();
    LogLockGuard lock;
    CloseStream(state.mainLog);

    std::wstring backupPath = state.mainLogPath;
    const size_t extension = backupPath.rfind(L'.');
    if (extension == std::wstring::npos) {
        throw std::out_of_range("invalid string position");
    }
    backupPath.replace(extension, std::wstring::npos, kBackupSuffix);
    if (!MoveFileExW(state.mainLogPath.c_str(), backupPath.c_str(), MOVEFILE_REPLACE_EXISTING)) {
        throw std::runtime_error("Failed to roll main log file");
    }
    if (!OpenMainLog()) {
        throw std::runtime_error("Failed to open main log after rolling");
    }
}

void CloseSessionLog(SessionLog& sessionLog) {
    LogLockGuard lock;
    CloseStream(sessionLog.stream);
}
