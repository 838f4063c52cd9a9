// The machine's IPv4 addresses and DNS servers, written with the settings.
#pragma once

#include "diag/AdapterList.h"

// Adapters without a DNS server are left out.
void LogIpAddresses(AdapterList& adapters = SystemAdapterList());
