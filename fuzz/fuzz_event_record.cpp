// Decodes event records built from fuzz input: header bytes, extended data
// items, property values and user data, against a fixed schema that the input
// may also damage. Thrown standard exceptions are the decoder's way of
// rejecting a value; anything else is a finding.
#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "tests/support/EventBuilder.h"
#include "trace/EventRecordData.h"

namespace {

using namespace plmx::testing;

// The input's bytes in order, zeros once it runs out.
struct Input {
    const uint8_t* data;
    size_t size;
    uint8_t Byte() { return Bytes(1)[0]; }
    std::vector<uint8_t> Bytes(size_t count) {
        std::vector<uint8_t> bytes(count, 0);
        const size_t taken = std::min(count, size);
        std::copy_n(data, taken, bytes.begin());
        data += taken, size -= taken;
        return bytes;
    }
};

// Serves the builder's schema with bytes flipped and its size cut as the input says.
struct DamagingTdh : FakeTdh {
    std::vector<std::pair<uint16_t, uint8_t>> edits;
    uint8_t cut = 0;

    uint32_t GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* info,
                                 uint32_t* size) override {
        const uint32_t status = FakeTdh::GetEventInformation(event, info, size);
        for (size_t i = 0; status == 0 && i < edits.size(); ++i) {
            reinterpret_cast<uint8_t*>(info)[edits[i].first % *size] ^= edits[i].second;
        }
        *size -= status == 0 ? std::min<uint32_t>(cut, *size) : 0;
        return status;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input{data, size};
    // Bits: Winlogon provider, a schema, a damaged schema, a fuzzed message
    // template, no item array, no user data.
    const uint8_t options = input.Byte();
    const std::vector<uint8_t> header = input.Bytes(sizeof(EVENT_HEADER));
    DamagingTdh tdh;
    const logonmon::ScopedTdhBinding binding(tdh);
    EventBuilder builder;
    uint8_t nullDataItems = 0;
    for (size_t i = 0, count = input.Byte() % 6; i < count; ++i) {
        const uint8_t kind = input.Byte();
        nullDataItems |= static_cast<uint8_t>((kind >> 7) << i);
        builder.ExtendedItem(kind & 0x07, input.Bytes(input.Byte() % 80));
    }
    if ((options & 0x02) != 0) {
        builder.ProviderName(L"Fuzz-Provider").TaskName(L"Task").OpcodeName(L" Start ");
        builder.EventName(L"Name").RelatedName(L"Related");
        std::wstring message = L"%1 %2 %% %26 %99 %\r\n%0";
        if ((options & 0x08) != 0) {
            message.clear();
            for (size_t i = input.Byte(); i > 0; --i) {
                const int unit = input.Byte() | input.Byte() << 8;
                message.push_back(static_cast<wchar_t>(std::max(unit, 1)));
            }
        }
        builder.Message(message);
        // In-types 0 to 22 and 300 to 309 (all known ones and some unknown), the
        // first read as Winlogon's notification ("Event"), the last a struct.
        for (int i = 0; i < 24; ++i) {
            const uint8_t type = input.Byte();
            const auto inType = static_cast<uint16_t>(type < 23 ? type : 300 + type % 10);
            const auto outType = static_cast<uint16_t>(input.Byte() % 3 == 0 ? 0 : 22 + type % 2);
            builder.Property({i == 0 ? L"Event" : L"P" + std::to_wstring(i), inType, outType,
                              input.Bytes(input.Byte() % 40)});
        }
        builder.Property(PropertyDefinition{L"Nested", 0, 0, {}, true});
        for (size_t i = (options & 0x04) != 0 ? input.Byte() % 16 : 0; i > 0; --i) {
            const auto offset = static_cast<uint16_t>(input.Byte() | input.Byte() << 8);
            tdh.edits.emplace_back(offset, input.Byte());
        }
        tdh.cut = (options & 0x04) != 0 ? input.Byte() : 0;
    }
    EVENT_RECORD record = builder.Payload(input.Bytes(input.size)).Record();
    std::memcpy(&record.EventHeader, header.data(), sizeof(EVENT_HEADER));
    if ((options & 0x01) != 0) {
        record.EventHeader.ProviderId = GuidFromText(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}");
    }
    for (size_t i = 0; i < record.ExtendedDataCount; ++i) {  // the builder's own items
        record.ExtendedData[i].DataPtr *= (nullDataItems >> i) & 1 ? 0 : 1;
    }
    record.ExtendedData = (options & 0x10) != 0 ? nullptr : record.ExtendedData;
    record.UserData = (options & 0x20) != 0 ? nullptr : record.UserData;
    try {
        logonmon::EventRecordData event(record);
        std::wstring text;
        event.AssignMessageText(text);
        char prefix[logonmon::EventRecordData::kLogPrefixSize];
        const std::string line =
            std::string(prefix, event.PutLogPrefix(prefix)) + event.LevelName();
        text.append(line.begin(), line.end());
        for (size_t i = 0; i <= event.propertyNames.size(); ++i) {
            text += event.PropertyName(i) + (event.userSid ? event.userSid->ToString() : L"");
        }
    } catch (const std::exception&) {
        // A value the decoder cannot read.
    }
    return 0;
}
