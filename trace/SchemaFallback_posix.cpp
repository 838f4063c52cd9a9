#include "trace/SchemaFallback.h"
#include "trace/UnsupportedTdh.h"

namespace logonmon {

TdhApi& SchemaFallbackTdh() {
    return UnsupportedTdh();
}

}  // namespace logonmon
