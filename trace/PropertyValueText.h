// The text stored for one top-level property, chosen by its in-type.
#pragma once

#include <cstdint>
#include <string>

#include "trace/PropertyReader.h"

namespace logonmon {

// `winlogonNotification`: the property is Winlogon's "Event", whose UINT32
// values 0 to 13 are written as notification names.
std::wstring PropertyValueText(const PropertyReader& reader, uint16_t inType, uint16_t outType,
                               bool winlogonNotification);

}  // namespace logonmon
