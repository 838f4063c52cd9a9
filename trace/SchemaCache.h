// Event schemas fetched once per kind of event and shared by every event of
// that kind, whichever TDH binding serves them.
#pragma once

#include <cstdint>
#include <memory>

#include "trace/EventSchema.h"
#include "trace/TdhApi.h"

namespace logonmon {

// The schema of `record` from `tdh` with its texts, fetched and decoded on the
// first event of its kind (provider, id, version, opcode, level, keyword) and
// kept while the same binding is installed. TraceLogging events carry their
// own schema and are always asked for. Null when the event has no schema;
// asked for again where one may appear.
// Thread-safe.
std::shared_ptr<const DecodedSchema> CachedEventSchema(const EVENT_RECORD& record, TdhApi& tdh);

// Changes whenever a binding is installed or removed (defined beside the
// binding), so that no schema outlives the binding that served it.
uint64_t TdhBindingGeneration();

}  // namespace logonmon
