// The event path of the logon processor: realistic logons fed through
// HandleEventRecord with 1 and with 500 sessions open, against a floor of one
// payload copy and one map insert per event measured in turns with it. Reports
// events per second, the ratio to the floor, allocations per event and the
// heap an open session holds after a full logon.
#include <benchmark/benchmark.h>

#include <ctime>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "logonmon/LogonProcessor.h"
#include "tests/support/EventBuilder.h"

namespace {

// Counted on the benchmark's one thread, without atomics, so that counting
// adds as little as possible to what allocation costs.
thread_local uint64_t g_allocations = 0;
thread_local int64_t g_liveBytes = 0;

// Every allocation carries its size in front, so that frees can be counted.
constexpr size_t kHeader = alignof(std::max_align_t);

void* Allocate(size_t size) {
    auto* block = static_cast<unsigned char*>(std::malloc(size + kHeader));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    *reinterpret_cast<size_t*>(block) = size;
    ++g_allocations;
    g_liveBytes += static_cast<int64_t>(size);
    return block + kHeader;
}

void Free(void* pointer) {
    if (pointer == nullptr) {
        return;
    }
    auto* block = static_cast<unsigned char*>(pointer) - kHeader;
    g_liveBytes -= static_cast<int64_t>(*reinterpret_cast<size_t*>(block));
    std::free(block);
}

}  // namespace

void* operator new(size_t size) {
    return Allocate(size);
}
void* operator new[](size_t size) {
    return Allocate(size);
}
void operator delete(void* pointer) noexcept {
    Free(pointer);
}
void operator delete[](void* pointer) noexcept {
    Free(pointer);
}
void operator delete(void* pointer, size_t) noexcept {
    Free(pointer);
}
void operator delete[](void* pointer, size_t) noexcept {
    Free(pointer);
}

