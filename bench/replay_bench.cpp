// Events per second replaying a generated trace of 1,000,000 events from 2,000
// logons: a bare read() of the file, reading its records, reading and
// decoding them, and the whole replay with its session logs, all in one run.
//
//   replay_bench [benchmark options]

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/EventBuilder.h"
#include "tools/replay/ReplayProcessor.h"
#include "trace/EtlWriter.h"
#include "trace/EventRecordData.h"
#include "trace/Providers.h"
#include "trace/ReplayEtlFile.h"

namespace {

using namespace plmx::testing;
namespace providers = logonmon::providers;

constexpr int kLogons = 2000;
constexpr int kEventsPerLogon = 500;
constexpr uint64_t kStart = 133500000000000000;  // 2024, as a FILETIME
constexpr uint64_t kTick = 10000;                // 1 ms between events

PropertyDefinition Bytes(const std::wstring& name, uint16_t inType, std::vector<uint8_t> value) {
    return PropertyDefinition{name, inType, 0, std::move(value), false};
}

std::vector<uint8_t> AnsiBytes(const std::string& text) {
    std::vector<uint8_t> bytes(text.begin(), text.end());
    bytes.push_back(0);
    return bytes;
}

// Writes the events of logons one after another; each logon is a full logon
// of about twenty events the processor consumes, amid process starts and
// exits of its session and events no schema describes.
class TraceScript {
  public:
    explicit TraceScript(EtlWriter& writer) : writer_(writer) {}

    void Logon(int index) {
        const uint32_t session = 1 + index % 50;
        const std::wstring sid = L"S-1-5-21-1-2-3-" + std::to_wstring(1000 + index);
        const GUID activity =
            GuidFromText(L"a0000000-0000-0000-0000-" + std::to_wstring(100000000000 + index));
        auto winlogon = [&](uint16_t id, uint8_t opcode, uint32_t notification) {
            Emit(Event(providers::kWinlogon, id, opcode, session, sid)
                     .Property(UInt32Property(L"Event", notification)));
        };
        winlogon(801, 1, 0);
        winlogon(802, 2, 0);
        winlogon(801, 1, 2);
        for (uint8_t opcode : {1, 2}) {
            Emit(Event(providers::kWinlogon, opcode == 1 ? 811 : 812, opcode, session, sid)
                     .Property(UInt32Property(L"Event", 2))
                     .Property(L"SubscriberName", L"Profiles"));
            if (opcode == 1) {
                Emit(Event(providers::kUserProfiles, 6, 0, session, sid)
                         .Property(L"Source", L"\\\\server\\profiles\\u")
                         .Property(L"Target", L"C:\\Users\\u"));
                Emit(Event(providers::kUserProfiles, 5, 0, session, sid)
                         .Property(L"File", L"C:\\Users\\u\\ntuser.dat")
                         .Property(L"Key", L"HKU\\" + sid));
                Emit(Event(providers::kUserProfiles, 7, 0, session, sid)
                         .Property(L"Source", L"\\\\server\\profiles\\u")
                         .Property(L"Target", L"C:\\Users\\u")
                         .Property(L"Result", L"0"));
            }
        }
        Emit(Event(providers::kGroupPolicy, 4016, 1, session, sid)
                 .ActivityId(activity)
                 .Property(Bytes(L"CSEExtensionId", 15, std::vector<uint8_t>(16, 1)))
                 .Property(L"CSEExtensionName", L"Registry")
                 .Property(Bytes(L"IsExtensionAsyncProcessing", 13, UInt32Bytes(0)))
                 .Property(Bytes(L"IsGPOListChanged", 13, UInt32Bytes(1)))
                 .Property(L"GPOListStatusString", L"Changed")
                 .Property(L"DescriptionString", L"Registry")
                 .Property(L"ApplicableGPOList", L"Default Domain Policy"));
        for (int i = 0; i < kEventsPerLogon - 17; ++i) {
            Filler(i, session, sid);
        }
        Emit(Event(providers::kGroupPolicy, 5016, 2, session, sid)
                 .ActivityId(activity)
                 .Property(UInt32Property(L"CSEElaspedTimeInMilliSeconds", 1500))
                 .Property(UInt32Property(L"ErrorCode", 0))
                 .Property(L"CSEExtensionName", L"Registry")
                 .Property(Bytes(L"CSEExtensionId", 15, std::vector<uint8_t>(16, 1))));
        Emit(Event(providers::kGroupPolicy, 8001, 2, session, sid)
                 .ActivityId(activity)
                 .Property(UInt32Property(L"PolicyElaspedTimeInSeconds", 2))
                 .Property(UInt32Property(L"ErrorCode", 0))
                 .Property(L"PrincipalSamName", L"CORP\\u")
                 .Property(Bytes(L"IsMachine", 13, UInt32Bytes(0)))
                 .Property(Bytes(L"IsConnectivityFailure", 13, UInt32Bytes(0))));
        winlogon(802, 2, 2);
        winlogon(801, 1, 12);
        winlogon(802, 2, 12);
        Emit(Event(providers::kWinlogon, 10, 2, session, sid));
        Emit(Event(providers::kShellCore, 9602, 2, session, sid));
    }

