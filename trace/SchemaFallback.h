// Where the built-in schemas send the events they have no schema for.
#pragma once

#include "trace/TdhApi.h"

namespace logonmon {

// Windows' own TDH; none under Wine, whose TDH aborts the process, nor off
// Windows.
TdhApi& SchemaFallbackTdh();

}  // namespace logonmon
