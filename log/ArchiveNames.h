// The names of archived and uploaded session logs. Dates run month, day,
// year on purpose, and milliseconds take four digits.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

// The current time from the system clock, in the machine's current time zone.
SYSTEMTIME CurrentLocalTime();

// `logFolder` "plmx__<host>_<user>_MM_DD_YYYY__HH_MM_SS_mmmm.txt".
std::wstring ArchiveName(const std::wstring& logFolder, const std::wstring& host,
                         const std::wstring& user, const SYSTEMTIME& localTime);

// Matches every archive of `host` in `logFolder`, and never a ".bak" left
// beside a session log.
std::wstring ArchiveSearchPattern(const std::wstring& logFolder, const std::wstring& host);

// "\\?\UNC\" and `remoteFolder` without its leading "\\", then
// "\<host>_<user>_<session>_MM_DD_YYYYTHH_MM_SS_mmmm.txt".
std::wstring UploadDestination(const std::wstring& remoteFolder, const std::wstring& host,
                               const std::wstring& user, uint32_t sessionId,
                               const SYSTEMTIME& localTime);
