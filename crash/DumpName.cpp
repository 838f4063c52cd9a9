#include "crash/DumpName.h"

#include <cwchar>
#include <iterator>

namespace {

constexpr size_t kNameCapacity = 512;

constexpr struct {
    DWORD code;
    const wchar_t* name;
} kExceptionNames[] = {
    {0x80000001, L"GUARD_PAGE"},           {0x80000002, L"DATATYPE_MISALIGNMENT"},
    {0x80000003, L"BREAKPOINT"},           {0x80000004, L"SINGLE_STEP"},
    {0xC0000005, L"ACCESS_VIOLATION"},     {0xC0000006, L"IN_PAGE_ERROR"},
    {0xC0000008, L"INVALID_HANDLE"},       {0xC0000017, L"NO_MEMORY"},
    {0xC000001D, L"ILLEGAL_INSTRUCTION"},  {0xC0000025, L"NONCONTINUABLE_EXCEPTION"},
    {0xC0000026, L"INVALID_DISPOSITION"},  {0xC000008C, L"ARRAY_BOUNDS_EXCEEDED"},
    {0xC000008D, L"FLT_DENORMAL_OPERAND"}, {0xC000008E, L"FLT_DIVIDE_BY_ZERO"},
    {0xC000008F, L"FLT_INEXACT_RESULT"},   {0xC0000090, L"FLT_INVALID_OPERATION"},
    {0xC0000091, L"FLT_OVERFLOW"},         {0xC0000092, L"FLT_STACK_CHECK"},
    {0xC0000093, L"FLT_UNDERFLOW"},        {0xC0000094, L"INT_DIVIDE_BY_ZERO"},
    {0xC0000095, L"INT_OVERFLOW"},         {0xC0000096, L"PRIV_INSTRUCTION"},
    {0xC00000FD, L"STACK_OVERFLOW"},
};

}  // namespace

std::wstring ExceptionName(DWORD code) {
    for (const auto& entry : kExceptionNames) {
        if (entry.code == code) {
            return entry.name;
        }
    }
    // Taken as the system has it: a text with characters that cannot stand
    // in a file name makes the dump's creation fail.
    wchar_t message[kNameCapacity] = {};
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS,
                                        GetModuleHandleW(L"NTDLL.DLL"), code,
                                        MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), message,
                                        static_cast<DWORD>(std::size(message)), nullptr);
    return length != 0 ? std::wstring(message, length) : L"UNKNOWN";
}

std::wstring DumpFileName(const std::wstring& folder, DWORD processId, DWORD threadId, DWORD code,
                          const std::wstring& exceptionName, const SYSTEMTIME& localTime) {
    wchar_t name[kNameCapacity] = {};
    _snwprintf(name, std::size(name) - 1,
               L"%ls\\PLMX_MINIDUMP_%d_%d_0x%X_%ls_%.2d_%.2d_%.4d__%.2d_%.2d_%.2d_%.4d.dmp",
               folder.c_str(), static_cast<int>(processId), static_cast<int>(threadId),
               static_cast<unsigned>(code), exceptionName.c_str(), localTime.wMonth, localTime.wDay,
               localTime.wYear, localTime.wHour, localTime.wMinute, localTime.wSecond,
               localTime.wMilliseconds);
    return name;
}
