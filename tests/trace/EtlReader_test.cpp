// The trace-file reader against files Windows wrote, against files the writer
// wrote, and against damaged files.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/EventBuilder.h"
#include "trace/EtlReader.h"
#include "trace/EtlWriter.h"
#include "trace/TextForms.h"

namespace {

using namespace plmx::testing;

struct Delivered {
    std::wstring provider;
    uint16_t eventId;
    int64_t timestamp;
    uint32_t sessionId;  // from a TS_ID item, or 0xFFFFFFFF
    std::vector<uint8_t> userData;
};

struct Read {
    EtlReadResult result;
    std::vector<Delivered> events;
};

Read ReadBytes(const std::string& bytes) {
    Read read;
    read.result = ReadEtlBytes(
        reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(),
        [&read](const EVENT_RECORD& record) {
            Delivered event{logonmon::GuidText(record.EventHeader.ProviderId),
                            record.EventHeader.EventDescriptor.Id,
                            record.EventHeader.TimeStamp.QuadPart,
                            0xFFFFFFFF,
                            {}};
            for (uint16_t i = 0; i < record.ExtendedDataCount; ++i) {
                const auto& item = record.ExtendedData[i];
                if (item.ExtType == logonmon::etw::kExtTypeTsId) {
                    std::memcpy(&event.sessionId,
                                reinterpret_cast<const void*>(static_cast<uintptr_t>(item.DataPtr)),
                                sizeof(uint32_t));
                }
            }
            const auto* data = static_cast<const uint8_t*>(record.UserData);
            event.userData.assign(data, data + record.UserDataLength);
            read.events.push_back(std::move(event));
        });
    return read;
}

constexpr wchar_t kWinlogon[] = L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}";
constexpr wchar_t kProfiles[] = L"{89B1E9F0-5AFF-44A6-9B44-0A07A7CE5845}";
constexpr uint64_t kTime = 133540924280090000;

// Six events whose timestamps are not in writing order, in buffers of 512
// bytes: the header buffer and three event buffers of two records each.
std::string WrittenTrace() {
    std::stringstream out;
    EtlWriter writer(out, EtlWriterOptions{512, u"logonmon_test", u"C:\\test.etl"});
    const uint64_t offsets[] = {30, 10, 50, 20, 60, 40};
    for (uint16_t i = 0; i < 6; ++i) {
        EventBuilder builder;
        builder.Provider(i % 2 == 0 ? kWinlogon : kProfiles)
            .EventId(static_cast<uint16_t>(100 + i))
            .Timestamp(kTime + offsets[i])
            .SessionId(i)
            .UserSid(L"S-1-5-21-1-2-3-1001")
            .Payload(std::vector<uint8_t>(40 + i, static_cast<uint8_t>(i)));
        writer.Write(builder.Record());
    }
    EXPECT_TRUE(writer.Finish());
    return out.str();
}

constexpr size_t kBuffer = 512;
constexpr size_t kFirstEvent = kBuffer + 72;

TEST(EtlReaderTest, RoundTripsWrittenEventsInTimestampOrder) {
    const Read read = ReadBytes(WrittenTrace());
    ASSERT_TRUE(read.result.complete) << read.result.error;
    EXPECT_EQ(read.result.events, 6u);
    const uint16_t expectedIds[] = {101, 103, 100, 105, 102, 104};
    ASSERT_EQ(read.events.size(), 6u);
    for (size_t i = 0; i < 6; ++i) {
        const Delivered& event = read.events[i];
        const uint16_t id = expectedIds[i];
        EXPECT_EQ(event.eventId, id);
        EXPECT_EQ(event.provider, id % 2 == 0 ? kWinlogon : kProfiles);
        EXPECT_EQ(event.timestamp, static_cast<int64_t>(kTime + 10 * (i + 1)));
        EXPECT_EQ(event.sessionId, id - 100u);
        EXPECT_EQ(event.userData,
                  std::vector<uint8_t>(40 + id - 100, static_cast<uint8_t>(id - 100)));
    }
}

