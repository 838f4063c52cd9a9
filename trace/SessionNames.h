// The names of the trace sessions; the file session's name is also the
// logger name inside the trace files it records.
#pragma once

namespace logonmon {

inline constexpr wchar_t kTimingSessionName[] = L"logonmon_timing";
inline constexpr wchar_t kDiagnosticSessionName[] = L"logonmon_diag_trace_rt";
inline constexpr wchar_t kFileSessionName[] = L"logonmon_diag_trace_file";

}  // namespace logonmon
