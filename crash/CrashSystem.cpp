#include "crash/CrashSystem.h"

namespace {

class WindowsCrashSystem : public CrashSystem {
  public:
    SYSTEMTIME LocalTime() override {
        SYSTEMTIME utc;
        GetSystemTime(&utc);
        SYSTEMTIME local = utc;
        SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local);
        return local;
    }

    bool WriteDump(HANDLE process, DWORD processId, HANDLE file, MINIDUMP_TYPE type,
                   MINIDUMP_EXCEPTION_INFORMATION* exception) override {
        return MiniDumpWriteDump(process, processId, file, type, exception, nullptr, nullptr) !=
               FALSE;
    }
};

CrashSystem* current = nullptr;

}  // namespace

CrashSystem& CrashSystemInUse() {
    static WindowsCrashSystem system;
    return current != nullptr ? *current : system;
}

CrashSystem* SetCrashSystem(CrashSystem* system) {
    CrashSystem* const previous = current;
    current = system;
    return previous;
}
