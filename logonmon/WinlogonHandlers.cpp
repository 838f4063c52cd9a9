#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "logonmon/EventFields.h"
#include "logonmon/LogonProcessor.h"
#include "logonmon/ProcessorTexts.h"
#include "logonmon/TimingPoints.h"
#include "trace/PerThread.h"

namespace logonmon {

namespace {

constexpr uint8_t kOpcodeStart = 1;
constexpr uint8_t kOpcodeStop = 2;

constexpr uint16_t kNotificationStart = 801;
constexpr uint16_t kNotificationStop = 802;
constexpr uint16_t kSubscriberStart = 811;
constexpr uint16_t kSubscriberStop = 812;
constexpr uint16_t kUserinitStop = 10;

// "WL_" task "_" [subscriber "_"] notification "_" Start/Stop, e.g.
// "WL_NotifyExecute_Login_Start", "WL_CallSubscriber_Profiles_Login_Start".
std::wstring_view BuildTimingPointName(const EventRecordData& record,
                                       std::wstring_view notification,
                                       std::wstring_view subscriber) {
    const std::wstring_view ending = record.opcode == kOpcodeStart ? std::wstring_view(L"Start")
                                     : record.opcode == kOpcodeStop
                                         ? std::wstring_view(L"Stop")
                                         : std::wstring_view(record.opcodeName);
    // Built in a buffer that keeps its size: no allocation once a name was seen.
    std::wstring& name = PerThread<std::wstring>();
    name.assign(L"WL_").append(record.taskName).append(L"_");
    if (!subscriber.empty()) {
        name.append(subscriber).append(L"_");
    }
    name.append(notification).append(L"_").append(ending);
    return InternedName(name);
}

// The timing-point names this thread built last, by what they are built
// from: an event kind (its schema, held so that its address stays its own),
// the notification and the subscriber. Most Winlogon events find theirs here
// without building it.
class RecentTimingPointNames {
  public:
    std::wstring_view For(const EventRecordData& record, std::wstring_view notification,
                          std::wstring_view subscriber) {
        Entry& entry = entries_[Slot(record, notification, subscriber)];
        if (!entry.schema || entry.schema != record.schema || entry.opcode != record.opcode ||
            entry.notification != notification || entry.subscriber != subscriber) {
            entry.name = BuildTimingPointName(record, notification, subscriber);
            entry.schema = record.schema;
            entry.opcode = record.opcode;
            entry.notification = notification;
            entry.subscriber = subscriber;
        }
        return entry.name;
    }

  private:
    struct Entry {
        std::shared_ptr<const DecodedSchema> schema;
        uint8_t opcode = 0;
        std::wstring notification;
        std::wstring subscriber;
        std::wstring_view name;
    };

    static size_t Slot(const EventRecordData& record, std::wstring_view notification,
                       std::wstring_view subscriber) {
        // A few characters of each text tell the names of one logon apart.
        size_t hash = reinterpret_cast<uintptr_t>(record.schema.get()) >> 4 ^ record.opcode;
        for (const std::wstring_view text : {notification, subscriber}) {
            hash = hash * 31 + text.size();
            if (!text.empty()) {
                hash = hash * 31 + static_cast<size_t>(text.front());
                hash = hash * 31 + static_cast<size_t>(text[text.size() / 2]);
                hash = hash * 31 + static_cast<size_t>(text.back());
            }
        }
        return hash % kEntries;
    }

