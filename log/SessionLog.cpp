#include "log/SessionLog.h"

#include <rpc.h>

#include "log/LogLock.h"
#include "log/LogWriter.h"
#include "logonmon/SessionContext.h"
#include "trace/TextForms.h"

SessionLog::SessionLog() {
    UUID id{};
    UuidCreate(&id);
    logId = logonmon::GuidText(id, false);
}

SessionLog::~SessionLog() {
    CloseSessionLog(*this);
}

std::shared_ptr<SessionLog> SessionLogOf(logonmon::SESSION_CONTEXT& session) {
    LogLockGuard lock;
    if (!session.sessionLog) {
        session.sessionLog = std::make_shared<SessionLog>();
    }
    return session.sessionLog;
}
