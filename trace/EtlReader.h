// Reads .etl trace files as Windows writes them, without the operating
// system's trace consumer, and delivers their EVENT_HEADER records as
// ProcessTrace would: in timestamp order, timestamps as FILETIMEs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "trace/EtwTypes.h"

struct EtlReadResult {
    uint64_t events = 0;  // records delivered
    bool complete = false;
    // Empty when complete; otherwise what is wrong and at which file offset.
    std::string error;
};

// Each record and everything it points to is valid only during the call.
// Classic and system records (the log-file header among them) are walked
// over, not delivered. On damage, the records read before it are delivered,
// then the result names the damage.
EtlReadResult ReadEtlFile(const std::string& path,
                          const std::function<void(const EVENT_RECORD&)>& onEvent);
EtlReadResult ReadEtlBytes(const uint8_t* data, size_t size,
                           const std::function<void(const EVENT_RECORD&)>& onEvent);
