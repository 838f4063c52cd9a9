// The trace-file reader against files Windows wrote, against files the writer
// wrote, and against damaged files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/EventBuilder.h"
#include "trace/EtlReader.h"
#include "trace/EtlWriter.h"
#include "trace/EventRecordData.h"
#include "trace/TextForms.h"

namespace {

using namespace plmx::testing;

constexpr wchar_t kWinlogon[] = L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}";
constexpr wchar_t kProfiles[] = L"{89B1E9F0-5AFF-44A6-9B44-0A07A7CE5845}";
constexpr uint64_t kTime = 133540924280090000;
constexpr size_t kBuffer = 512;
constexpr size_t kFirstEvent = kBuffer + 72;

// Each delivered event as "<id> <provider's first part> <time - kTime> <session> <user data>".
EtlReadResult ReadBytes(const std::string& bytes, std::vector<std::wstring>* events) {
    ScopedFakeTdh tdh;
    const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
    return ReadEtlBytes(data, bytes.size(), [&](const EVENT_RECORD& record) {
        const logonmon::EventRecordData e(record);
        events->push_back(
            std::to_wstring(e.eventId) + L" " + logonmon::GuidText(e.providerId).substr(1, 4) +
            L" " + std::to_wstring(e.timestamp - kTime) + L" " + std::to_wstring(e.sessionId) +
            L" " + std::to_wstring(e.userData.size()) + L"x" + std::to_wstring(e.userData.back()));
    });
}

// Six events, by default not in writing order, in buffers of 512 bytes: the
// header buffer and three event buffers of two records each.
std::string WrittenTrace(bool inOrder = false) {
    std::stringstream out;
    EtlWriter writer(out, EtlWriterOptions{kBuffer, u"logonmon_test", u"C:\\test.etl"});
    uint64_t offsets[] = {30, 10, 30, 20, 60, 40};  // equal times keep their order
    if (inOrder) {
        std::ranges::sort(offsets);
    }
    for (uint16_t i = 0; i < 6; ++i) {
        EventBuilder builder;
        builder.Provider(i % 2 == 0 ? kWinlogon : kProfiles).EventId(100 + i).SessionId(i);
        builder.Timestamp(kTime + offsets[i]).UserSid(L"S-1-5-21-1-2-3-1001");
        writer.Write(builder.Payload(std::vector<uint8_t>(40 + i, i)).Record());
    }
    // A record that no buffer can hold is refused, as is a buffer too small
    // for the log-file header.
    EventBuilder tooLarge;
    EXPECT_THAT([&] { writer.Write(tooLarge.Payload(std::vector<uint8_t>(kBuffer)).Record()); },
                ::testing::ThrowsMessage<std::length_error>(
                    ::testing::StrEq("event record too large for an ETL buffer")));
    std::stringstream unused;
    EXPECT_THAT(
        [&] {
            EtlWriter(unused, EtlWriterOptions{256, u"logonmon_test", u"C:\\test.etl"});
        },
        ::testing::ThrowsMessage<std::length_error>(
            ::testing::StrEq("ETL buffer size too small for the log-file header")));
    EXPECT_TRUE(writer.Finish());
    return out.str();
}

TEST(EtlReaderTest, RoundTripsWrittenEventsInTimestampOrder) {
    std::vector<std::wstring> events;
    const EtlReadResult result = ReadBytes(WrittenTrace(), &events);
    ASSERT_TRUE(result.complete) << result.error;
    EXPECT_EQ(result.events, 6u);
    EXPECT_EQ(events, (std::vector<std::wstring>{L"101 89B1 10 1 41x1", L"103 89B1 20 3 43x3",
                                                 L"100 DBE9 30 0 40x0", L"102 DBE9 30 2 42x2",
                                                 L"105 89B1 40 5 45x5", L"104 DBE9 60 4 44x4"}));
}

TEST(EtlReaderTest, ReadsFilesThatWindowsWrote) {
    const std::filesystem::path folder(PLMX_ETL_REFERENCE_DIR);
    if (!std::filesystem::exists(folder)) {
        GTEST_SKIP() << "no reference traces at " << folder;
    }
    const struct {
        const char* file;
        uint64_t events;
        const wchar_t* provider;  // of the first event
        int64_t first;  // the first event's time, converted by hand from its raw QPC reading
        int64_t end;    // the session's end time
    } cases[] = {
        {"AMSITrace.etl", 19, L"{8E805EB3-6A8F-4A1E-90FA-A831D94E54A1}", 0, 132264174000260662},
        {"lxcore_kernel.etl", 2, L"{0CD1C309-0878-4515-83DB-749843B3F5C9}", 132392018769026510,
         132392018832816874},
    };
    for (const auto& c : cases) {
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
        EXPECT_TRUE(c.first == 0 || events.front().second == c.first) << events.front().second;
        EXPECT_LE(events.back().second, c.end);
        EXPECT_TRUE(std::ranges::is_sorted(events, {}, &decltype(events)::value_type::second));
    }
}

TEST(EtlReaderTest, DamageStopsWithItsOffsetAfterTheEventsBeforeIt) {
    const auto setU16 = [](size_t at, uint16_t value) {
        return [at, value](std::string& b) { std::memcpy(b.data() + at, &value, sizeof value); };
    };
    const size_t last = 3 * kBuffer;
    const struct {
        std::function<void(std::string&)> damage;
        std::string error;  // contained in the result's error
        size_t eventsBefore;
    } cases[] = {
        {[](std::string& b) { b.resize(b.size() - 100); },
         "truncated buffer: 412 of 512 bytes at offset " + std::to_string(last), 4},
        {setU16(kFirstEvent, 600),
         "a record of 600 bytes runs past its buffer's data, which ends at offset", 0},
        {setU16(last + 72, 0), "record size 0 is too small at offset " + std::to_string(last + 72),
         4},
        {setU16(72 + 32 + 0x24, 5),
         "the log-file header counts 5 buffers, the file holds 4; the next is missing at offset " +
             std::to_string(4 * kBuffer),
         6},
        {setU16(2 * kBuffer + 72 + 80, 400),
         "an extended data item runs past its record at offset " +
             std::to_string(2 * kBuffer + 72 + 80),
         2},
        {[](std::string& b) { b.resize(378); },
         "a file of 378 bytes is too short for a log-file header", 0},
        {setU16(kBuffer + 0x30, 436),  // the buffer's data end, 4 bytes past its last record
         "a record header is cut off by the end of its buffer's data at offset 944", 2},
        {setU16(kFirstEvent + 2, 0x0013),
         "unknown record marker 0x001300B0 at offset " + std::to_string(kFirstEvent), 0},
    };
    for (const bool inOrder : {false, true}) {
        for (const auto& c : cases) {
            std::string bytes = WrittenTrace(inOrder);
            c.damage(bytes);
            std::vector<std::wstring> events;
            const EtlReadResult result = ReadBytes(bytes, &events);
            EXPECT_FALSE(result.complete);
            EXPECT_NE(result.error.find(c.error), std::string::npos) << result.error;
            EXPECT_EQ(result.events, c.eventsBefore) << c.error << inOrder;
            EXPECT_EQ(events.size(), c.eventsBefore) << c.error << inOrder;
        }
    }
    EXPECT_EQ(ReadEtlFile("no such file.etl", [](const EVENT_RECORD&) {}).error,
              "cannot open no such file.etl");
}

}  // namespace
