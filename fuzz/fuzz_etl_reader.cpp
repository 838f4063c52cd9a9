// Reads trace files made from fuzz input: either the input itself, or a valid
// trace of a few buffers that the input cuts short and overwrites in places,
// which reaches the buffer and record checks far more often than random
// bytes do. Every delivered byte is touched so that the sanitizers see any
// read past the file; the delivery contract is checked on each run.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "tests/support/EventBuilder.h"
#include "trace/EtlReader.h"
#include "trace/EtlWriter.h"

namespace {

using namespace plmx::testing;

std::string ValidTrace() {
    std::stringstream out;
    EtlWriter writer(out, EtlWriterOptions{512, u"fuzz", u"fuzz.etl"});
    for (uint16_t i = 0; i < 8; ++i) {
        EventBuilder builder;
        builder.Provider(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}")
            .EventId(801)
            .Timestamp(133540924280090000 + (i * 7919) % 13)
            .SessionId(i)
            .UserSid(L"S-1-5-21-1-2-3-1001")
            .Payload(std::vector<uint8_t>(16u * i, static_cast<uint8_t>(i)));
        writer.Write(builder.Record());
    }
    writer.Finish();
    return out.str();
}

void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    std::string file;
    if (data[0] % 2 == 0) {
        file.assign(reinterpret_cast<const char*>(data + 1), size - 1);
    } else {
        static const std::string valid = ValidTrace();
        file = valid;
        // Then a 16-bit length to cut to, then (16-bit offset, byte) patches.
        size_t at = 1;
        if (size >= at + 2) {
            const size_t length = data[at] | data[at + 1] << 8;
            file.resize(std::min(file.size(), length));
            at += 2;
        }
        for (; at + 3 <= size && !file.empty(); at += 3) {
            const size_t offset = (data[at] | data[at + 1] << 8) % file.size();
            file[offset] = static_cast<char>(data[at + 2]);
        }
    }

    uint64_t calls = 0;
    int64_t previous = INT64_MIN;
    std::string touched;
    const EtlReadResult result = ReadEtlBytes(
        reinterpret_cast<const uint8_t*>(file.data()), file.size(),
        [&](const EVENT_RECORD& record) {
            ++calls;
            Check(record.EventHeader.TimeStamp.QuadPart >= previous);
            previous = record.EventHeader.TimeStamp.QuadPart;
            // Copies are checked by the address sanitizer's interceptors.
            for (uint16_t i = 0; i < record.ExtendedDataCount; ++i) {
                const auto* item = reinterpret_cast<const char*>(
                    static_cast<uintptr_t>(record.ExtendedData[i].DataPtr));
                touched.assign(item, record.ExtendedData[i].DataSize);
            }
            touched.assign(static_cast<const char*>(record.UserData), record.UserDataLength);
        });
    Check(result.events == calls);
    Check(result.complete == result.error.empty());
    Check(result.complete || result.error.find(" at offset ") != std::string::npos);
    return 0;
}
