// Reads trace files made from fuzz input: the input itself, or a valid trace
// that the input cuts short and patches, which reaches the buffer and record
// checks far more often. Delivered bytes are copied so that the sanitizers see
// any read past the file; the delivery contract is checked on each run.
#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>

#include "tests/support/EventBuilder.h"
#include "trace/EtlReader.h"
#include "trace/EtlWriter.h"

namespace {

std::string ValidTrace() {
    std::stringstream out;
    EtlWriter writer(out, EtlWriterOptions{512, u"fuzz", u"fuzz.etl"});
    for (uint16_t i = 0; i < 8; ++i) {
        plmx::testing::EventBuilder builder;
        builder.Provider(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}").EventId(801).SessionId(i);
        builder.Timestamp(133540924280090000 + (i * 7919) % 13).UserSid(L"S-1-5-21-1-2-3-1001");
        writer.Write(builder.Payload(std::vector<uint8_t>(16u * i, uint8_t(i))).Record());
    }
    writer.Finish();
    return out.str();
}

void Check(bool condition) {
    return condition ? void() : std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string valid = ValidTrace();
    if (size == 0) {
        return 0;
    }
    std::string file(reinterpret_cast<const char*>(data + 1), size - 1);
    if (data[0] % 2 != 0 && size >= 3) {
        // A 16-bit length to cut to, then (16-bit offset, byte) patches.
        file = valid.substr(0, data[1] | data[2] << 8);
        for (size_t at = 3; at + 3 <= size && !file.empty(); at += 3) {
            file[(data[at] | data[at + 1] << 8) % file.size()] = static_cast<char>(data[at + 2]);
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
            for (uint16_t i = 0; i < record.ExtendedDataCount; ++i) {
                const EVENT_HEADER_EXTENDED_DATA_ITEM& item = record.ExtendedData[i];
                touched.assign(reinterpret_cast<const char*>(item.DataPtr), item.DataSize);
            }
            touched.assign(static_cast<const char*>(record.UserData), record.UserDataLength);
        });
    Check(result.events == calls);
    Check(result.complete == result.error.empty());
    Check(result.complete || result.error.find(" at offset ") != std::string::npos);
    return 0;
}
