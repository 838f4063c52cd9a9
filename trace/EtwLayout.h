// The ETW record and schema structures that event decoding reads, declared
// with fixed-width types in the Windows x64 layout. The Windows build uses the
// SDK's own declarations and checks that these agree with them.
#pragma once

#include <cstdint>

namespace logonmon::etw {

struct GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};

union LARGE_INTEGER {
    struct {
        uint32_t LowPart;
        int32_t HighPart;
    } u;
    int64_t QuadPart;
};

struct EVENT_DESCRIPTOR {
    uint16_t Id;
    uint8_t Version;
    uint8_t Channel;
    uint8_t Level;
    uint8_t Opcode;
    uint16_t Task;
    uint64_t Keyword;
};

struct EVENT_HEADER {
    uint16_t Size;
    uint16_t HeaderType;
    uint16_t Flags;
    uint16_t EventProperty;
    uint32_t ThreadId;
    uint32_t ProcessId;
    LARGE_INTEGER TimeStamp;
    GUID ProviderId;
    EVENT_DESCRIPTOR EventDescriptor;
    uint64_t ProcessorTime;
    GUID ActivityId;
};

struct ETW_BUFFER_CONTEXT {
    uint8_t ProcessorNumber;
    uint8_t Alignment;
    uint16_t LoggerId;
};

struct EVENT_HEADER_EXTENDED_DATA_ITEM {
    uint16_t Reserved1;
    uint16_t ExtType;
    uint16_t Linkage : 1;
    uint16_t Reserved2 : 15;
    uint16_t DataSize;
    uint64_t DataPtr;
};

struct EVENT_RECORD {
    EVENT_HEADER EventHeader;
    ETW_BUFFER_CONTEXT BufferContext;
    uint16_t ExtendedDataCount;
    uint16_t UserDataLength;
    EVENT_HEADER_EXTENDED_DATA_ITEM* ExtendedData;
    void* UserData;
    void* UserContext;
};

struct EVENT_PROPERTY_INFO {
    uint32_t Flags;
    uint32_t NameOffset;
    union {
        struct {
            uint16_t InType;
            uint16_t OutType;
            uint32_t MapNameOffset;
        } nonStructType;
        struct {
            uint16_t StructStartIndex;
            uint16_t NumOfStructMembers;
            uint32_t padding;
        } structType;
    };
    union {
        uint16_t count;
        uint16_t countPropertyIndex;
    };
    union {
        uint16_t length;
        uint16_t lengthPropertyIndex;
    };
    uint32_t Reserved;
};

// ActivityIDNameOffset and RelatedActivityIDNameOffset share their slots with
// EventNameOffset and EventAttributesOffset in newer SDKs; the older names are
// the ones MinGW-w64 declares.
struct TRACE_EVENT_INFO {
    GUID ProviderGuid;
    GUID EventGuid;
    EVENT_DESCRIPTOR EventDescriptor;
    uint32_t DecodingSource;
    uint32_t ProviderNameOffset;
    uint32_t LevelNameOffset;
    uint32_t ChannelNameOffset;
    uint32_t KeywordsNameOffset;
    uint32_t TaskNameOffset;
    uint32_t OpcodeNameOffset;
    uint32_t EventMessageOffset;
    uint32_t ProviderMessageOffset;
    uint32_t BinaryXMLOffset;
    uint32_t BinaryXMLSize;
    uint32_t ActivityIDNameOffset;
    uint32_t RelatedActivityIDNameOffset;
    uint32_t PropertyCount;
    uint32_t TopLevelPropertyCount;
    uint32_t Flags;
    EVENT_PROPERTY_INFO EventPropertyInfoArray[1];
};

struct PROPERTY_DATA_DESCRIPTOR {
    uint64_t PropertyName;
    uint32_t ArrayIndex;
    uint32_t Reserved;
};

struct FILETIME {
    uint32_t dwLowDateTime;
    uint32_t dwHighDateTime;
};

struct SYSTEMTIME {
    uint16_t wYear;
    uint16_t wMonth;
    uint16_t wDayOfWeek;
    uint16_t wDay;
    uint16_t wHour;
    uint16_t wMinute;
    uint16_t wSecond;
    uint16_t wMilliseconds;
};

}  // namespace logonmon::etw
