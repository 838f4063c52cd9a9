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

// Ethernet: two addresses, two DNS servers; Wi-Fi: no DNS server; one
// without a name: no address. The list needs `needs[i]` bytes at the i-th
// call (the last again after that); `result` replaces success once it fits.
struct FakeAdapters : AdapterList {
    ULONG Get(ULONG family, ULONG, IP_ADAPTER_ADDRESSES* buffer, ULONG* size) override {
        EXPECT_EQ(family, ULONG(AF_INET));
        const ULONG needed = needs[std::min(sizes.size(), needs.size() - 1)];
        sizes.push_back(*size);
        if (*size < needed) {
            *size = needed;
            return ERROR_BUFFER_OVERFLOW;
        }
        std::memcpy(buffer, &adapters[0], sizeof adapters[0]);
        return result;
    }

    FakeAdapters() {
        const char* texts[] = {"10.0.0.5", "192.168.1.20", "172.16.0.9", "10.0.0.1", "8.8.8.8"};
        for (int i = 0; i < 5; ++i) {
            sockets[i].sin_family = AF_INET;
            sockets[i].sin_addr.s_addr = inet_addr(texts[i]);
            (i < 3 ? unicast[i].Address : dns[i - 3].Address).lpSockaddr =
                reinterpret_cast<sockaddr*>(&sockets[i]);
        }
        unicast[0].Next = &unicast[1];
        dns[0].Next = &dns[1];
        adapters[0].Next = &adapters[1];
        adapters[0].FriendlyName = const_cast<wchar_t*>(L"Ethernet");
        adapters[0].FirstUnicastAddress = &unicast[0];
        adapters[0].FirstDnsServerAddress = &dns[0];
        adapters[1].Next = &adapters[2];
        adapters[1].FriendlyName = const_cast<wchar_t*>(L"Wi-Fi");
        adapters[1].FirstUnicastAddress = &unicast[2];
        adapters[2].FirstDnsServerAddress = &dns[1];
    }

    std::vector<ULONG> needs;
    ULONG result = NO_ERROR;
    std::vector<ULONG> sizes;
    IP_ADAPTER_ADDRESSES adapters[3]{};
    IP_ADAPTER_UNICAST_ADDRESS unicast[3]{};
    IP_ADAPTER_DNS_SERVER_ADDRESS dns[2]{};
    sockaddr_in sockets[5]{};
};

TEST(NetworkReportTest, ReportsAdaptersWithDnsServersAndGrowsTheBufferThreeTimesAtMost) {
    const Lines report = {
        "INFO Friendly Name: Ethernet",        "INFO IP Address: 10.0.0.5",
        "INFO IP Address: 192.168.1.20",       "INFO Dns Server Address[0]: 10.0.0.1",
        "INFO Dns Server Address[1]: 8.8.8.8", "INFO Friendly Name: Unknown",
        "INFO IP Address: None Found",         "INFO Dns Server Address[0]: 8.8.8.8"};
    // Only the first character of an error's message reaches the log.
    const Lines error = {"ERROR Error: ?"}, none;
    const struct {
        std::vector<ULONG> needs;
        ULONG result;
        std::vector<ULONG> sizes;
        const Lines& expected;
    } cases[] = {
        {{15000}, NO_ERROR, {15000}, report},
        {{15100}, NO_ERROR, {15000, 15100}, report},
        {{15100, 15200, 15300}, NO_ERROR, {15000, 15100, 15200}, error},
        {{15000}, ERROR_NO_DATA, {15000}, none},
        {{15000}, ERROR_ACCESS_DENIED, {15000}, error},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(&test - cases);
        TempFolder folder;
        ScopedMainLog log(folder.Path());
        FakeAdapters adapters;
        adapters.needs = test.needs;
        adapters.result = test.result;
        LogIpAddresses(adapters);
        EXPECT_EQ(adapters.sizes, test.sizes);
        Lines lines = LinesFrom(log.Path(), "LogIpAddresses");
        if (lines.size() == 1 && lines[0].starts_with("ERROR Error: ")) {
            lines[0].back() = '?';
        }
        EXPECT_EQ(lines, test.expected);
    }
}

}  // namespace
