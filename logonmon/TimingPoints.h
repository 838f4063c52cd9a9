// Named instants of a logon (100 ns FILETIME units).
#pragma once

#include <cstdint>

#include "logonmon/NamedValues.h"

namespace logonmon {

using TimingPoints = NamedValues<uint64_t>;

}  // namespace logonmon
