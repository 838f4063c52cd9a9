// A Trace Data Helper that knows no event: every event decodes without a
// schema. Stands in where there is no TDH (off Windows, under Wine).
#pragma once

#include "trace/TdhApi.h"

namespace logonmon {

TdhApi& UnsupportedTdh();

}  // namespace logonmon
