// Replays a saved trace without the system's trace consumer: the built-in
// reader delivers its events and the built-in schemas decode the events the
// logon processor consumes (others go to TDH where it is usable).
#pragma once

#include <functional>
#include <string>

#include "trace/EtlReader.h"

namespace logonmon {

// Calls `onEvent` for every event in timestamp order, with the built-in
// schemas bound for decoding meanwhile. Not for use while other threads
// decode events.
EtlReadResult ReplayEtlFile(const std::string& path,
                            const std::function<void(const EVENT_RECORD&)>& onEvent);

}  // namespace logonmon
