// The log of one followed logon session, held by its session context.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "log/AccessToken.h"

namespace logonmon {
struct SESSION_CONTEXT;
}

// What the profile walk found, sizes in megabytes (1,048,576 bytes).
struct ProfileStatistics {
    uint32_t files = 0;
    uint32_t folders = 0;
    float sizeMB = 0.0f;
    // Files below 1, 10, 100, 1024, 10240 MB, and the rest.
    uint32_t sizeBuckets[6] = {};
};

// The profile folder's volume, as the system reports it.
struct DiskStatistics {
    uint64_t bytesAvailableToUser = 0;
    uint64_t totalBytes = 0;
    uint64_t freeBytes = 0;
};

// Running figures of one performance counter over a session's samples. The
// minimum starts at 0 and is only ever lowered, so it stays 0: the sampling
// has always reported it so.
struct CounterFigures {
    uint64_t sum = 0;
    uint64_t maximum = 0;
    uint64_t minimum = 0;
};

// CPU (percent) and memory figures sampled while the session was followed.
struct SessionMetrics {
    uint32_t cpuSamples = 0;
    CounterFigures userCpu;
    CounterFigures kernelCpu;
    CounterFigures idleCpu;
    uint32_t memorySamples = 0;
    CounterFigures availableMB;
    CounterFigures committedBytes;
    CounterFigures nonPagedPoolBytes;
    CounterFigures pagedPoolBytes;
};

struct SessionLog {
    // Draws a new identifier; the log is not open yet.
    SessionLog();
    // Closes the stream if it is still open.
    ~SessionLog();
    SessionLog(const SessionLog&) = delete;
    SessionLog& operator=(const SessionLog&) = delete;

    FILE* stream = nullptr;  // written under the log lock only
    std::wstring path;
    // Upper-case GUID text without braces; part of the file names.
    std::wstring logId;
    AccessToken userToken;
    ProfileStatistics profile;
    DiskStatistics disk;
    SessionMetrics metrics;
};

// The session's log record, created empty under the log lock when the
// session has none yet.
std::shared_ptr<SessionLog> SessionLogOf(logonmon::SESSION_CONTEXT& session);
