#include <optional>
#include <string>
#include <string_view>

#include "logonmon/EventFields.h"
#include "logonmon/LogonProcessor.h"
#include "trace/TextForms.h"

namespace logonmon {

namespace {

constexpr float kTicksPerSecond = 10'000'000.0f;

constexpr wchar_t kTotalScriptTime[] = L"Total Group Policy Logon Script Time";

// The file name of an image path; process start events carry the full path.
std::wstring_view ImageFileName(std::wstring_view image) {
    const size_t separator = image.find_last_of(L'\\');
    return separator == std::wstring_view::npos ? image : image.substr(separator + 1);
}

// "YYYY-MM-DDTHH:MM:SS:mmm" as a FILETIME: in UTC with a trailing "Z", else
// in local time, as decoding writes FILETIME properties. Every other form
// gives nothing.
std::optional<uint64_t> ParseTimestamp(const std::wstring& text) {
    static constexpr std::wstring_view kPattern = L"0000-00-00T00:00:00:000";
    const bool utc = text.size() == kPattern.size() + 1 && text.back() == L'Z';
    if (text.size() != kPattern.size() && !utc) {
        return std::nullopt;
    }
    for (size_t i = 0; i < kPattern.size(); ++i) {
        const bool digit = text[i] >= L'0' && text[i] <= L'9';
        if (kPattern[i] == L'0' ? !digit : text[i] != kPattern[i]) {
            return std::nullopt;
        }
    }
    auto number = [&text](size_t offset, size_t digits) {
        uint16_t value = 0;
        for (size_t i = offset; i < offset + digits; ++i) {
            value = static_cast<uint16_t>(value * 10 + (text[i] - L'0'));
        }
        return value;
    };
    SYSTEMTIME time{};
    time.wYear = number(0, 4);
    time.wMonth = number(5, 2);
    time.wDay = number(8, 2);
    time.wHour = number(11, 2);
    time.wMinute = number(14, 2);
    time.wSecond = number(17, 2);
    time.wMilliseconds = number(20, 3);
    uint64_t fileTime = 0;
    const bool converted = utc ? SystemTimeToFileTimeValue(time, &fileTime)
                               : LocalSystemTimeToFileTime(time, &fileTime);
    if (!converted) {
        return std::nullopt;
    }
    return fileTime;
}

void KeepEarliest(TimingPoints& points, const wchar_t* name, uint64_t value) {
    const auto [point, inserted] = points.try_emplace(name, value);
    if (!inserted && point->second > value) {
        point->second = value;
    }
}

void KeepLatest(TimingPoints& points, const wchar_t* name, uint64_t value) {
    const auto [point, inserted] = points.try_emplace(name, value);
    if (!inserted && point->second < value) {
        point->second = value;
    }
}

// A name that holds milliseconds here is a programming error: std::get throws.
void AddSeconds(SESSION_CONTEXT& context, const wchar_t* name, float seconds) {
    std::get<float>(context.namedDurations.try_emplace(name, 0.0f).first->second) += seconds;
}

// Where one kind of script run is recorded: its earliest start, its latest
// stop and its own duration, beside the total of all script runs.
struct ScriptRunNames {
    const wchar_t* startPoint;
    const wchar_t* stopPoint;
    const wchar_t* duration;
};

void RecordScriptRun(SESSION_CONTEXT& context, const ScriptRunNames& names, uint64_t created,
                     uint64_t exited, float seconds) {
    KeepEarliest(context.timingPoints, names.startPoint, created);
    KeepLatest(context.timingPoints, names.stopPoint, exited);
    AddSeconds(context, names.duration, seconds);
    AddSeconds(context, kTotalScriptTime, seconds);
}

}  // namespace

void LogonProcessor::Process_Started(EventRecordData& record) {
    if (!record.sessionContext) {
        return;
    }
    SESSION_CONTEXT& context = *record.sessionContext;
    const std::wstring& image = PropertyText(record, L"ImageName");
    const uint32_t parentId = ParseDecimal(PropertyText(record, L"ParentProcessID")).value_or(0);
    const auto processId = ParseDecimal(PropertyText(record, L"ProcessID"));
    const std::wstring_view fileName = ImageFileName(image);

    if (EqualsIgnoreCase(fileName, L"GPSCRIPT.EXE")) {
        if (!processId) {
            return;
        }
        LogFormatted(kLevelVerbose, L"logonmon::LogonProcessor::Process_Started",
                     "Found Logon Script Parent: Name: %ws, Pid: %d, Sessiond: %d", image.c_str(),
                     *processId, context.sessionId);
        context.scriptHosts[*processId].parentProcessId = parentId;
    } else if (EqualsIgnoreCase(fileName, L"POWERSHELL.EXE")) {
        const auto host = context.scriptHosts.find(parentId);
        if (host != context.scriptHosts.end()) {
            host->second.powerShell = true;
        }
    }
}

void LogonProcessor::Process_Exited(EventRecordData& record) {
    static constexpr wchar_t kFunction[] = L"logonmon::LogonProcessor::Process_Exited";
    if (!record.sessionContext) {
        return;
    }
    SESSION_CONTEXT& context = *record.sessionContext;
    const std::wstring& processIdText = PropertyText(record, L"ProcessID");
    const auto processId = ParseDecimal(processIdText);
    const auto tracked =
        processId ? context.scriptHosts.find(*processId) : context.scriptHosts.end();
    if (tracked == context.scriptHosts.end()) {
        return;
    }
    const ScriptHost host = tracked->second;
    context.scriptHosts.erase(tracked);
    const std::wstring& image = PropertyText(record, L"ImageName");
    const std::wstring& exitText = PropertyText(record, L"ExitTime");
    const auto created = ParseTimestamp(PropertyText(record, L"CreateTime"));
    const auto exited = ParseTimestamp(exitText);
    if (!created || !exited) {
        return;
    }

    const float seconds = static_cast<float>(*exited - *created) / kTicksPerSecond;
    if (host.powerShell) {
        RecordScriptRun(context,
                        {L"GP_PS_LOGON_SCRIPT_START", L"GP_PS_LOGON_SCRIPT_STOP",
                         L"Group Policy PS Logon Script Time"},
                        *created, *exited, seconds);
        LogFormatted(kLevelVerbose, kFunction,
                     "Powershell Script Process Terminated: Name: %ws, Process Id: %ws, Parent Id: "
                     "%d, Timestamp: %ws, SessionID: %d",
                     image.c_str(), processIdText.c_str(), host.parentProcessId, exitText.c_str(),
                     context.sessionId);
        LogFormatted(kLevelVerbose, kFunction, "Group Policy Powershell Script Time: %.2f Seconds",
                     seconds);
    } else {
        RecordScriptRun(
            context,
            {L"GP_LOGON_SCRIPT_START", L"GP_LOGON_SCRIPT_STOP", L"Group Policy Logon Script Time"},
            *created, *exited, seconds);
        // This line's name is narrow ("%s").
        LogFormatted(kLevelVerbose, kFunction,
                     "Logon Script Process Terminated: Name: %s, Process Id: %d, Parent Id: %d, "
                     "Timestamp: %ws, Sessiond: %d",
                     Utf8FromWide(image).c_str(), *processId, host.parentProcessId,
                     exitText.c_str(), context.sessionId);
        LogFormatted(kLevelVerbose, kFunction, "Group Policy Logon Script Time: %.2f Seconds",
                     seconds);
    }
}

}  // namespace logonmon
