// Decodes event records built from fuzz input: header bytes, extended data
// items, property values and user data, against a fixed schema that the input
// may also damage. Thrown standard exceptions are the decoder's way of
// rejecting a value; anything else is a finding.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "tests/support/EventBuilder.h"
#include "trace/EventRecordData.h"

namespace {

using namespace logonmon::etw;
using namespace plmx::testing;

class InputReader {
  public:
    InputReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    uint8_t Byte() { return position_ < size_ ? data_[position_++] : 0; }
    uint16_t UInt16() { return static_cast<uint16_t>(Byte() | Byte() << 8); }
    // Exactly `count` bytes, zero-filled once the input runs out.
    std::vector<uint8_t> Bytes(size_t count) {
        std::vector<uint8_t> bytes(count, 0);
        const size_t available = std::min(count, size_ - position_);
        std::copy_n(data_ + position_, available, bytes.begin());
        position_ += available;
        return bytes;
    }
    std::vector<uint8_t> Rest() { return Bytes(size_ - position_); }

  private:
    const uint8_t* data_;
    size_t size_;
    size_t position_ = 0;
};

// Serves the builder's schema with bytes changed and its size cut as the
// input says.
class DamagingTdh : public FakeTdh {
  public:
    std::vector<std::pair<uint16_t, uint8_t>> edits;
    uint16_t cut = 0;

    uint32_t GetEventInformation(const EVENT_RECORD& event, TRACE_EVENT_INFO* buffer,
                                 uint32_t* bufferSize) override {
        const uint32_t status = FakeTdh::GetEventInformation(event, buffer, bufferSize);
        if (status == kErrorSuccess && *bufferSize > 0) {
            auto* bytes = reinterpret_cast<uint8_t*>(buffer);
            for (const auto& [offset, value] : edits) {
                bytes[offset % *bufferSize] ^= value;
            }
            *bufferSize -= std::min<uint32_t>(cut, *bufferSize);
        }
        return status;
    }
};

enum Options : uint8_t {
    kWinlogonProvider = 0x01,
    kWithSchema = 0x02,
    kDamageSchema = 0x04,
    kFuzzedMessage = 0x08,
    kNullItemArray = 0x10,
    kNullUserData = 0x20,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    InputReader input(data, size);
    const uint8_t options = input.Byte();
    const std::vector<uint8_t> header = input.Bytes(sizeof(EVENT_HEADER));

    DamagingTdh tdh;
    const logonmon::ScopedTdhBinding binding(tdh);
    EventBuilder builder;

    const size_t itemCount = input.Byte() % 6;
    uint8_t nullDataItems = 0;
    for (size_t i = 0; i < itemCount; ++i) {
        const uint8_t kind = input.Byte();
        nullDataItems |= static_cast<uint8_t>((kind >> 7) << i);
        builder.ExtendedItem(kind & 0x07, input.Bytes(input.Byte() % 80));
    }

    if ((options & kWithSchema) != 0) {
        builder.ProviderName(L"Fuzz-Provider").TaskName(L"Task").OpcodeName(L" Start ");
        builder.EventName(L"Name").RelatedName(L"Related");
        std::wstring message = L"%1 %2 %% %26 %99 %\r\n%0";
        if ((options & kFuzzedMessage) != 0) {
            message.clear();
            for (size_t i = input.Byte(); i > 0; --i) {
                message.push_back(static_cast<wchar_t>(std::max<uint16_t>(input.UInt16(), 1)));
            }
        }
        builder.Message(message);
        // In-types 0 to 22 and 300 to 309 (all known ones and some unknown), the
        // first read as Winlogon's notification ("Event"), the last a struct.
        for (int i = 0; i < 24; ++i) {
            const uint8_t type = input.Byte();
            const uint16_t inType = type < 23 ? type : 300 + type % 10;
            const uint16_t outType = input.Byte() % 3 == 0 ? 0 : kOutTypePort + type % 2;
            builder.Property(PropertyDefinition{i == 0 ? L"Event" : L"P" + std::to_wstring(i),
                                                inType, outType, input.Bytes(input.Byte() % 40)});
        }
        builder.Property(PropertyDefinition{L"Nested", 0, 0, {}, true});
        if ((options & kDamageSchema) != 0) {
            for (size_t i = input.Byte() % 16; i > 0; --i) {
                const uint16_t offset = input.UInt16();
                tdh.edits.emplace_back(offset, input.Byte());
            }
            tdh.cut = input.Byte();
        }
    }
    builder.Payload(input.Rest());

    EVENT_RECORD record = builder.Record();
    std::memcpy(&record.EventHeader, header.data(), sizeof(EVENT_HEADER));
    if ((options & kWinlogonProvider) != 0) {
        record.EventHeader.ProviderId = GuidFromText(L"{DBE9B383-7CF3-4331-91CC-A3CB16A3B538}");
    }
    std::vector<EVENT_HEADER_EXTENDED_DATA_ITEM> items(
        record.ExtendedData, record.ExtendedData + record.ExtendedDataCount);
    for (size_t i = 0; i < items.size(); ++i) {
        items[i].DataPtr = (nullDataItems >> i) & 1 ? 0 : items[i].DataPtr;
    }
    record.ExtendedData = (options & kNullItemArray) != 0 ? nullptr : items.data();
    record.UserData = (options & kNullUserData) != 0 ? nullptr : record.UserData;

    try {
        logonmon::EventRecordData event(record);
        const uint32_t sessionOverride = 7;
        if (event.sessionId == 3) {
            event.sessionIdOverride = &sessionOverride;
        }
        (void)event.MessageText();
        (void)event.LogPrefix();
        (void)event.LevelName();
        (void)event.EventName();
        (void)event.RelatedName();
        for (size_t i = 0; i <= event.propertyNames.size(); ++i) {
            (void)event.PropertyName(i);
        }
        if (event.userSid) {
            (void)event.userSid->ToString();
        }
    } catch (const std::exception&) {
        // A value the decoder cannot read.
    }
    return 0;
}
