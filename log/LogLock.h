// The process-wide recursive lock that serialises every log write, log open,
// main-log roll and log upload.
#pragma once

class LogLockGuard {
  public:
    LogLockGuard();
    ~LogLockGuard();
    LogLockGuard(const LogLockGuard&) = delete;
    LogLockGuard& operator=(const LogLockGuard&) = delete;
};
