// Log texts that several of the processor's handlers write.
#pragma once

namespace logonmon::texts {

inline constexpr char kContextNotFoundBySessionId[] = "Session Context Not Found. sessionId=%d";
inline constexpr char kContextNotFoundBySid[] = "Session Context Not Found. SID: %ws";

}  // namespace logonmon::texts
