// The logon processor as the service runs it on a trace file ("/file"), with
// each session's log written into a folder. It writes what the processor
// itself writes (events, timing, summary); the monitor's reports on the
// machine it runs on (settings, policies, profile, disk) would describe the
// analysing machine, not the traced one, and are left out. Every level is
// written, as with the default log level.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "logonmon/LogonProcessor.h"
#include "tools/replay/SessionLogFile.h"

struct ReplayedSession {
    uint32_t sessionId = 0;
    std::filesystem::path logPath;
    bool logWritten = false;
    // The messages of the session summary block, in order.
    std::vector<std::string> summary;
};

class ReplayProcessor final : public logonmon::LogonProcessor {
  public:
    // Session logs go to `folder`. Their identifiers derive from `traceName`
    // and the logon, so that replaying a trace again rewrites the same files.
    ReplayProcessor(std::filesystem::path folder, std::string traceName);

    // The end of the trace: settles the sessions whose shell started.
    void Finish();
    // The sessions settled so far, in the order they were settled.
    const std::vector<ReplayedSession>& Sessions() const { return settled_; }
    // Logs of logons the trace does not take as far as the shell.
    std::vector<std::filesystem::path> UnsettledLogs() const;

    void OnLogonStart(logonmon::SESSION_CONTEXT& session) override;
    void OnLogonEnd(logonmon::SESSION_CONTEXT& session) override;
    void LogFormatted(uint32_t level, const wchar_t* function, const char* format, ...) override;

  private:
    std::wstring LogIdentifier(const logonmon::SESSION_CONTEXT& session) const;

    std::filesystem::path folder_;
    std::string traceName_;
    std::map<const logonmon::SESSION_CONTEXT*, std::unique_ptr<SessionLogFile>> logs_;
    std::vector<ReplayedSession> settled_;
    // Collects the summary's messages while it is written.
    std::vector<std::string>* summary_ = nullptr;
};
