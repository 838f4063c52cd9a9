// ETW structure names as the decoding and logon code use them: the SDK's on
// Windows, the fixed-layout declarations elsewhere.
#pragma once

#include <cstdint>
#include <cstring>

#ifdef _WIN32
#include <windows.h>
#include <evntcons.h>
#include <tdh.h>
#else
#include "trace/EtwLayout.h"

using GUID = logonmon::etw::GUID;
using EVENT_DESCRIPTOR = logonmon::etw::EVENT_DESCRIPTOR;
using EVENT_HEADER = logonmon::etw::EVENT_HEADER;
using EVENT_HEADER_EXTENDED_DATA_ITEM = logonmon::etw::EVENT_HEADER_EXTENDED_DATA_ITEM;
using EVENT_RECORD = logonmon::etw::EVENT_RECORD;
using EVENT_PROPERTY_INFO = logonmon::etw::EVENT_PROPERTY_INFO;
using TRACE_EVENT_INFO = logonmon::etw::TRACE_EVENT_INFO;
using PROPERTY_DATA_DESCRIPTOR = logonmon::etw::PROPERTY_DATA_DESCRIPTOR;
using FILETIME = logonmon::etw::FILETIME;
using SYSTEMTIME = logonmon::etw::SYSTEMTIME;
// Schema text is UTF-16 on every platform.
using WCHAR = char16_t;
#endif

namespace logonmon::etw {

inline constexpr uint16_t kExtTypeSid = 2;   // EVENT_HEADER_EXT_TYPE_SID
inline constexpr uint16_t kExtTypeTsId = 3;  // EVENT_HEADER_EXT_TYPE_TS_ID
inline constexpr uint32_t kPropertyStruct = 0x1;

inline constexpr uint32_t kErrorSuccess = 0;
inline constexpr uint32_t kErrorNotSupported = 50;
inline constexpr uint32_t kErrorInsufficientBuffer = 122;
inline constexpr uint32_t kErrorNotFound = 1168;

// TDH in-types and the out-types that change a value's text.
enum InType : uint16_t {
    kInTypeNull = 0,
    kInTypeUnicodeString = 1,
    kInTypeAnsiString = 2,
    kInTypeInt8 = 3,
    kInTypeUInt8 = 4,
    kInTypeInt16 = 5,
    kInTypeUInt16 = 6,
    kInTypeInt32 = 7,
    kInTypeUInt32 = 8,
    kInTypeInt64 = 9,
    kInTypeUInt64 = 10,
    kInTypeFloat = 11,
    kInTypeDouble = 12,
    kInTypeBoolean = 13,
    kInTypeBinary = 14,
    kInTypeGuid = 15,
    kInTypePointer = 16,
    kInTypeFileTime = 17,
    kInTypeSystemTime = 18,
    kInTypeSid = 19,
    kInTypeHexInt32 = 20,
    kInTypeHexInt64 = 21,
    kInTypeCountedString = 300,
    kInTypeCountedAnsiString = 301,
    kInTypeHexDump = 308,
};

enum OutType : uint16_t {
    kOutTypePort = 22,
    kOutTypeIpv4 = 23,
};

}  // namespace logonmon::etw

namespace logonmon {

inline bool GuidEquals(const GUID& left, const GUID& right) {
    return std::memcmp(&left, &right, sizeof(GUID)) == 0;
}

}  // namespace logonmon
