#include "trace/PropertyValueText.h"

#include <array>
#include <cstring>
#include <iterator>

#include "trace/Sid.h"
#include "trace/TextForms.h"

namespace logonmon {

namespace {

constexpr std::array<const wchar_t*, 14> kWinlogonNotifications = {
    L"CreateSession", L"TerminateSession", L"Login",        L"Logoff",     L"Lock",
    L"Unlock",        L"StartSSAsUser",    L"StopSSAsUser", L"Disconnect", L"Reconnect",
    L"StartSSAsNone", L"StopSSAsNone",     L"StartShell",   L"EndShell"};

// What std::to_wstring writes for an integer, without the C library's
// formatting machinery, which is most of the cost of a number property.
void AssignDecimal(std::wstring& text, uint64_t magnitude, bool negative = false) {
    text.clear();
    if (negative) {
        text.push_back(L'-');
    }
    AppendDecimal(text, magnitude);
}

void AssignHexBytes(std::wstring& text, const uint8_t* bytes, size_t size) {
    static constexpr wchar_t kDigits[] = L"0123456789abcdef";
    text.clear();
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        text.push_back(kDigits[bytes[i] >> 4]);
        text.push_back(kDigits[bytes[i] & 0xF]);
    }
}

// The address as inet_ntoa writes it: the bytes in memory order.
std::wstring Ipv4Text(uint32_t address) {
    uint8_t bytes[4];
    std::memcpy(bytes, &address, sizeof bytes);
    return std::to_wstring(bytes[0]) + L"." + std::to_wstring(bytes[1]) + L"." +
           std::to_wstring(bytes[2]) + L"." + std::to_wstring(bytes[3]);
}

// The reader's buffer is aligned for any unit.
void AssignUnicodeText(std::wstring& text, const PropertyBytes& value) {
    AssignWideFromUtf16(text, reinterpret_cast<const char16_t*>(value.data()),
                        value.size() / sizeof(char16_t));
}

std::wstring SidText(const PropertyBytes& value) {
    const std::optional<Sid> sid = Sid::FromBytes(value.data(), value.size());
    return sid ? sid->ToString() : std::wstring();
}

void AssignSystemTimeText(std::wstring& text, const SYSTEMTIME& time) {
    uint64_t fileTime = 0;
    // Fields out of range give no text rather than an invented date.
    if (SystemTimeToFileTimeValue(time, &fileTime)) {
        AssignTimestampText(text, fileTime, true);
    } else {
        text.clear();
    }
}

}  // namespace

std::span<const wchar_t* const> WinlogonNotificationNames() {
    return kWinlogonNotifications;
}

// The reader decides the signedness: bytes and 16-bit values are
// zero-extended, 32- and 64-bit integers are written unsigned whatever the
// in-type, and only BOOLEAN is written signed.
void AssignPropertyValueText(std::wstring& text, const PropertyReader& reader, uint16_t inType,
                             uint16_t outType, bool winlogonNotification) {
    using namespace etw;
    switch (inType) {
        case kInTypeUnicodeString:
            AssignUnicodeText(text, reader.ReadAllocated());
            break;
        case kInTypeAnsiString:
            text = WideFromAnsi(reinterpret_cast<const char*>(reader.ReadAllocated().data()));
            break;
        case kInTypeInt8:
        case kInTypeUInt8:
            AssignDecimal(text, uint64_t{reader.ReadFixed<uint8_t>()});
            break;
        case kInTypeInt16:
        case kInTypeUInt16: {
            uint16_t value = reader.ReadFixed<uint16_t>();
            if (outType == kOutTypePort) {
                value = static_cast<uint16_t>(value >> 8 | value << 8);
            }
            AssignDecimal(text, uint64_t{value});
            break;
        }
        case kInTypeInt32:
        case kInTypeUInt32: {
            const uint32_t value = reader.ReadFixed<uint32_t>();
            if (winlogonNotification && inType == kInTypeUInt32 &&
                value < kWinlogonNotifications.size()) {
                text.assign(kWinlogonNotifications[value]);
            } else if (outType == kOutTypeIpv4) {
                text = Ipv4Text(value);
            } else {
                AssignDecimal(text, uint64_t{value});
            }
            break;
        }
        case kInTypeInt64:
        case kInTypeUInt64:
        case kInTypePointer:
            AssignDecimal(text, reader.ReadFixed<uint64_t>());
            break;
        case kInTypeFloat:
            text = std::to_wstring(static_cast<double>(reader.ReadFixed<float>()));
            break;
        case kInTypeDouble:
            text = std::to_wstring(reader.ReadFixed<double>());
            break;
        case kInTypeBoolean: {
            const auto value = static_cast<int32_t>(reader.ReadFixed<uint32_t>());
            AssignDecimal(text,
                          value < 0 ? 0 - static_cast<uint64_t>(int64_t{value})
                                    : static_cast<uint64_t>(value),
                          value < 0);
            break;
        }
        case kInTypeGuid:
            text = GuidText(reader.ReadFixed<GUID>(), true);
            break;
        case kInTypeFileTime:
            AssignTimestampText(text, reader.ReadFixed<uint64_t>(), true);
            break;
        case kInTypeSystemTime:
            AssignSystemTimeText(text, reader.ReadFixed<SYSTEMTIME>());
            break;
        case kInTypeSid:
            text = SidText(reader.ReadAllocated());
            break;
        case kInTypeBinary:
        case kInTypeHexInt32:
        case kInTypeHexInt64:
        case kInTypeCountedString:
        case kInTypeCountedAnsiString:
        case kInTypeHexDump: {
            const PropertyBytes value = reader.ReadAllocated();
            AssignHexBytes(text, value.data(), value.size());
            break;
        }
        default:
            text.clear();
            break;
    }
}

}  // namespace logonmon
