#include <gtest/gtest.h>

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "app/Settings.h"
#include "log/LogWriter.h"
#include "log/SessionLog.h"
#include "logonmon/CurrentRecord.h"
#include "logonmon/SessionContext.h"
#include "tests/support/EventBuilder.h"
#include "tests/support/LogFiles.h"
#include "trace/EventRecordData.h"

using namespace plmx::testing;
using logonmon::EventRecordData;
using logonmon::ScopedCurrentRecord;
using Lines = std::vector<std::string>;

namespace {

// An event of 2024-03-05 06:07:08.009 UTC; a replayed trace shows its time.
constexpr SYSTEMTIME kEventUtc = {2024, 3, 2, 5, 6, 7, 8, 9};

std::string EventLocalTime() {
    SYSTEMTIME local;
    SystemTimeToTzSpecificLocalTime(nullptr, &kEventUtc, &local);
    char text[32];
    snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", local.wYear, local.wMonth,
             local.wDay, local.wHour, local.wMinute, local.wSecond, local.wMilliseconds);
    return text;
}

class LogRoutingTest : public ::testing::Test {
  protected:
    LogRoutingTest() { logonmon::AllocateCurrentRecordSlot(); }

    std::unique_ptr<EventRecordData> Record(uint8_t level, const std::wstring& providerName) {
        FILETIME time;
        SystemTimeToFileTime(&kEventUtc, &time);
        EventBuilder builder;
        builder.EventId(5).Level(level).ProcessId(0x1a2b).ThreadId(0x3c).Timestamp(
            (uint64_t(time.dwHighDateTime) << 32) | time.dwLowDateTime);
        if (!providerName.empty()) {
            builder.ProviderName(providerName);
        }
        return std::make_unique<EventRecordData>(builder.Record());
    }
    Lines MainLines() {
        Lines lines = ReadLines(mainLog_.Path());
        return Lines(lines.begin() + 1, lines.end());
    }

    ScopedFakeTdh tdh_;
    TempFolder folder_;
    ScopedMainLog mainLog_{folder_.Path()};
    std::shared_ptr<logonmon::SESSION_CONTEXT> session_ =
        std::make_shared<logonmon::SESSION_CONTEXT>();
};

TEST_F(LogRoutingTest, EventOfASessionWithAnOpenLogGoesToThatLog) {
    session_->sessionId = 3;
    const std::shared_ptr<SessionLog> sessionLog = SessionLogOf(*session_);
    const std::wstring path = folder_.Path() + L"plmx_session_" + sessionLog->logId + L"_3.txt";
    ASSERT_TRUE(OpenLog(path, *sessionLog));
    const auto record = Record(4, L"Microsoft-Windows-Winlogon");
    record->sessionContext = session_;
    record->sessionIdOverride = &session_->sessionId;
    {
        ScopedCurrentRecord current(record.get());
        LogMessage(nullptr, LOG_LEVEL_TRACE, L"Routing::Test", "handled %ws", L"logon");
    }
    LogMessage(nullptr, LOG_LEVEL_TRACE, L"Routing::Test", "not an event");

    EXPECT_EQ(ReadLines(path),
              Lines{EventLocalTime() + " INFO (1a2b-003c-3) [0005] [Microsoft-Windows-Winlogon] "
                                       "handled logon"});
    EXPECT_EQ(Messages(MainLines()),
              (Lines{"Created Folder: " + Narrow(Settings::Instance().LogPath), "not an event"}));
}

TEST_F(LogRoutingTest, SessionGetsALogRecordEvenFromFilteredLines) {
    session_->sessionId = 7;
    const auto record = Record(5, L"Microsoft-Windows-User Profiles Service");
    record->sessionContext = session_;
    record->sessionIdOverride = &session_->sessionId;
    ScopedCurrentRecord current(record.get());

    Settings::Instance().LogLevel = 0;
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Routing::Test", "filtered");
    ASSERT_TRUE(session_->sessionLog);
    EXPECT_EQ(session_->sessionLog->stream, nullptr);

    // Without an open session log the session's lines go to the main log.
    Settings::Instance().LogLevel = 0x1F;
    LogMessage(nullptr, LOG_LEVEL_INFO, L"Routing::Test", "kept");
    EXPECT_EQ(MainLines(),
              Lines{EventLocalTime() + " VERBOSE (1a2b-003c-7) [0005] "
                                       "[Microsoft-Windows-User Profiles Service] kept"});
}

TEST_F(LogRoutingTest, EventWithoutSessionOrProviderNameNamesTheFunction) {
    const auto record = Record(2, L"");
    {
        ScopedCurrentRecord current(record.get());
        LogMessage(nullptr, LOG_LEVEL_INFO, L"Routing::Test", "unbound");
    }
    EXPECT_EQ(MainLines(),
              Lines{EventLocalTime() + " ERROR (1a2b-003c--1) [0005] [Routing::Test] unbound"});
}

}  // namespace
