// A security identifier held by value, with its "S-1-5-..." text form
// computed here on every platform.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace logonmon {

class Sid {
  public:
    // Copies a binary SID of at most `size` bytes; nullopt when the bytes are
    // not a well-formed SID or its own length exceeds `size`.
    static std::optional<Sid> FromBytes(const uint8_t* bytes, size_t size);

    // Parses "S-R-A-S1-S2-..." text; nullopt when malformed.
    static std::optional<Sid> FromString(const std::wstring& text);

    const std::vector<uint8_t>& Bytes() const { return bytes_; }
    // The form ConvertSidToStringSidW gives.
    std::wstring ToString() const;

    bool operator==(const Sid& other) const { return bytes_ == other.bytes_; }

  private:
    explicit Sid(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
    std::vector<uint8_t> bytes_;
};

}  // namespace logonmon
