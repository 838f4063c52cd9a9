// The machine's network adapter list, as GetAdaptersAddresses reports it;
// tests replace it with adapters of their own.
#pragma once

#include <winsock2.h>
#include <iphlpapi.h>

class AdapterList {
  public:
    virtual ~AdapterList() = default;
    // GetAdaptersAddresses' contract: fills `buffer` of `*size` bytes, or
    // returns ERROR_BUFFER_OVERFLOW with the size needed in `*size`.
    virtual ULONG Get(ULONG family, ULONG flags, IP_ADAPTER_ADDRESSES* buffer, ULONG* size) = 0;
};

// Binds GetAdaptersAddresses.
AdapterList& SystemAdapterList();