namespace {

using namespace plmx::testing;

constexpr uint64_t kSecond = 10'000'000;
constexpr uint64_t kMorning = 133'537'536'000'000'000;  // 2024-03-01T08:00:00Z
constexpr uint32_t kMeasuredSession = 1000;

struct Provider {
    const wchar_t* id;
    const wchar_t* name;
};
constexpr Provider kWinlogon{L"dbe9b383-7cf3-4331-91cc-a3cb16a3b538",
                             L"Microsoft-Windows-Winlogon"};
constexpr Provider kShellCore{L"30336ed4-e327-447c-9de0-51b652c86108",
                              L"Microsoft-Windows-Shell-Core"};
constexpr Provider kUserProfiles{L"89b1e9f0-5aff-44a6-9b44-0a07a7ce5845",
                                 L"Microsoft-Windows-User Profiles Service"};
constexpr Provider kGroupPolicy{L"aea1b4fa-97d1-45f2-a64c-4d69fffd92c9",
                                L"Microsoft-Windows-GroupPolicy"};

using Events = std::vector<std::unique_ptr<EventBuilder>>;

// The records of built events; building a record is not part of the path.
std::vector<const EVENT_RECORD*> Records(const Events& events) {
    std::vector<const EVENT_RECORD*> records;
    for (const auto& event : events) {
        records.push_back(&event->Record());
    }
    return records;
}

// This thread's processor time, so that other work on the machine does not
// count.
double CpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// One logon of `session` for the user `sid`, as Windows reports it: Winlogon
// notifications with their subscribers, the profile service, Group Policy,
// the shell. Without `complete` the shell never starts, so the session stays
// open with everything else recorded.
Events Logon(uint32_t session, const std::wstring& sid, uint64_t start, bool complete) {
    Events events;
    uint64_t time = start;
    auto add = [&events, &time](const Provider& provider, uint16_t id,
                                uint8_t opcode) -> EventBuilder& {
        events.push_back(std::make_unique<EventBuilder>());
        EventBuilder& event = *events.back();
        event.Provider(provider.id).EventId(id).Opcode(opcode).Level(4).ProcessId(0x2a0);
        // Every event has a schema from its provider's manifest.
        event.DecodingSource(0).ProviderName(provider.name);
        event.ThreadId(0x3c4).Timestamp(time += kSecond / 10);
        return event;
    };
    auto notification = [&](uint16_t id, uint8_t opcode, uint32_t name, const wchar_t* subscriber) {
        EventBuilder& event = add(kWinlogon, id, opcode);
        event.SessionId(session).UserSid(id == 801 && name <= 2 ? sid : L"S-1-5-18");
        event.TaskName(subscriber != nullptr ? L"CallSubscriber" : L"NotifyExecute");
        event.Property(UInt32Property(L"Event", name));
        if (subscriber != nullptr) {
            event.Property(L"SubscriberName", subscriber);
        }
    };
    auto notify = [&](uint32_t name, std::initializer_list<const wchar_t*> subscribers) {
        notification(801, 1, name, nullptr);
        for (const wchar_t* subscriber : subscribers) {
            notification(811, 1, name, subscriber);
            notification(812, 2, name, subscriber);
        }
        notification(802, 2, name, nullptr);
    };
    auto profile = [&](uint16_t id) -> EventBuilder& {
        EventBuilder& event = add(kUserProfiles, id, 0);
        event.SessionId(0).UserSid(sid).ThreadId(0x500 + session);
        return event;
    };
    auto policy = [&](uint16_t id) -> EventBuilder& {
        EventBuilder& event = add(kGroupPolicy, id, 0);
        event.SessionId(session).UserSid(sid).ActivityId(GUID{session, 1, 2, {3, 4, 5, 6, 7, 8}});
        return event;
    };

    notify(0, {L"SessionEnv", L"TermSrv"});
    notify(2, {L"Profiles"});
    profile(6)
        .Property(L"Source", L"\\\\fs\\profiles\\user")
        .Property(L"Target", L"C:\\Users\\user");
    profile(5).Property(L"File", L"C:\\Users\\user\\ntuser.dat");
    profile(5).Property(L"File",
                        L"C:\\Users\\user\\AppData\\Local\\Microsoft\\Windows\\UsrClass.dat");
    profile(7);
    profile(67).Property(L"LocalPath", L"C:\\Users\\user");
    notify(2, {L"GPClient", L"Sens", L"TermSrv", L"SessionEnv"});
    for (const wchar_t* extension : {L"Registry", L"Scripts", L"Folder Redirection"}) {
        policy(4016)
            .Property(L"CSEExtensionName", extension)
            .Property(
                {L"IsExtensionAsyncProcessing", logonmon::etw::kInTypeBoolean, 0, UInt32Bytes(0)})
            .Property({L"IsGPOListChanged", logonmon::etw::kInTypeBoolean, 0, UInt32Bytes(1)});
        policy(5016)
            .Property(UInt32Property(L"CSEElaspedTimeInMilliSeconds", 250))
            .Property(UInt32Property(L"ErrorCode", 0))
            .Property(L"CSEExtensionName", extension);
    }
    policy(8001).Property(UInt32Property(L"PolicyElaspedTimeInSeconds", 3));
    if (complete) {
        notify(12, {L"Sens", L"Profiles"});
        add(kWinlogon, 10, 0).SessionId(session);
        add(kShellCore, 9602, 2).SessionId(session);
    }
    return events;
}

// The floor: what any consumer pays per event.
double FloorSeconds(const std::vector<const EVENT_RECORD*>& logon, int64_t logons) {
    std::map<uint64_t, size_t> seen;
    uint64_t key = 0;
    const double start = CpuSeconds();
    for (int64_t i = 0; i < logons; ++i) {
        for (const EVENT_RECORD* record : logon) {
            const auto* bytes = static_cast<const uint8_t*>(record->UserData);
            std::vector<uint8_t> payload(bytes, bytes + record->UserDataLength);
            seen.emplace(++key, payload.size());
            benchmark::DoNotOptimize(payload.data());
        }
        seen.clear();
    }
    return CpuSeconds() - start;
}

void BM_LogonEvents(benchmark::State& state) {
    const auto openSessions = static_cast<uint32_t>(state.range(0));
    ScopedFakeTdh tdh;
    logonmon::LogonProcessor processor;

    // Sessions that stay open beside the measured one, each after a full
    // logon that never reached its shell.
    const int64_t heapBefore = g_liveBytes;
    for (uint32_t session = 1; session < openSessions; ++session) {
        const Events open = Logon(
            session, L"S-1-5-21-1004336348-1177238915-682003330-" + std::to_wstring(2000 + session),
            kMorning, false);
        for (const EVENT_RECORD* record : Records(open)) {
            processor.HandleEventRecord(record);
        }
    }
    const int64_t heapOfOpenSessions = g_liveBytes - heapBefore;

    const Events measured =
        Logon(kMeasuredSession, L"S-1-5-21-1004336348-1177238915-682003330-1001",
              kMorning + 3600 * kSecond, true);
    const std::vector<const EVENT_RECORD*> logon = Records(measured);
    // The floor runs in turns with the path, so that both see the machine in
    // the same state; allocations are counted on the path alone.
    constexpr int64_t kTurn = 256;
    double seconds = 0;
    double floorSeconds = 0;
    uint64_t allocations = 0;
    int64_t inTurn = 0;
    uint64_t allocationsBefore = g_allocations;
    double start = CpuSeconds();
    for (auto _ : state) {
        for (const EVENT_RECORD* record : logon) {
            processor.HandleEventRecord(record);
        }
        if (++inTurn == kTurn) {
            seconds += CpuSeconds() - start;
            allocations += g_allocations - allocationsBefore;
            state.PauseTiming();
            floorSeconds += FloorSeconds(logon, inTurn);
            state.ResumeTiming();
            inTurn = 0;
            allocationsBefore = g_allocations;
            start = CpuSeconds();
        }
    }
    seconds += CpuSeconds() - start;
    allocations += g_allocations - allocationsBefore;
    floorSeconds += FloorSeconds(logon, inTurn);
    const double events =
        static_cast<double>(state.iterations()) * static_cast<double>(logon.size());

    state.SetItemsProcessed(static_cast<int64_t>(events));
    state.counters["events_per_s"] = events / seconds;
    state.counters["floor_events_per_s"] = events / floorSeconds;
    state.counters["x_floor"] = seconds / floorSeconds;
    state.counters["allocs_per_event"] = static_cast<double>(allocations) / events;
    if (openSessions > 1) {
        state.counters["heap_B_per_session"] =
            static_cast<double>(heapOfOpenSessions) / (openSessions - 1);
    }
}

BENCHMARK(BM_LogonEvents)->Arg(1)->Arg(500)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
