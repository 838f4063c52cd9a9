// Texts that several of the processor's files use.
#pragma once

namespace logonmon::texts {

inline constexpr char kContextNotFoundBySessionId[] = "Session Context Not Found. sessionId=%d";
inline constexpr char kContextNotFoundBySid[] = "Session Context Not Found. SID: %ws";

// Timing points that handlers store and the completion rule reads.
inline constexpr wchar_t kShellInitializedPoint[] = L"Explorer_Initialized_Stop";
inline constexpr wchar_t kAgentAttachedPoint[] = L"TX_ATTACHED";

}  // namespace logonmon::texts
