// What the logon processor needs from the operating system, behind small
// interfaces whose defaults bind the platform and which tests replace.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "trace/Sid.h"

namespace logonmon {

// A running periodic timer; destroying it stops it and waits for a tick that
// is in progress, so it must not be destroyed from its own tick.
class PeriodicTimer {
  public:
    virtual ~PeriodicTimer() = default;
    // Stops further ticks without waiting for one in progress, so that a
    // tick may call it; destroy the timer later, elsewhere.
    virtual void Cancel() = 0;
};

class TimerService {
  public:
    virtual ~TimerService() = default;
    // Calls `tick` every `periodMs` milliseconds, first after one period.
    virtual std::unique_ptr<PeriodicTimer> StartPeriodic(uint32_t periodMs,
                                                         std::function<void()> tick) = 0;
};

class Clock {
  public:
    virtual ~Clock() = default;
    // The system time as a FILETIME value (100 ns since 1601-01-01 UTC).
    virtual uint64_t NowFileTime() = 0;
};

class AccountLookup {
  public:
    virtual ~AccountLookup() = default;
    // The account name and domain of `sid`; false when it cannot be resolved.
    virtual bool LookupAccount(const Sid& sid, std::wstring* name, std::wstring* domain) = 0;
};

// Windows: a timer-queue timer; elsewhere a thread.
TimerService& DefaultTimerService();
// Windows: GetSystemTimeAsFileTime; elsewhere the system clock.
Clock& DefaultClock();
// Windows: LookupAccountSidW; elsewhere no account resolves.
AccountLookup& DefaultAccountLookup();

struct ProcessorServices {
    TimerService* timers = &DefaultTimerService();
    Clock* clock = &DefaultClock();
    AccountLookup* accounts = &DefaultAccountLookup();
};

}  // namespace logonmon
