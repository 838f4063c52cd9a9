// Small readers for the header fields and property texts of a decoded event.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "trace/EventRecordData.h"

namespace logonmon {

inline constexpr uint32_t kNoSessionId = 0xFFFFFFFF;

bool IsZeroGuid(const GUID& guid);

// The property's text; empty when the event does not have it.
const std::wstring& PropertyText(const EventRecordData& record, std::wstring_view name);

// Equality with ASCII letters folded, as property names compare.
bool EqualsIgnoreCase(std::wstring_view left, std::wstring_view right);

// Decimal digits only, within 32 bits; nullopt for anything else.
std::optional<uint32_t> ParseDecimal(std::wstring_view text);

// The terminal session an event speaks of: the remote agent's payload names
// it first; then the header, unless it is absent or 0 (session 0 runs the
// services, which name the user's session in "Session" or "SessionID");
// otherwise the header's value, kNoSessionId when it has none.
uint32_t EventSessionId(const EventRecordData& record);

// Little-endian 32-bit word of a payload at `offset`; nullopt when short.
std::optional<uint32_t> PayloadWord(const EventRecordData& record, size_t offset);

// A UTF-16 text field of a payload, `units` long, up to its first null; one
// that is not terminated inside its field ends at the field's end.
std::wstring PayloadText(const EventRecordData& record, size_t offset, size_t units);

// The SID's text, empty when the event carries none.
std::wstring SidText(const EventRecordData& record);

}  // namespace logonmon
