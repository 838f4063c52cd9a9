// Events per second through the logon monitor, and the cost of one logon:
// 500 logons at once, 200 events each (100,000 events), handed round by round
// to the monitor's event callback through its trace-file run; every logon
// opens, fills, closes and archives its session log on disk.
//
//   monitor_bench [folder]
//
// Without a folder, a new one under the temporary directory is used and
// removed afterwards. Only the delivery of the events is timed, not the
// building of the records.

#include <windows.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "logonmon/CurrentRecord.h"
#include "monitor/LogonMonitor.h"
#include "tests/support/EventBuilder.h"

namespace {

using plmx::testing::EventBuilder;
using plmx::testing::GuidFromText;
using plmx::testing::StringProperty;
using plmx::testing::UInt32Property;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kLogons = 500;
constexpr uint32_t kSubscribers = 83;
// 2024-03-01T08:00:00Z
constexpr uint64_t kMorning = 133'537'536'000'000'000;
constexpr uint64_t kRoundTicks = 100'000;  // 10 ms of event time per round

const GUID kWinlogon = GuidFromText(L"dbe9b383-7cf3-4331-91cc-a3cb16a3b538");
const GUID kShellCore = GuidFromText(L"30336ed4-e327-447c-9de0-51b652c86108");
const GUID kUserProfiles = GuidFromText(L"89b1e9f0-5aff-44a6-9b44-0a07a7ce5845");
const GUID kGroupPolicy = GuidFromText(L"aea1b4fa-97d1-45f2-a64c-4d69fffd92c9");

enum Notification : uint32_t { kCreateSession = 0, kLogin = 2, kStartShell = 12 };

std::wstring UserSid(uint32_t logon) {
    return L"S-1-5-21-1004336348-1177238915-682003330-" + std::to_wstring(2000 + logon);
}

// Event `step` of logon `logon`, as the providers write it.
void DescribeEvent(uint32_t logon, uint32_t step, EventBuilder& event) {
    const uint32_t session = logon + 1;
    event.Level(4).ProcessId(0x2a0).ThreadId(0x100).SessionId(session);
    auto winlogon = [&](uint16_t id, uint8_t opcode, const wchar_t* task, uint32_t notification) {
        event.Provider(kWinlogon).EventId(id).Opcode(opcode).TaskName(task);
        event.Property(UInt32Property(L"Event", notification));
    };
    auto profile = [&](uint16_t id) {
        event.Provider(kUserProfiles).EventId(id).ThreadId(0x1000 + logon).UserSid(UserSid(logon));
    };
    auto extension = [&](uint16_t id, uint32_t number) {
        event.Provider(kGroupPolicy).EventId(id).TaskName(L"Policy");
        event.Property(L"CSEExtensionName", L"Extension " + std::to_wstring(number));
        if (id == 4016) {
            event.Property(L"IsExtensionAsyncProcessing", L"false");
            event.Property(L"IsGPOListChanged", L"true");
        } else {
            event.Property(L"CSEElaspedTimeInMilliSeconds", L"120");
            event.Property(UInt32Property(L"ErrorCode", 0));
        }
    };
    constexpr uint32_t kFirstSubscriberCall = 10;
    constexpr uint32_t kFirstExtension = kFirstSubscriberCall + 2 * kSubscribers;
    if (step == 0) {
        winlogon(801, 1, L"NotifyExecute", kCreateSession);
        event.UserSid(UserSid(logon));
    } else if (step == 1) {
        winlogon(802, 2, L"NotifyExecute", kCreateSession);
    } else if (step == 2) {
        winlogon(801, 1, L"NotifyExecute", kLogin);
        event.UserSid(UserSid(logon));
    } else if (step == 3) {
        profile(6);
        event.Property(L"Source", L"\\\\fs\\profiles\\user" + std::to_wstring(logon));
        event.Property(L"Target", L"C:\\Users\\user" + std::to_wstring(logon));
    } else if (step == 4) {
        profile(7);
    } else if (step == 5 || step == 6) {
        profile(5);
        event.Property(L"File",
                       step == 5 ? L"C:\\Users\\u\\NTUSER.DAT" : L"C:\\Users\\u\\UsrClass.dat");
    } else if (step == 7) {
        profile(67);
        event.Property(L"LocalPath", L"C:\\Users\\user" + std::to_wstring(logon));
    } else if (step == 8) {
        event.Provider(kGroupPolicy).EventId(8001);
        event.Property(L"PolicyElaspedTimeInSeconds", L"3");
    } else if (step == 9) {
        event.Provider(kWinlogon).EventId(10);
    } else if (step < kFirstExtension) {
        const uint32_t call = step - kFirstSubscriberCall;
        winlogon(call % 2 == 0 ? 811 : 812, call % 2 == 0 ? 1 : 2, L"CallSubscriber", kLogin);
        event.Property(L"SubscriberName", L"Subscriber" + std::to_wstring(call / 2));
    } else if (step < kFirstExtension + 20) {
        const uint32_t call = step - kFirstExtension;
        extension(call % 2 == 0 ? 4016 : 5016, call / 2);
    } else if (step == kFirstExtension + 20) {
        winlogon(802, 2, L"NotifyExecute", kLogin);
    } else if (step == kFirstExtension + 21) {
        winlogon(801, 1, L"NotifyExecute", kStartShell);
    } else if (step == kFirstExtension + 22) {
        winlogon(802, 2, L"NotifyExecute", kStartShell);
    } else {
        event.Provider(kShellCore).EventId(9602).Opcode(2);
    }
}
constexpr uint32_t kEventsPerLogon = 10 + 2 * kSubscribers + 20 + 4;
static_assert(kEventsPerLogon * kLogons == 100'000);

// Plays the logons as a trace file would deliver them, one round (an event of
// every logon) at a time, and times only the delivery.
class RecordedLogons final : public logonmon::EtwConsumeApi {
  public:
    TRACEHANDLE OpenTrace(EVENT_TRACE_LOGFILEW* logFile) override {
        callback_ = logFile->EventRecordCallback;
        return 1;
    }
    ULONG ProcessTrace(TRACEHANDLE) override {
        for (uint32_t step = 0; step < kEventsPerLogon; ++step) {
            std::vector<std::unique_ptr<EventBuilder>> round;
            for (uint32_t logon = 0; logon < kLogons; ++logon) {
                round.push_back(std::make_unique<EventBuilder>());
                DescribeEvent(logon, step, *round.back());
                round.back()->Timestamp(kMorning + step * kRoundTicks + logon);
                round.back()->Record();
            }
            const Clock::time_point start = Clock::now();
            for (const auto& event : round) {
                callback_(const_cast<EVENT_RECORD*>(&event->Record()));
            }
            delivering += Clock::now() - start;
        }
        return ERROR_SUCCESS;
    }
    ULONG CloseTrace(TRACEHANDLE) override { return ERROR_SUCCESS; }

    Clock::duration delivering{};

  private:
    PEVENT_RECORD_CALLBACK callback_ = nullptr;
};

class NamedAccounts final : public logonmon::AccountLookup {
  public:
    bool LookupAccount(const logonmon::Sid& sid, std::wstring* name,
                       std::wstring* domain) override {
        *domain = L"CORP";
        *name = L"user-" + sid.ToString().substr(sid.ToString().rfind(L'-') + 1);
        return true;
    }
};

std::wstring NewTempFolder() {
    wchar_t temp[MAX_PATH + 1];
    GetTempPathW(MAX_PATH + 1, temp);
    return std::wstring(temp) + L"plmx-monitor-bench-" + std::to_wstring(GetCurrentProcessId()) +
           L"\\";
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const bool ownFolder = argc < 2;
    const std::wstring folder = AddTrailingSeparator(ownFolder ? NewTempFolder() : argv[1]);
    Settings& settings = Settings::Instance();
    settings.LogPath = AddLongPathPrefix(folder);
    settings.LogLevel = 0x1F;
    settings.LogMaxSize = 0xFFFFFFFF;
    logonmon::AllocateCurrentRecordSlot();
    if (!OpenMainLog()) {
        fprintf(stderr, "cannot open the main log\n");
        return 1;
    }
    plmx::testing::ScopedFakeTdh tdh;
    RecordedLogons logons;
    NamedAccounts accounts;
    MonitorServices services;
    services.processor.accounts = &accounts;
    services.consume = &logons;
    {
        LogonMonitor monitor(services);
        monitor.RunFile(L"recorded.etl");
    }
    CloseMainLog();

    // Each logon's log is archived; the history keeps the newest.
    size_t archives = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        archives += entry.path().filename().wstring().starts_with(L"plmx__") ? 1 : 0;
    }
    const double seconds = std::chrono::duration<double>(logons.delivering).count();
    printf(
        "%u events of %u logons in %.3f s: %.0f events/s, %.2f ms per logon, %zu archives kept\n",
        kEventsPerLogon * kLogons, kLogons, seconds, kEventsPerLogon * kLogons / seconds,
        1000 * seconds / kLogons, archives);

    if (ownFolder) {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(folder), ignored);
    }
    return archives == settings.LogHistoryDepth ? 0 : 1;
}
