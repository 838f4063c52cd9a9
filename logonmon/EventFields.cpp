#include "logonmon/EventFields.h"

#include <cstring>
#include <vector>

#include "trace/Providers.h"
#include "trace/TextForms.h"

namespace logonmon {

bool IsZeroGuid(const GUID& guid) {
    return GuidEquals(guid, GUID{});
}

const std::wstring& PropertyText(const EventRecordData& record, std::wstring_view name) {
    static const std::wstring none;
    // An event has a handful of properties: a walk comparing lengths first
    // beats the ordered search.
    for (const auto& [key, value] : record.properties) {
        if (EqualsIgnoreCase(key, name)) {
            return value;
        }
    }
    return none;
}

bool EqualsIgnoreCase(std::wstring_view left, std::wstring_view right) {
    if (left.size() != right.size()) {
        return false;
    }
    // Names are mostly asked for as the schema spells them.
    if (left == right) {
        return true;
    }
    for (size_t i = 0; i < left.size(); ++i) {
        wchar_t a = left[i];
        wchar_t b = right[i];
        if (a >= L'A' && a <= L'Z') {
            a = static_cast<wchar_t>(a - L'A' + L'a');
        }
        if (b >= L'A' && b <= L'Z') {
            b = static_cast<wchar_t>(b - L'A' + L'a');
        }
        if (a != b) {
            return false;
        }
    }
    return true;
}

std::optional<uint32_t> ParseDecimal(std::wstring_view text) {
    if (text.empty()) {
        return std::nullopt;
    }
    uint64_t value = 0;
    for (const wchar_t c : text) {
        if (c < L'0' || c > L'9') {
            return std::nullopt;
        }
        value = value * 10 + static_cast<uint64_t>(c - L'0');
        if (value > UINT32_MAX) {
            return std::nullopt;
        }
    }
    return static_cast<uint32_t>(value);
}

std::optional<uint32_t> PayloadWord(const EventRecordData& record, size_t offset) {
    if (record.userData.size() < offset + 4) {
        return std::nullopt;
    }
    const uint8_t* bytes = record.userData.data() + offset;
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

std::wstring PayloadText(const EventRecordData& record, size_t offset, size_t units) {
    if (record.userData.size() < offset + units * 2) {
        return {};
    }
    std::vector<char16_t> field(units);
    const uint8_t* bytes = record.userData.data() + offset;
    for (size_t i = 0; i < units; ++i) {
        field[i] = static_cast<char16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
    }
    return WideFromUtf16(field.data(), units);
}

std::wstring SidText(const EventRecordData& record) {
    return record.userSid ? record.userSid->ToString() : std::wstring();
}

uint32_t EventSessionId(const EventRecordData& record) {
    if (GuidEquals(record.providerId, providers::kRemoteAgent)) {
        if (const auto payloadSession = PayloadWord(record, 0)) {
            return *payloadSession;
        }
    }
    if (record.sessionId != kNoSessionId && record.sessionId != 0) {
        return record.sessionId;
    }
    for (const wchar_t* name : {L"Session", L"SessionID"}) {
        if (const auto property = ParseDecimal(PropertyText(record, name))) {
            return *property;
        }
    }
    return record.sessionId;
}

}  // namespace logonmon