    // A logon meets a few dozen kinds of these events.
    static constexpr size_t kEntries = 256;
    std::array<Entry, kEntries> entries_;
};

}  // namespace

void LogonProcessor::RouteWinlogon(EventRecordData& record) {
    const uint16_t id = record.eventId;
    if (id == kUserinitStop) {
        if (record.sessionContext) {
            record.sessionContext->timingPoints[texts::kUserinitStopPoint] = record.timestamp;
        }
        return;
    }
    if (id != kNotificationStart && id != kNotificationStop && id != kSubscriberStart &&
        id != kSubscriberStop) {
        return;
    }
    // Without its notification an event names no phase.
    const std::wstring& notification = PropertyText(record, L"Event");
    if (notification.empty()) {
        return;
    }
    if (id == kNotificationStart) {
        if (EqualsIgnoreCase(notification, L"CreateSession")) {
            Winlogon_CreateSession(record);
        } else if (EqualsIgnoreCase(notification, L"Login")) {
            Winlogon_Login_Started(record);
        }
    }
    const std::wstring& subscriber = PropertyText(record, L"SubscriberName");
    if ((id == kSubscriberStart || id == kSubscriberStop) && record.opcode == kOpcodeStop &&
        EqualsIgnoreCase(notification, L"Login") && EqualsIgnoreCase(subscriber, L"Profiles")) {
        Profiles_Finished(record);
    }
    if (record.sessionContext) {
        RecordWinlogonTimingPoint(record, notification, subscriber);
    }
}

void LogonProcessor::RecordWinlogonTimingPoint(EventRecordData& record,
                                               const std::wstring& notification,
                                               const std::wstring& subscriber) {
    record.sessionContext->timingPoints.insert_or_assign(
        PerThread<RecentTimingPointNames>().For(record, notification, subscriber),
        record.timestamp);
}

void LogonProcessor::Winlogon_CreateSession(EventRecordData& record) {
    static constexpr wchar_t kFunction[] = L"logonmon::LogonProcessor::Winlogon_CreateSession";
    // Winlogon creates the session it runs in: the header names it.
    const uint32_t sessionId = record.sessionId;
    const std::shared_ptr<SESSION_CONTEXT> context = InitSession(sessionId, record);
    if (!context) {
        LogFormatted(kLevelError, kFunction, "InitSession Failed, sessionId=%d", sessionId);
        return;
    }
    LinkToSession(record, context);
    LogFormatted(kLevelVerbose, kFunction, "Session Initialized Successfully: sessionId=%d",
                 sessionId);
}

void LogonProcessor::Winlogon_Login_Started(EventRecordData& record) {
    static constexpr wchar_t kFunction[] = L"logonmon::LogonProcessor::Winlogon_Login_Started";
    LogFormatted(kLevelVerbose, kFunction, "Received User Logon Event");

    std::shared_ptr<SESSION_CONTEXT> context = record.sessionContext;
    if (!context) {
        const uint32_t sessionId = EventSessionId(record);
        LogFormatted(kLevelError, kFunction,
                     "Session Context Not Found. Attempting To Init A New One. sessionId=%d",
                     sessionId);
        context = InitSession(sessionId, record);
        LinkToSession(record, context);
        if (!context) {
            // The message has always shown 0 for the code.
            LogFormatted(kLevelError, kFunction, "Failed Initializing Session: 0x%X, sessionId=%d",
                         0u, sessionId);
            return;
        }
        LogFormatted(kLevelInfo, kFunction, "New Session Initialized Successfully: sessionId=%d",
                     sessionId);
    }

    if (record.userSid) {
        if (!(context->userSid == record.userSid)) {
            context->userName.clear();
            context->userDomain.clear();
            sessionIndex_.ChangeSid(context, record.userSid);
            context->userSidText = record.userSid->ToString();
        }
        LogFormatted(kLevelVerbose, kFunction, "SID: %ws. sessionId=%d",
                     context->userSidText.c_str(), context->sessionId);
    }

    OnLogonStart(*context);

    ResolveAccount(*context);
    if (!context->userName.empty()) {
        LogFormatted(kLevelInfo, kFunction, "LOGON: User: %ws\\%ws", context->userDomain.c_str(),
                     context->userName.c_str());
    }
}

void LogonProcessor::Profiles_Finished(EventRecordData& record) {
    if (!record.sessionContext) {
        LogFormatted(kLevelError, L"logonmon::LogonProcessor::Profiles_Finished",
                     texts::kContextNotFoundBySessionId, EventSessionId(record));
        return;
    }
    record.sessionContext->profileFinished = 0xFFFFFFFF;
}

void LogonProcessor::ResolveAccount(SESSION_CONTEXT& context) {
    if (context.userName.empty() && context.userSid) {
        std::wstring name;
        std::wstring domain;
        if (services_.accounts->LookupAccount(*context.userSid, &name, &domain)) {
            context.userName = std::move(name);
            context.userDomain = std::move(domain);
        }
    }
}

}  // namespace logonmon
