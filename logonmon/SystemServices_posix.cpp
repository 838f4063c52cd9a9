#include <chrono>

#include "logonmon/ProcessorServices.h"

namespace logonmon {

namespace {

// 100 ns intervals from 1601-01-01 to 1970-01-01.
constexpr uint64_t kUnixEpochAsFileTime = 116'444'736'000'000'000;

class SystemClock : public Clock {
  public:
    uint64_t NowFileTime() override {
        using Ticks = std::chrono::duration<int64_t, std::ratio<1, 10'000'000>>;
        const auto sinceUnixEpoch =
            std::chrono::duration_cast<Ticks>(std::chrono::system_clock::now().time_since_epoch());
        return kUnixEpochAsFileTime + static_cast<uint64_t>(sinceUnixEpoch.count());
    }
};

// Accounts live in the Windows security database; nothing resolves here.
class NoAccountLookup : public AccountLookup {
  public:
    bool LookupAccount(const Sid&, std::wstring*, std::wstring*) override { return false; }
};

}  // namespace

Clock& DefaultClock() {
    static SystemClock clock;
    return clock;
}

AccountLookup& DefaultAccountLookup() {
    static NoAccountLookup lookup;
    return lookup;
}

}  // namespace logonmon