TEST(EtlReaderTest, ReadsFilesThatWindowsWrote) {
    const std::filesystem::path folder(PLMX_ETL_REFERENCE_DIR);
    if (!std::filesystem::exists(folder)) {
        GTEST_SKIP() << "no reference traces at " << folder;
    }
    struct Case {
        const char* file;
        uint64_t events;
        const wchar_t* provider;  // of the first event
        bool oneProvider;
        int64_t first;  // the first event's time, converted by hand from its raw QPC reading
        int64_t end;    // the session's end time
    };
    const Case cases[] = {
        {"AMSITrace.etl", 19, L"{8E805EB3-6A8F-4A1E-90FA-A831D94E54A1}", true, 0,
         132264174000260662},
        {"lxcore_kernel.etl", 2, L"{0CD1C309-0878-4515-83DB-749843B3F5C9}", false,
         132392018769026510, 132392018832816874},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        std::vector<std::pair<std::wstring, int64_t>> events;
        const EtlReadResult result =
            ReadEtlFile((folder / c.file).string(), [&events](const EVENT_RECORD& record) {
                events.emplace_back(logonmon::GuidText(record.EventHeader.ProviderId),
                                    record.EventHeader.TimeStamp.QuadPart);
            });
        ASSERT_TRUE(result.complete) << result.error;
        EXPECT_EQ(result.events, c.events);
        ASSERT_EQ(events.size(), c.events);
        EXPECT_EQ(events.front().first, c.provider);
        if (c.first != 0) {
            EXPECT_EQ(events.front().second, c.first);
        }
        EXPECT_LE(events.back().second, c.end);
        for (size_t i = 1; i < events.size(); ++i) {
            EXPECT_LE(events[i - 1].second, events[i].second);
            EXPECT_TRUE(!c.oneProvider || events[i].first == c.provider);
        }
    }
}

TEST(EtlReaderTest, DamageStopsWithItsOffsetAfterTheEventsBeforeIt) {
    auto setU16 = [](std::string& bytes, size_t at, uint16_t value) {
        std::memcpy(bytes.data() + at, &value, sizeof value);
    };
    struct Case {
        const char* name;
        std::function<void(std::string&)> damage;
        std::string error;  // contained in the result's error
        uint64_t eventsBefore;
    };
    const size_t lastBuffer = 3 * kBuffer;
    const Case cases[] = {
        {"truncated last buffer", [](std::string& b) { b.resize(b.size() - 100); },
         "truncated buffer: 412 of 512 bytes at offset " + std::to_string(lastBuffer), 4},
        {"record size past the buffer", [&](std::string& b) { setU16(b, kFirstEvent, 600); },
         "a record of 600 bytes runs past its buffer's data, which ends at offset", 0},
        {"zero-size record", [&](std::string& b) { setU16(b, lastBuffer + 72, 0); },
         "record size 0 is too small at offset " + std::to_string(lastBuffer + 72), 4},
        {"header counts a buffer that is not there",
         [&](std::string& b) { setU16(b, 72 + 32 + 0x24, 5); },
         "the log-file header counts 5 buffers, the file holds 4; the next is missing at offset " +
             std::to_string(4 * kBuffer),
         6},
        {"data end beyond the buffer", [&](std::string& b) { setU16(b, kBuffer + 0x30, 513); },
         "buffer data end 513 lies outside its buffer at offset " + std::to_string(kBuffer + 0x30),
         0},
        {"extended data item too long",
         [&](std::string& b) { setU16(b, 2 * kBuffer + 72 + 80, 400); },
         "an extended data item runs past its record at offset " +
             std::to_string(2 * kBuffer + 72 + 80),
         2},
        {"not a trace", [](std::string& b) { b.assign(400, 'x'); }, "is not usable at offset 0", 0},
        {"unknown marker", [&](std::string& b) { setU16(b, kFirstEvent + 2, 0x0013); },
         "unknown record marker 0x001300B0 at offset " + std::to_string(kFirstEvent), 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string bytes = WrittenTrace();
        c.damage(bytes);
        const Read read = ReadBytes(bytes);
        EXPECT_FALSE(read.result.complete);
        EXPECT_NE(read.result.error.find(c.error), std::string::npos) << read.result.error;
        EXPECT_EQ(read.result.events, c.eventsBefore);
        EXPECT_EQ(read.events.size(), c.eventsBefore);
    }
    EXPECT_EQ(ReadEtlFile("no such file.etl", [](const EVENT_RECORD&) {}).error,
              "cannot open no such file.etl");
}

}  // namespace
