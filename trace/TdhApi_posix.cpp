#include "trace/TdhApi.h"
#include "trace/UnsupportedTdh.h"

namespace logonmon {

// There is no TDH off Windows.
TdhApi& DefaultTdh() {
    return UnsupportedTdh();
}

}  // namespace logonmon
