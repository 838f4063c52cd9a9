// A security identifier held by value, with its "S-1-5-..." text form
// computed here on every platform.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace logonmon {

class Sid {
  public:
    // SECURITY_MAX_SID_SIZE: a revision, a count, six bytes of authority and
    // at most 15 sub-authorities.
    static constexpr size_t kMaxSize = 68;

    // Copies a binary SID of at most `size` bytes; nullopt when the bytes are
    // not a well-formed SID or its own length exceeds `size`.
    static std::optional<Sid> FromBytes(const uint8_t* bytes, size_t size);

    // Parses "S-R-A-S1-S2-..." text; nullopt when malformed.
    static std::optional<Sid> FromString(const std::wstring& text);

    std::span<const uint8_t> Bytes() const { return {bytes_.data(), size_}; }
    // The form ConvertSidToStringSidW gives.
    std::wstring ToString() const;

    bool operator==(const Sid& other) const { return std::ranges::equal(Bytes(), other.Bytes()); }

  private:
    Sid(const uint8_t* bytes, size_t size);

    // Held in place: an event's SID is copied without an allocation.
    std::array<uint8_t, kMaxSize> bytes_{};
    size_t size_ = 0;
};

}  // namespace logonmon
