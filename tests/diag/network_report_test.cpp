#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "diag/NetworkReport.h"
#include "tests/support/LogFiles.h"

using namespace plmx::testing;
using Lines = std::vector<std::string>;

namespace {

// Adapters of its own; the list needs `needs[i]` bytes at the i-th call (the
// last again after that), and `result` replaces success once it fits.
class FakeAdapters : public AdapterList {
  public:
    ULONG Get(ULONG family, ULONG flags, IP_ADAPTER_ADDRESSES* buffer, ULONG* size) override {
        EXPECT_EQ(family, ULONG(AF_INET));
        EXPECT_NE(flags & GAA_FLAG_INCLUDE_PREFIX, 0u);
        const ULONG needed = needs[std::min(sizes.size(), needs.size() - 1)];
        sizes.push_back(*size);
        if (*size < needed) {
            *size = needed;
            return ERROR_BUFFER_OVERFLOW;
        }
        if (result == NO_ERROR) {
            std::memcpy(buffer, &adapters.front(), sizeof(IP_ADAPTER_ADDRESSES));
        }
        return result;
    }

    sockaddr_in* Address(const char* text) {
        auto& address = sockets.emplace_back();
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = inet_addr(text);
        return &address;
    }

    std::vector<ULONG> needs;
    ULONG result = NO_ERROR;
    std::vector<ULONG> sizes;
    std::vector<IP_ADAPTER_ADDRESSES> adapters = std::vector<IP_ADAPTER_ADDRESSES>(3);
    std::vector<IP_ADAPTER_UNICAST_ADDRESS> unicast = std::vector<IP_ADAPTER_UNICAST_ADDRESS>(3);
    std::vector<IP_ADAPTER_DNS_SERVER_ADDRESS> dns = std::vector<IP_ADAPTER_DNS_SERVER_ADDRESS>(2);
    std::vector<sockaddr_in> sockets = std::vector<sockaddr_in>(0);

    FakeAdapters() {
        sockets.reserve(8);
        // Ethernet: two addresses, two DNS servers; Wi-Fi: addresses but no
        // DNS server; VPN: a DNS server but no address.
        adapters[0].FriendlyName = const_cast<wchar_t*>(L"Ethernet");
        adapters[0].Next = &adapters[1];
        adapters[0].FirstUnicastAddress = &unicast[0];
        unicast[0].Address.lpSockaddr = reinterpret_cast<sockaddr*>(Address("10.0.0.5"));
        unicast[0].Next = &unicast[1];
        unicast[1].Address.lpSockaddr = reinterpret_cast<sockaddr*>(Address("192.168.1.20"));
        adapters[0].FirstDnsServerAddress = &dns[0];
        dns[0].Address.lpSockaddr = reinterpret_cast<sockaddr*>(Address("10.0.0.1"));
        dns[0].Next = &dns[1];
        dns[1].Address.lpSockaddr = reinterpret_cast<sockaddr*>(Address("8.8.8.8"));
        adapters[1].FriendlyName = const_cast<wchar_t*>(L"Wi-Fi");
        adapters[1].Next = &adapters[2];
        adapters[1].FirstUnicastAddress = &unicast[2];
        unicast[2].Address.lpSockaddr = reinterpret_cast<sockaddr*>(Address("172.16.0.9"));
        adapters[2].FirstDnsServerAddress = &dns[1];
    }
};

struct Case {
    const char* name;
    std::vector<ULONG> needs;
    ULONG result;
    std::vector<ULONG> sizes;
    Lines expected;
};

const Lines kReport = {
    "INFO Friendly Name: Ethernet",        "INFO IP Address: 10.0.0.5",
    "INFO IP Address: 192.168.1.20",       "INFO Dns Server Address[0]: 10.0.0.1",
    "INFO Dns Server Address[1]: 8.8.8.8", "INFO Friendly Name: Unknown",
    "INFO IP Address: None Found",         "INFO Dns Server Address[0]: 8.8.8.8"};

TEST(NetworkReportTest, ReportsAdaptersWithDnsServersAndGrowsTheBufferThreeTimesAtMost) {
    const Case cases[] = {
        {"fits at once", {15000}, NO_ERROR, {15000}, kReport},
        {"grows once", {15100}, NO_ERROR, {15000, 15100}, kReport},
        // Each answer asks for more than the last: given up after 3 tries.
        {"keeps growing",
         {15100, 15200, 15300},
         NO_ERROR,
         {15000, 15100, 15200},
         {"ERROR Error: "}},
        {"no adapters", {15000}, ERROR_NO_DATA, {15000}, {}},
        {"access denied", {15000}, ERROR_ACCESS_DENIED, {15000}, {"ERROR Error: "}},
    };
    for (const Case& test : cases) {
        TempFolder folder;
        ScopedMainLog log(folder.Path());
        FakeAdapters adapters;
        adapters.needs = test.needs;
        adapters.result = test.result;
        LogIpAddresses(adapters);
        EXPECT_EQ(adapters.sizes, test.sizes) << test.name;
        Lines lines = LinesFrom(log.Path(), "LogIpAddresses");
        // Only the first character of a message reaches the log.
        if (!test.expected.empty() && test.expected[0].starts_with("ERROR")) {
            ASSERT_EQ(lines.size(), 1u) << test.name;
            EXPECT_EQ(lines[0].size(), test.expected[0].size() + 1) << test.name;
            lines[0].pop_back();
        }
        EXPECT_EQ(lines, test.expected) << test.name;
    }
}

}  // namespace
