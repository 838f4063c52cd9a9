// Lines per second through the log writer against a bare format, fwrite and
// fflush loop writing the same lines to the same folder, from 1 and from 4
// threads (the bare loop then takes one lock around each line).
//
//   log_writer_bench [folder]
//
// Without a folder, a new one under the temporary directory is used and
// removed afterwards.

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "logonmon/PrintfFormat.h"

namespace {

constexpr int kLines = 100000;
constexpr int kRounds = 5;
constexpr wchar_t kFunction[] = L"LogonMonitor::OnLogonStart";
constexpr char kFormat[] = "Benchmark line %d of thread %d, user %ws, elapsed %I64u";

using Clock = std::chrono::steady_clock;

double Seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

void WriteThroughLogger(int thread, int lines) {
    for (int i = 0; i < lines; ++i) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, kFormat, i, thread, L"CORP\\user01",
                   static_cast<unsigned long long>(i) * 1000);
    }
}

// Seconds for kLines lines through the writer from `threads` threads.
double TimeLogger(int threads) {
    if (!OpenMainLog()) {
        fprintf(stderr, "cannot open the main log\n");
        exit(1);
    }
    const Clock::time_point start = Clock::now();
    std::vector<std::thread> writers;
    for (int thread = 0; thread < threads; ++thread) {
        writers.emplace_back(WriteThroughLogger, thread, kLines / threads);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    const double seconds = Seconds(Clock::now() - start);
    CloseMainLog();
    DeleteFileW(MainLogPath().c_str());
    return seconds;
}

int FormatLine(char* buffer, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = logonmon::FormatPrintfToBuffer(buffer, size, format, args);
    va_end(args);
    return length;
}

class CriticalSection {
  public:
    CriticalSection() { InitializeCriticalSection(&section_); }
    ~CriticalSection() { DeleteCriticalSection(&section_); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void Enter() { EnterCriticalSection(&section_); }
    void Leave() { LeaveCriticalSection(&section_); }

  private:
    CRITICAL_SECTION section_;
};

// The plainest writer of lines of the same shape: format the whole line,
// write it, flush it; with several threads, one lock around each line.
void WriteBare(FILE* file, CriticalSection* lock, int thread, int lines) {
    std::vector<char> buffer(0x10000);
    for (int i = 0; i < lines; ++i) {
        if (lock != nullptr) {
            lock->Enter();
        }
        SYSTEMTIME now;
        GetLocalTime(&now);
        int length = FormatLine(
            buffer.data(), buffer.size(),
            "%04d-%02d-%02dT%02d:%02d:%02d.%03d INFO (%.4x-%.4x) [%ws] Benchmark line %d of "
            "thread %d, user %ws, elapsed %I64u\n",
            now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds,
            static_cast<unsigned>(GetCurrentProcessId()),
            static_cast<unsigned>(GetCurrentThreadId()), kFunction, i, thread, L"CORP\\user01",
            static_cast<unsigned long long>(i) * 1000);
        if (length < 0) {
            length = static_cast<int>(buffer.size() - 1);
        }
        fwrite(buffer.data(), 1, static_cast<size_t>(length), file);
        fflush(file);
        if (lock != nullptr) {
            lock->Leave();
        }
    }
}

// Seconds for kLines lines through the bare loop from `threads` threads.
double TimeBareLoop(const std::wstring& folder, int threads) {
    const std::wstring path = folder + L"bare.txt";
    std::unique_ptr<FILE, decltype(&fclose)> file(_wfopen(path.c_str(), L"a+"), &fclose);
    if (!file) {
        fprintf(stderr, "cannot open %ls\n", path.c_str());
        exit(1);
    }
    CriticalSection lock;
    const Clock::time_point start = Clock::now();
    std::vector<std::thread> writers;
    for (int thread = 0; thread < threads; ++thread) {
        writers.emplace_back(WriteBare, file.get(), threads > 1 ? &lock : nullptr, thread,
                             kLines / threads);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    const double seconds = Seconds(Clock::now() - start);
    file.reset();
    DeleteFileW(path.c_str());
    return seconds;
}

std::wstring NewTempFolder() {
    wchar_t temp[MAX_PATH + 1];
    GetTempPathW(MAX_PATH + 1, temp);
    return std::wstring(temp) + L"plmx-bench-" + std::to_wstring(GetCurrentProcessId()) + L"\\";
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const bool ownFolder = argc < 2;
    const std::wstring folder = AddTrailingSeparator(ownFolder ? NewTempFolder() : argv[1]);
    Settings& settings = Settings::Instance();
    settings.LogPath = AddLongPathPrefix(folder);
    settings.LogLevel = LOG_LEVEL_ERROR | LOG_LEVEL_INFO;
    settings.LogMaxSize = 0xFFFFFFFF;

    // Rounds interleave the runs and keep each one's fastest: the machine may
    // be shared, and slow rounds are noise.
    double writer[2] = {1e9, 1e9};
    double bare[2] = {1e9, 1e9};
    const int threadCounts[2] = {1, 4};
    for (int round = 0; round < kRounds; ++round) {
        for (int run = 0; run < 2; ++run) {
            writer[run] = std::min(writer[run], TimeLogger(threadCounts[run]));
            bare[run] = std::min(bare[run], TimeBareLoop(folder, threadCounts[run]));
        }
    }

    printf("%d lines per run, best of %d rounds, folder %ls\n", kLines, kRounds, folder.c_str());
    for (int run = 0; run < 2; ++run) {
        printf(
            "%d thread(s): log writer %8.0f lines/s, bare loop %8.0f lines/s, "
            "writer time / bare time %.2f\n",
            threadCounts[run], kLines / writer[run], kLines / bare[run], writer[run] / bare[run]);
    }
    printf("log writer, 4 threads against the bare loop, 1 thread: %.2f\n", writer[1] / bare[0]);

    if (ownFolder) {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(folder), ignored);
    }
    return 0;
}
