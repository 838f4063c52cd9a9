#include "tools/replay/ReplayCommand.h"

#include <exception>
#include <filesystem>
#include <optional>
#include <system_error>

#include "logonmon/CurrentRecord.h"
#include "tools/replay/ReplayProcessor.h"
#include "trace/ReplayEtlFile.h"

namespace {

constexpr char kUsage[] =
    "Usage: plmx-replay [--output FOLDER] TRACE.etl...\n"
    "\n"
    "Replays saved logon traces (.etl) through plmx's logon processor, as\n"
    "\"plmx.exe /file\" does, and writes the session log of every logon into\n"
    "FOLDER (default: the folder of each trace). Prints each session log's\n"
    "path and its summary.\n"
    "\n"
    "  -o, --output FOLDER  where the session logs go\n"
    "  -h, --help           this text\n";

struct Options {
    std::optional<std::filesystem::path> output;
    std::vector<std::filesystem::path> traces;
    bool help = false;
};

// nullopt, with the reason in `error`, for a command line it cannot use.
std::optional<Options> ParseArguments(const std::vector<std::string>& args, std::string* error) {
    Options options;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg == "-o" || arg == "--output") {
            if (i + 1 == args.size()) {
                *error = arg + " needs a folder";
                return std::nullopt;
            }
            options.output = std::filesystem::path(args[++i]);
        } else if (arg.size() > 1 && arg[0] == '-') {
            *error = "unknown option " + arg;
            return std::nullopt;
        } else {
            options.traces.emplace_back(arg);
        }
    }
    if (!options.help && options.traces.empty()) {
        *error = "no trace file given";
        return std::nullopt;
    }
    return options;
}

// Replays one trace; false when it could not be read completely or held no
// logon.
bool ReplayTrace(const std::filesystem::path& trace, const Options& options, std::ostream& out,
                 std::ostream& err) {
    const std::string name = trace.string();
    std::error_code status;
    if (!std::filesystem::is_regular_file(trace, status)) {
        err << "plmx-replay: " << name << ": no such file\n";
        return false;
    }
    std::filesystem::path folder = options.output.value_or(trace.parent_path());
    if (folder.empty()) {
        folder = ".";
    }
    std::filesystem::create_directories(folder, status);
    if (!std::filesystem::is_directory(folder)) {
        err << "plmx-replay: " << folder.string() << ": cannot create the folder\n";
        return false;
    }

    ReplayProcessor processor(folder, trace.filename().string());
    uint64_t dropped = 0;
    const auto result = logonmon::ReplayEtlFile(name, [&](const EVENT_RECORD& event) {
        try {
            processor.HandleEventRecord(&event);
        } catch (const std::exception&) {
            ++dropped;  // the service, too, drops an event it cannot decode
        }
    });
    processor.Finish();

    bool good = true;
    if (!result.complete) {
        if (result.events == 0) {
            err << "plmx-replay: " << name << ": not a trace file (" << result.error << ")\n";
            return false;
        }
        err << "plmx-replay: " << name << ": " << result.error << "; replayed the " << result.events
            << " events before it\n";
        good = false;
    }
    if (dropped != 0) {
        err << "plmx-replay: " << name << ": " << dropped << " events could not be decoded\n";
    }
    const auto& sessions = processor.Sessions();
    const auto unsettled = processor.UnsettledLogs();
    if (sessions.empty() && unsettled.empty()) {
        err << "plmx-replay: " << name << ": no logon in this trace (" << result.events
            << " events)\n";
        return false;
    }
    for (const ReplayedSession& session : sessions) {
        if (!session.logWritten) {
            err << "plmx-replay: " << session.logPath.string() << ": cannot write\n";
            good = false;
        }
        out << session.logPath.string() << "\n";
        for (const std::string& line : session.summary) {
            out << line << "\n";
        }
        out << "\n";
    }
    for (const auto& path : unsettled) {
        out << path.string() << "\n(the logon does not reach the shell in this trace)\n\n";
    }
    return good;
}

}  // namespace

int RunReplayCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    std::string error;
    const std::optional<Options> options = ParseArguments(args, &error);
    if (!options) {
        err << "plmx-replay: " << error << "\n\n" << kUsage;
        return 2;
    }
    if (options->help) {
        out << kUsage;
        return 0;
    }
    logonmon::AllocateCurrentRecordSlot();
    bool good = true;
    for (const auto& trace : options->traces) {
        good = ReplayTrace(trace, *options, out, err) && good;
    }
    logonmon::FreeCurrentRecordSlot();
    return good ? 0 : 1;
}