  private:
    // Process starts and exits of the session, and Shell-Core events that
    // no schema describes.
    void Filler(int i, uint32_t session, const std::wstring& sid) {
        const uint32_t pid = 5000 + i;
        if (i % 2 == 0) {
            Emit(Event(providers::kShellCore, 9000 + i % 100, 0, session, sid)
                     .Payload(UInt64Bytes(i)));
        } else if (i % 4 == 1) {
            Emit(Event(providers::kKernelProcess, 1, 1, session, sid)
                     .Property(UInt32Property(L"ProcessID", pid))
                     .Property(Bytes(L"CreateTime", 17, UInt64Bytes(now_)))
                     .Property(UInt32Property(L"ParentProcessID", 4))
                     .Property(UInt32Property(L"SessionID", session))
                     .Property(L"ImageName", L"\\Device\\HarddiskVolume2\\Windows\\app.exe"));
        } else {
            Emit(Event(providers::kKernelProcess, 2, 2, session, sid)
                     .Property(UInt32Property(L"ProcessID", pid - 2))
                     .Property(Bytes(L"CreateTime", 17, UInt64Bytes(now_ - kTick)))
                     .Property(Bytes(L"ExitTime", 17, UInt64Bytes(now_)))
                     .Property(UInt32Property(L"ExitCode", 0))
                     .Property(UInt32Property(L"TokenElevationType", 1))
                     .Property(UInt32Property(L"HandleCount", 10))
                     .Property(Bytes(L"CommitCharge", 10, UInt64Bytes(4096)))
                     .Property(Bytes(L"CommitPeak", 10, UInt64Bytes(8192)))
                     .Property(Bytes(L"ImageName", 2, AnsiBytes("app.exe"))));
        }
    }

    EventBuilder& Event(const GUID& provider, uint16_t id, uint8_t opcode, uint32_t session,
                        const std::wstring& sid) {
        builder_ = std::make_unique<EventBuilder>();
        builder_->Provider(provider).EventId(id).Opcode(opcode).Level(4).ProcessId(600).ThreadId(
            700 + session);
        builder_->SessionId(session).UserSid(sid);
        return *builder_;
    }

    void Emit(EventBuilder& builder) {
        now_ += kTick;
        builder.Timestamp(now_);
        writer_.Write(builder.Record());
    }

    EtlWriter& writer_;
    std::unique_ptr<EventBuilder> builder_;
    uint64_t now_ = kStart;
};

// The generated trace, written once before the first benchmark's timing
// starts and removed at exit.
class GeneratedTrace {
  public:
    GeneratedTrace() : folder_(std::filesystem::temp_directory_path() / "plmx_replay_bench") {
        std::filesystem::create_directories(folder_ / "logs");
        std::ofstream out(Path(), std::ios::binary | std::ios::trunc);
        EtlWriter writer(out);
        TraceScript script(writer);
        for (int i = 0; i < kLogons; ++i) {
            script.Logon(i);
        }
        writer.Finish();
    }
    ~GeneratedTrace() { std::filesystem::remove_all(folder_); }

    std::filesystem::path Path() const { return folder_ / "logons.etl"; }
    std::filesystem::path Logs() const { return folder_ / "logs"; }

  private:
    std::filesystem::path folder_;
};

const GeneratedTrace& Trace() {
    static const GeneratedTrace trace;
    return trace;
}

void CountEvents(benchmark::State& state, uint64_t events) {
    state.SetItemsProcessed(static_cast<int64_t>(events) * state.iterations());
}

void BM_BareRead(benchmark::State& state) {
    const std::string path = Trace().Path().string();
    std::vector<char> chunk(1 << 20);
    uint64_t bytes = 0;
    for (auto _ : state) {
        const int file = open(path.c_str(), O_RDONLY);
        ssize_t got = 0;
        while ((got = read(file, chunk.data(), chunk.size())) > 0) {
            bytes += static_cast<uint64_t>(got);
        }
        close(file);
    }
    benchmark::DoNotOptimize(bytes);
    CountEvents(state, uint64_t{kLogons} * kEventsPerLogon);
}

void BM_Read(benchmark::State& state) {
    const std::string path = Trace().Path().string();
    uint64_t events = 0;
    for (auto _ : state) {
        events = ReadEtlFile(path, [](const EVENT_RECORD&) {}).events;
    }
    CountEvents(state, events);
}

void BM_ReadAndDecode(benchmark::State& state) {
    const std::string path = Trace().Path().string();
    uint64_t events = 0;
    for (auto _ : state) {
        events = logonmon::ReplayEtlFile(path, [](const EVENT_RECORD& record) {
                     const logonmon::EventRecordData data(record);
                     benchmark::DoNotOptimize(data.properties.size());
                 }).events;
    }
    CountEvents(state, events);
}

void BM_WholeReplay(benchmark::State& state) {
    const std::string path = Trace().Path().string();
    uint64_t events = 0;
    size_t sessions = 0;
    for (auto _ : state) {
        ReplayProcessor processor(Trace().Logs(), "logons.etl");
        events = logonmon::ReplayEtlFile(path, [&](const EVENT_RECORD& record) {
                     processor.HandleEventRecord(&record);
                 }).events;
        processor.Finish();
        sessions = processor.Sessions().size();
    }
    state.counters["logons"] = static_cast<double>(sessions);
    CountEvents(state, events);
}

BENCHMARK(BM_BareRead)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Read)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadAndDecode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WholeReplay)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
