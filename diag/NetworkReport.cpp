#include "diag/NetworkReport.h"

#include <cstdio>
#include <memory>
#include <new>
#include <string>

#include "log/LogWriter.h"
#include "trace/UniqueHandle.h"

namespace {

constexpr wchar_t kFunction[] = L"LogIpAddresses";
constexpr ULONG kFirstBufferSize = 15000;
// The list may grow between the size query and the next call.
constexpr int kMaxAttempts = 3;

std::string DottedDecimal(const SOCKET_ADDRESS& address) {
    if (address.lpSockaddr == nullptr || address.lpSockaddr->sa_family != AF_INET) {
        return "Unknown";
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(
        &reinterpret_cast<sockaddr_in*>(address.lpSockaddr)->sin_addr);
    char text[16];
    snprintf(text, sizeof(text), "%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
    return text;
}

void LogAdapter(const IP_ADAPTER_ADDRESSES& adapter) {
    LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "Friendly Name: %ws",
               adapter.FriendlyName != nullptr ? adapter.FriendlyName : L"Unknown");
    if (adapter.FirstUnicastAddress == nullptr) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "IP Address: None Found");
    }
    for (auto* unicast = adapter.FirstUnicastAddress; unicast != nullptr; unicast = unicast->Next) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "IP Address: %s",
                   DottedDecimal(unicast->Address).c_str());
    }
    int index = 0;
    for (auto* dns = adapter.FirstDnsServerAddress; dns != nullptr; dns = dns->Next, ++index) {
        LogMessage(nullptr, LOG_LEVEL_INFO, kFunction, "Dns Server Address[%d]: %s", index,
                   DottedDecimal(dns->Address).c_str());
    }
}

// The message text is wide but goes to "%s", so only its first character
// reaches the log; administrators know the line by that.
void LogError(ULONG error) {
    wchar_t* text = nullptr;
    FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    const UniqueLocalMemory message(text);
    LogMessage(nullptr, LOG_LEVEL_ERROR, kFunction, "Error: %s", text != nullptr ? text : L"");
}

}  // namespace

void LogIpAddresses(AdapterList& adapters) {
    ULONG size = kFirstBufferSize;
    std::unique_ptr<uint8_t[]> buffer;
    ULONG result = ERROR_BUFFER_OVERFLOW;
    for (int attempt = 0; attempt < kMaxAttempts && result == ERROR_BUFFER_OVERFLOW; ++attempt) {
        buffer.reset();
        buffer.reset(new (std::nothrow) uint8_t[size]);
        if (!buffer) {
            return;
        }
        result = adapters.Get(AF_INET, GAA_FLAG_INCLUDE_PREFIX,
                              reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.get()), &size);
    }
    if (result == ERROR_NO_DATA) {
        return;
    }
    if (result != NO_ERROR) {
        LogError(result);
        return;
    }
    for (auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(buffer.get());
         adapter != nullptr; adapter = adapter->Next) {
        if (adapter->FirstDnsServerAddress != nullptr) {
            LogAdapter(*adapter);
        }
    }
}
