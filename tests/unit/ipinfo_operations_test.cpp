/// The operations on the tables with what no datagram gives them, and the results of the tracker's
/// functions, at which their callers do not look. This program has the tracker's source in its own.

#include "ipinfo.cpp" // NOLINT(bugprone-suspicious-include)

#include "fakes/event_loop.h"
#include "fakes/journal.h"
#include "fakes/memory.h"
#include "fakes/netlink.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using fakes::journal;
using fakes::Lines;

constexpr uint8_t host[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
constexpr uint8_t zeros[16] = {};
const std::string zeroDigits(32, '0');

class Operations : public testing::Test {
protected:
    Operations()
    {
        event_init();
        ipinfo_register();
        fakes::netlink().names = {{5, "nas0"}};
        journal().take();
    }
};

TEST(SocketRegistration, TellsOfAFailedStepAndElseGivesTheResultOfEventAdd)
{
    event_init();
    for (int *const result : {&fakes::netlink().socketResult, &fakes::netlink().setsockoptResult,
                              &fakes::netlink().bindResult}) {
        const int success = *result;
        *result = -1;
        EXPECT_EQ(ipinfo_register_netlink(), -1);
        *result = success;
    }
    fakes::eventLoop().addResult = -3;
    EXPECT_EQ(ipinfo_register_netlink(), -3);
}

TEST_F(Operations, OnAnAddressTellWhetherTheyChangedTheTable)
{
    EXPECT_EQ(ipaddr_find(5, AF_INET6, host, 64), nullptr);
    EXPECT_EQ(ipaddr_insert(5, AF_INET6, host, 64), 1);
    EXPECT_EQ(ipaddr_insert(5, AF_INET6, host, 64), 0);
    EXPECT_EQ(ipaddr_find(5, AF_INET6, host, 64), ipList.lh_first);
    EXPECT_EQ(ipaddr_remove(5, AF_INET6, host, 64), 1);
    EXPECT_EQ(ipaddr_remove(5, AF_INET6, host, 64), 0);
    fakes::memory().exhausted = true;
    EXPECT_EQ(ipaddr_insert(5, AF_INET6, host, 64), 0);
}

TEST_F(Operations, OnARouteTellWhetherTheyChangedTheTable)
{
    EXPECT_EQ(route_find(5, AF_INET6, zeros, 64, host), nullptr);
    EXPECT_EQ(route_insert(5, AF_INET6, zeros, 64, host), 1);
    EXPECT_EQ(route_insert(5, AF_INET6, zeros, 64, host), 0);
    EXPECT_EQ(route_find(5, AF_INET6, zeros, 64, host), routeList.lh_first);
    EXPECT_EQ(route_remove(5, AF_INET6, zeros, 64, host), 1);
    EXPECT_EQ(route_remove(5, AF_INET6, zeros, 64, host), 0);
    fakes::memory().exhausted = true;
    EXPECT_EQ(route_insert(5, AF_INET6, zeros, 64, host), 0);
}

TEST_F(Operations, LogNoTextForNoAddress)
{
    ipaddr_log("New", "br0", 3, AF_INET6, nullptr, 64);
    route_log("New", "br0", 3, AF_INET, zeros, 24, nullptr);
    EXPECT_EQ(journal().take(),
              Lines({"log ipinfo.cpp ipaddr_log: New IPv6 address /64 on br0(3)",
                     "log ipinfo.cpp route_log: New IPv4 route 0.0.0.0/24 via  on br0(3)"}));
}

TEST_F(Operations, TakeARouteWithoutGateway)
{
    EXPECT_EQ(route_insert(5, AF_INET6, nullptr, 0, nullptr), 1);
    EXPECT_EQ(route_remove(5, AF_INET6, nullptr, 0, nullptr), 1);
    EXPECT_EQ(journal().take(),
              Lines({"log ipinfo.cpp route_log: New IPv6 default route via  on nas0(5)",
                     "platform_ipinfo_route 1 \"nas0\" 10 null \"\"/0 via null \"\"",
                     "platform_ipinfo_route 0 \"nas0\" 10 " + zeroDigits + " \"\"/0 via " +
                         zeroDigits + " \"\"",
                     "log ipinfo.cpp route_log: Removed IPv6 default route via  on nas0(5)"}));
}

} // namespace
