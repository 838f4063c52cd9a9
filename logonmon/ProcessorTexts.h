// Texts that several of the processor's files use.
#pragma once

namespace logonmon::texts {

inline constexpr char kContextNotFoundBySessionId[] = "Session Context Not Found. sessionId=%d";
inline constexpr char kContextNotFoundBySid[] = "Session Context Not Found. SID: %ws";

// Timing points that handlers store and the completion rule and the summary
// read.
inline constexpr wchar_t kShellInitializedPoint[] = L"Explorer_Initialized_Stop";
inline constexpr wchar_t kAgentAttachedPoint[] = L"TX_ATTACHED";
inline constexpr wchar_t kLogonStartPoint[] = L"WL_NotifyExecute_Login_Start";
inline constexpr wchar_t kShellStartPoint[] = L"WL_NotifyExecute_StartShell_Start";
inline constexpr wchar_t kShellStartedPoint[] = L"WL_NotifyExecute_StartShell_Stop";
inline constexpr wchar_t kUserinitStopPoint[] = L"WL_USERINIT_STOP";
inline constexpr wchar_t kProfilesSubscriberStartPoint[] =
    L"WL_CallSubscriber_Profiles_Login_Start";
inline constexpr wchar_t kProfileSyncStartPoint[] = L"PROFILE_SYNC_START";
inline constexpr wchar_t kProfileSyncStopPoint[] = L"PROFILE_SYNC_STOP";
inline constexpr wchar_t kUserHiveLoadedPoint[] = L"PROFILE_HIVE_LOADED";
inline constexpr wchar_t kClassesHiveLoadedPoint[] = L"PROFILE_CLASSES_HIVE_LOADED";
// No handler stores these; the summary reads them all the same.
inline constexpr wchar_t kFolderRedirectionStartPoint[] = L"WFR_APPLY_START";
inline constexpr wchar_t kFolderRedirectionStopPoint[] = L"WFR_APPLY_STOP";

}  // namespace logonmon::texts
