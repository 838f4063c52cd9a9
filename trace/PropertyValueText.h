// The text stored for one top-level property, chosen by its in-type.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "trace/PropertyReader.h"

namespace logonmon {

// Winlogon's notification names, indexed by the "Event" value standing for each.
std::span<const wchar_t* const> WinlogonNotificationNames();

// Writes the text into `text`, reusing its storage. `winlogonNotification`:
// the property is Winlogon's "Event", whose UINT32 values 0 to 13 are written
// as notification names.
void AssignPropertyValueText(std::wstring& text, const PropertyReader& reader, uint16_t inType,
                             uint16_t outType, bool winlogonNotification);

}  // namespace logonmon
