#include "crash/MiniDump.h"

#include <shlobj.h>

#include <string>

#include "app/Settings.h"
#include "crash/AdminOnlySecurity.h"
#include "crash/CrashSystem.h"
#include "crash/DumpName.h"
#include "crash/PurgeDumps.h"
#include "log/LogWriter.h"
#include "trace/ResultCode.h"
#include "trace/UniqueHandle.h"

namespace {

constexpr wchar_t kFunction[] = L"NRVGenerateDumpEx";
constexpr MINIDUMP_TYPE kDumpType = static_cast<MINIDUMP_TYPE>(
    MiniDumpWithDataSegs | MiniDumpWithFullMemory | MiniDumpWithHandleData);

uint32_t LastResult() {
    return ResultFromWin32(GetLastError());
}

// The data folder without its trailing separator, so that the dump's path
// has one separator before its name also in the long-path form.
std::wstring DumpFolder() {
    std::wstring folder = Settings::Instance().DataDir;
    if (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/')) {
        folder.pop_back();
    }
    return folder;
}

void WriteDump(HANDLE file, DWORD threadId, EXCEPTION_POINTERS* pointers) {
    const UniqueHandle process(
        OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, GetCurrentProcessId()));
    if (!process) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Failed Opening Process: 0x%X",
                   LastResult());
        return;
    }
    MINIDUMP_EXCEPTION_INFORMATION exception{threadId, pointers, TRUE};
    if (!CrashSystemInUse().WriteDump(process.Get(), GetCurrentProcessId(), file, kDumpType,
                                      pointers != nullptr ? &exception : nullptr)) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "MiniDumpWriteDump Failed: 0x%X",
                   LastResult());
        return;
    }
    LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "MiniDumpWriteDump Succeeded");
}

}  // namespace

int NRVGenerateDumpEx(EXCEPTION_POINTERS* pointers, int reason) {
    // The dump is written as the service, not as a user it was impersonating.
    RevertToSelf();
    const SYSTEMTIME now = CrashSystemInUse().LocalTime();
    const DWORD threadId = GetCurrentThreadId();
    if (pointers == nullptr) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Pointers is NULL");
        if (reason == kDumpReasonException) {
            return 1;
        }
    }
    DWORD code = 0;
    std::wstring exceptionName = L"UNKNOWN";
    if (reason == kDumpReasonException) {
        code = pointers->ExceptionRecord->ExceptionCode;
        exceptionName = ExceptionName(code);
    }
    const std::wstring folder = DumpFolder();
    const std::wstring path =
        DumpFileName(folder, GetCurrentProcessId(), threadId, code, exceptionName, now);

    AdminOnlySecurity security;
    // A folder that exists already keeps its security; the dump has its own.
    SHCreateDirectoryExW(nullptr, folder.c_str(), security.Attributes());
    NRVPurgeDumps(folder, kDumpPurgePattern);

    const UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        security.Attributes(), CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                        nullptr));
    // Only a null handle counts as failure: the invalid handle value goes on
    // to the dump, which then reports its own failure.
    if (file.Get() == nullptr) {
        LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Failed Opening Dump File: 0x%X",
                   LastResult());
        return 1;
    }
    // At error level so that it shows in a log limited to errors.
    LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Opened Dump File: %ws", path.c_str());
    WriteDump(file.Get(), threadId, pointers);
    return 1;
}
