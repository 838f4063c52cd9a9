// Lines per second through the log writer against a bare format, fwrite and
// fflush loop writing the same lines to the same folder.
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

// Seconds for kLines lines of the same shape written by the plainest loop:
// format the whole line, write it, flush it.
double TimeBareLoop(const std::wstring& folder) {
    const std::wstring path = folder + L"bare.txt";
    FILE* file = _wfopen(path.c_str(), L"a+");
    if (file == nullptr) {
        fprintf(stderr, "cannot open %ls\n", path.c_str());
        exit(1);
    }
    std::vector<char> buffer(0x10000);
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < kLines; ++i) {
        SYSTEMTIME now;
        GetLocalTime(&now);
        int length = FormatLine(
            buffer.data(), buffer.size(),
            "%04d-%02d-%02dT%02d:%02d:%02d.%03d INFO (%.4x-%.4x) [%ws] Benchmark line %d of "
            "thread %d, user %ws, elapsed %I64u\n",
            now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds,
            static_cast<unsigned>(GetCurrentProcessId()),
            static_cast<unsigned>(GetCurrentThreadId()), kFunction, i, 0, L"CORP\\user01",
            static_cast<unsigned long long>(i) * 1000);
        if (length < 0) {
            length = static_cast<int>(buffer.size() - 1);
        }
        fwrite(buffer.data(), 1, static_cast<size_t>(length), file);
        fflush(file);
    }
    const double seconds = Seconds(Clock::now() - start);
    fclose(file);
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
    RecurseCreateFolder(folder);

    Settings& settings = Settings::Instance();
    settings.LogPath = AddLongPathPrefix(folder);
    settings.LogLevel = LOG_LEVEL_ERROR | LOG_LEVEL_INFO;
    settings.LogMaxSize = 0xFFFFFFFF;

    // Rounds interleave the three runs and keep each one's fastest: the
    // machine may be shared, and slow rounds are noise.
    double oneThread = 1e9;
    double fourThreads = 1e9;
    double bare = 1e9;
    for (int round = 0; round < kRounds; ++round) {
        oneThread = std::min(oneThread, TimeLogger(1));
        fourThreads = std::min(fourThreads, TimeLogger(4));
        bare = std::min(bare, TimeBareLoop(folder));
    }

    printf("%d lines each, best of %d rounds, folder %ls\n", kLines, kRounds, folder.c_str());
    printf("log writer, 1 thread:   %10.0f lines/s\n", kLines / oneThread);
    printf("log writer, 4 threads:  %10.0f lines/s\n", kLines / fourThreads);
    printf("bare loop, 1 thread:    %10.0f lines/s\n", kLines / bare);
    printf("writer time / bare time, 1 thread:  %.2f\n", oneThread / bare);
    printf("writer time / bare time, 4 threads: %.2f\n", fourThreads / bare);

    if (ownFolder) {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(folder), ignored);
    }
    return 0;
}
