#include "trace/Sid.h"

#include <cstdio>
#include <cwctype>
#include <vector>

#include "trace/TextForms.h"

namespace logonmon {

namespace {

constexpr uint8_t kSidRevision = 1;
constexpr size_t kMaxSubAuthorities = 15;
constexpr size_t kHeaderSize = 8;
constexpr uint64_t kMaxAuthority = (uint64_t{1} << 48) - 1;

// Parses decimal digits, or hexadecimal after "0x", from `pos` up to the next
// '-' or the end; false when empty, malformed or above `max`.
bool ParseNumber(const std::wstring& text, size_t& pos, uint64_t max, uint64_t* value) {
    unsigned base = 10;
    if (text.compare(pos, 2, L"0x") == 0 || text.compare(pos, 2, L"0X") == 0) {
        base = 16;
        pos += 2;
    }
    const size_t start = pos;
    uint64_t result = 0;
    for (; pos < text.size() && text[pos] != L'-'; ++pos) {
        const wchar_t c = text[pos];
        unsigned digit;
        if (c >= L'0' && c <= L'9') {
            digit = static_cast<unsigned>(c - L'0');
        } else if (base == 16 && std::iswxdigit(static_cast<wint_t>(c))) {
            digit = static_cast<unsigned>(std::towlower(static_cast<wint_t>(c)) - L'a' + 10);
        } else {
            return false;
        }
        if (result > (max - digit) / base) {
            return false;
        }
        result = result * base + digit;
    }
    *value = result;
    return pos > start;
}

// Length of the binary SID as its header declares it; 0 when there is no
// whole header or it is not a SID.
size_t SidLengthFromHeader(const uint8_t* bytes, size_t available) {
    if (bytes == nullptr || available < kHeaderSize || bytes[0] != kSidRevision ||
        bytes[1] > kMaxSubAuthorities) {
        return 0;
    }
    return kHeaderSize + 4 * size_t{bytes[1]};
}

}  // namespace

std::optional<Sid> Sid::FromBytes(const uint8_t* bytes, size_t size) {
    const size_t length = SidLengthFromHeader(bytes, size);
    if (length == 0 || length > size) {
        return std::nullopt;
    }
    return Sid(bytes, length);
}

std::optional<Sid> Sid::FromString(const std::wstring& text) {
    if (text.size() < 2 || (text[0] != L'S' && text[0] != L's') || text[1] != L'-') {
        return std::nullopt;
    }
    size_t pos = 2;
    uint64_t revision = 0;
    uint64_t authority = 0;
    if (!ParseNumber(text, pos, 0xFF, &revision) || revision != kSidRevision ||
        pos == text.size() || !ParseNumber(text, ++pos, kMaxAuthority, &authority)) {
        return std::nullopt;
    }
    std::vector<uint8_t> bytes(kHeaderSize);
    bytes[0] = kSidRevision;
    for (int i = 0; i < 6; ++i) {
        bytes[2 + i] = static_cast<uint8_t>(authority >> (8 * (5 - i)));
    }
    while (pos < text.size()) {
        uint64_t subAuthority = 0;
        if (bytes[1] == kMaxSubAuthorities ||
            !ParseNumber(text, ++pos, 0xFFFFFFFF, &subAuthority)) {
            return std::nullopt;
        }
        for (int i = 0; i < 4; ++i) {
            bytes.push_back(static_cast<uint8_t>(subAuthority >> (8 * i)));
        }
        ++bytes[1];
    }
    return Sid(bytes.data(), bytes.size());
}

Sid::Sid(const uint8_t* bytes, size_t size) : size_(size) {
    std::copy(bytes, bytes + size, bytes_.begin());
}

std::wstring Sid::ToString() const {
    uint64_t authority = 0;
    for (int i = 0; i < 6; ++i) {
        authority = (authority << 8) | bytes_[2 + i];
    }
    std::wstring text(L"S-");
    AppendDecimal(text, bytes_[0]);
    text.push_back(L'-');
    // Authorities that do not fit 32 bits are written in hexadecimal.
    if (authority > 0xFFFFFFFF) {
        char number[24];
        std::snprintf(number, sizeof number, "0x%012llX",
                      static_cast<unsigned long long>(authority));
        text.append(number, number + std::char_traits<char>::length(number));
    } else {
        AppendDecimal(text, authority);
    }
    for (size_t offset = kHeaderSize; offset + 4 <= size_; offset += 4) {
        const uint32_t subAuthority = uint32_t{bytes_[offset]} | uint32_t{bytes_[offset + 1]} << 8 |
                                      uint32_t{bytes_[offset + 2]} << 16 |
                                      uint32_t{bytes_[offset + 3]} << 24;
        text.push_back(L'-');
        AppendDecimal(text, subAuthority);
    }
    return text;
}

}  // namespace logonmon
