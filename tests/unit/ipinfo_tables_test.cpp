/// The address and route tables: what is new, what is known, what is logged and published, and what
/// a record holds.

#include "ipinfo_test.h"

#include <cstddef>

namespace {

using namespace tracker;

// Both records as documented, field after field.
static_assert(offsetof(ipaddr_entry, ifindex) < offsetof(ipaddr_entry, ifname));
static_assert(offsetof(ipaddr_entry, ifname) < offsetof(ipaddr_entry, family));
static_assert(offsetof(ipaddr_entry, family) < offsetof(ipaddr_entry, addr));
static_assert(offsetof(ipaddr_entry, addr) < offsetof(ipaddr_entry, prefixlen));
static_assert(offsetof(ipaddr_entry, prefixlen) < offsetof(ipaddr_entry, entries));
static_assert(offsetof(route_entry, ifindex) < offsetof(route_entry, ifname));
static_assert(offsetof(route_entry, ifname) < offsetof(route_entry, family));
static_assert(offsetof(route_entry, family) < offsetof(route_entry, dst));
static_assert(offsetof(route_entry, dst) < offsetof(route_entry, dst_len));
static_assert(offsetof(route_entry, dst_len) < offsetof(route_entry, gw));
static_assert(offsetof(route_entry, gw) < offsetof(route_entry, entries));
static_assert(sizeof(ipaddr_entry::ifindex) == 4 && sizeof(ipaddr_entry::ifname) == 16);
static_assert(sizeof(ipaddr_entry::family) == 1 && sizeof(ipaddr_entry::addr) == 16);
static_assert(sizeof(ipaddr_entry::prefixlen) == 1);
static_assert(sizeof(route_entry::ifindex) == 4 && sizeof(route_entry::ifname) == 16);
static_assert(sizeof(route_entry::family) == 1 && sizeof(route_entry::dst) == 16);
static_assert(sizeof(route_entry::dst_len) == 1 && sizeof(route_entry::gw) == 16);
static_assert(sizeof ipList == sizeof(void *) && sizeof routeList == sizeof(void *));

// Address messages.

TEST_F(Tracker, TracksAddressesOfUniverseScopeOnly)
{
    for (const unsigned scope : {1U, 200U, 253U, 254U, 255U}) {
        const AddressHeader header = {.scope = static_cast<uint8_t>(scope)};
        EXPECT_EQ(receive(newAddress(hostA, header)), Lines{});
        receive(newAddress(hostA));
        EXPECT_EQ(receive(deletedAddress(hostA, header)), Lines{});
        EXPECT_EQ(receive(deletedAddress(hostA)), removed(hostA));
    }
}

TEST_F(Tracker, IgnoresAnAddressMessageWithoutAddress)
{
    EXPECT_EQ(receive(addressMessage({})), Lines{});
    EXPECT_EQ(receive(addressMessage(attribute(IFA_LOCAL, hostA))), Lines{});
    receive(newAddress(hostA));
    EXPECT_EQ(receive(message(RTM_DELADDR, AddressHeader{})), Lines{});
}

TEST_F(Tracker, LogsANewAddressBeforeItPublishesIt)
{
    EXPECT_EQ(receive(newAddress(hostA)),
              (Lines{"log ipinfo.cpp ipaddr_log: New IPv6 address 2001:db8::1/64 on br0(3)",
                     "platform_ipinfo_ip 1 \"br0\" 10 20010db8000000000000000000000001 "
                     "\"2001:db8::1\"/64"}));
}

TEST_F(Tracker, PublishesARemovedAddressBeforeItLogsIt)
{
    receive(newAddress(hostA));
    EXPECT_EQ(receive(deletedAddress(hostA)),
              (Lines{"platform_ipinfo_ip 0 \"br0\" 10 20010db8000000000000000000000001 "
                     "\"2001:db8::1\"/64",
                     "log ipinfo.cpp ipaddr_log: Removed IPv6 address 2001:db8::1/64 on br0(3)"}));
    EXPECT_EQ(addressCount(), 0U);
    EXPECT_EQ(records(), 0U);
}

TEST_F(Tracker, TracksIpv4AddressesOverTheirFirst4Bytes)
{
    const AddressHeader ipv4 = {.family = AF_INET, .prefixlen = 24};
    const Bytes host = address("192.0.2.1");
    EXPECT_EQ(receive(newAddress(host + Bytes(12, 0xee), ipv4)),
              (Lines{"log ipinfo.cpp ipaddr_log: New IPv4 address 192.0.2.1/24 on br0(3)",
                     "platform_ipinfo_ip 1 \"br0\" 2 c0000201 \"192.0.2.1\"/24"}));
    EXPECT_EQ(receive(newAddress(host + Bytes(12, 0xdd), ipv4)), Lines{});
    EXPECT_EQ(Bytes(ipList.lh_first->addr, ipList.lh_first->addr + 16), host + Bytes(12));
    EXPECT_EQ(receive(deletedAddress(host, ipv4)).size(), 2U);
}

TEST_F(Tracker, ComparesIpv6AddressesOverAll16Bytes)
{
    receive(newAddress(hostA) + newAddress(hostB)); // which differ in the last
    EXPECT_EQ(addressCount(), 2U);
}

TEST_F(Tracker, ComparesIpv4AddressesOverAll4Bytes)
{
    const AddressHeader ipv4 = {.family = AF_INET};
    receive(newAddress(address("192.0.2.1"), ipv4) + newAddress(address("192.0.2.2"), ipv4));
    EXPECT_EQ(addressCount(), 2U);
}

TEST_F(Tracker, RecordsAnAddress)
{
    receive(newAddress(hostA, {.prefixlen = 200}));
    const ipaddr_entry &record = *ipList.lh_first;
    EXPECT_EQ(record.ifindex, 3U);
    EXPECT_EQ(std::string(record.ifname, 16), std::string("br0") + std::string(13, '\0'));
    EXPECT_EQ(record.family, AF_INET6);
    EXPECT_EQ(Bytes(record.addr, record.addr + 16), hostA);
    EXPECT_EQ(record.prefixlen, 200);
    EXPECT_EQ(record.entries.le_next, nullptr);
    EXPECT_EQ(record.entries.le_prev, &ipList.lh_first);
}

TEST_F(Tracker, RecordsTheNewestAddressFirst)
{
    receive(newAddress(hostA) + newAddress(hostB));
    EXPECT_EQ(Bytes(ipList.lh_first->addr, ipList.lh_first->addr + 16), hostB);
}

TEST_F(Tracker, TakesARepeatedAddressAsKnown)
{
    receive(newAddress(hostA));
    EXPECT_EQ(receive(newAddress(hostA) + newAddress(hostA)), Lines{});
    EXPECT_EQ(addressCount(), 1U);
}

TEST_F(Tracker, IgnoresTheRemovalOfAnUnknownAddress)
{
    EXPECT_EQ(receive(deletedAddress(hostA)), Lines{});
    receive(newAddress(hostA));
    EXPECT_EQ(receive(deletedAddress(hostB)), Lines{});
    EXPECT_EQ(receive(deletedAddress(hostA, {.prefixlen = 65})), Lines{});
    EXPECT_EQ(receive(deletedAddress(hostA, {.ifindex = 5})), Lines{});
    EXPECT_EQ(receive(deletedAddress(hostA, {.family = 7})), Lines{});
    EXPECT_EQ(addressCount(), 1U);
}

TEST_F(Tracker, TellsAddressesApartByPrefixLength)
{
    const Bytes host = address("192.0.2.1");
    receive(newAddress(host, {.family = AF_INET, .prefixlen = 24}) +
            newAddress(host, {.family = AF_INET, .prefixlen = 32}));
    EXPECT_EQ(addressCount(), 2U);
    receive(deletedAddress(host, {.family = AF_INET, .prefixlen = 24}));
    ASSERT_EQ(addressCount(), 1U);
    EXPECT_EQ(ipList.lh_first->prefixlen, 32);
}

TEST_F(Tracker, KnowsAnAddressOfAnInterfaceCreatedAnewUnderItsName)
{
    netlink().names = {{5, "ppp0"}};
    receive(newAddress(hostA, {.ifindex = 5}));
    netlink().names = {{7, "ppp0"}};
    EXPECT_EQ(receive(newAddress(hostA, {.ifindex = 7})), Lines{});
    EXPECT_EQ(receive(deletedAddress(hostA, {.ifindex = 7})),
              (Lines{publishedAddress(0, "ppp0", AF_INET6, hostA, 64),
                     loggedAddress("Removed", AF_INET6, hostA, 64, "ppp0", 5)}));
}

TEST_F(Tracker, KnowsAnInterfaceCreatedAnewByANameOfOneLetter)
{
    netlink().names = {{5, "a"}};
    receive(newAddress(hostA, {.ifindex = 5}));
    netlink().names = {{7, "a"}};
    EXPECT_EQ(receive(newAddress(hostA, {.ifindex = 7})), Lines{});
}

TEST_F(Tracker, ComparesInterfaceNamesAsAWhole)
{
    const char *const pairs[][2] = {{"ppp0", "ppp01"},
                                    {"ppp01", "ppp0"},
                                    {"ppp0", "PPP0"},
                                    {"abcdefghijklmno", "abcdefghijklmnp"}};
    for (const auto &[before, now] : pairs) {
        netlink().names = {{5, before}};
        receive(newAddress(hostA, {.ifindex = 5}));
        netlink().names = {{7, now}};
        EXPECT_EQ(receive(newAddress(hostA, {.ifindex = 7})).size(), 2U) << now;
        receive(deletedLink(5) + deletedLink(7));
    }
}

TEST_F(Tracker, AllocatesNoMoreThanARecord)
{
    receive(newAddress(hostA));
    EXPECT_EQ(memory().lastSize, sizeof(ipaddr_entry));
    receive(newRoute(routeAttributes()));
    EXPECT_EQ(memory().lastSize, sizeof(route_entry));
}

TEST_F(Tracker, KnowsAnAddressOfAnInterfaceThatWasRenamed)
{
    receive(newAddress(hostA));
    netlink().names = {{3, "br1"}};
    EXPECT_EQ(receive(newAddress(hostA)), Lines{});
    EXPECT_EQ(receive(deletedAddress(hostA)), removed(hostA)); // with the name of then
}

TEST_F(Tracker, MatchesUnknownInterfacesByIndexOnly)
{
    EXPECT_EQ(receive(newAddress(hostA, {.ifindex = 8})),
              (Lines{loggedAddress("New", AF_INET6, hostA, 64, "", 8),
                     publishedAddress(1, "", AF_INET6, hostA, 64)}));
    EXPECT_EQ(receive(newAddress(hostA, {.ifindex = 9})).size(),
              2U); // not the same, though nameless
    EXPECT_EQ(receive(newAddress(hostA, {.ifindex = 8})), Lines{});
    EXPECT_EQ(receive(deletedAddress(hostA, {.ifindex = 8})),
              (Lines{publishedAddress(0, "", AF_INET6, hostA, 64),
                     loggedAddress("Removed", AF_INET6, hostA, 64, "", 8)}));
}

TEST_F(Tracker, TakesInterfaceNamesOf15Characters)
{
    netlink().names = {{3, "abcdefghijklmno"}};
    EXPECT_EQ(receive(newAddress(hostA))[0],
              loggedAddress("New", AF_INET6, hostA, 64, "abcdefghijklmno", 3));
    EXPECT_EQ(std::string(ipList.lh_first->ifname), "abcdefghijklmno");
}

TEST_F(Tracker, LogsALargeInterfaceIndexAsSigned)
{
    EXPECT_EQ(receive(newAddress(hostA, {.ifindex = 0xffffffff}))[0],
              logged("ipaddr_log", "New IPv6 address 2001:db8::1/64 on (-1)"));
}

TEST_F(Tracker, TakesPrefixLengthsUpTo255)
{
    const AddressHeader header = {.prefixlen = 255};
    EXPECT_EQ(receive(newAddress(hostA, header)), added(hostA, 255));
    EXPECT_EQ(receive(deletedAddress(hostA, header)), removed(hostA, 255));
}

TEST_F(Tracker, TakesOtherFamiliesOver16BytesWithoutText)
{
    const AddressHeader other = {.family = 7, .prefixlen = 1};
    EXPECT_EQ(receive(newAddress(hostA, other)),
              (Lines{"log ipinfo.cpp ipaddr_log: New IPv6 address /1 on br0(3)",
                     "platform_ipinfo_ip 1 \"br0\" 7 20010db8000000000000000000000001 \"\"/1"}));
    EXPECT_EQ(receive(newAddress(hostB, other)).size(), 2U);
    EXPECT_EQ(receive(deletedAddress(hostA, other)).size(), 2U);
}

TEST_F(Tracker, LogsAnAddressThatCannotBeRecordedAndForgetsIt)
{
    memory().exhausted = true;
    const Lines lost = added(hostA) + Lines{logged("ipaddr_insert", "Failed to allocate memory")};
    EXPECT_EQ(receive(newAddress(hostA)), lost);
    EXPECT_EQ(addressCount(), 0U);
    EXPECT_EQ(receive(newAddress(hostA)), lost);
    memory().exhausted = false;
    EXPECT_EQ(receive(newAddress(hostA)), added(hostA));
}

// Route messages.

TEST_F(Tracker, TracksMainTableUnicastRoutesOnly)
{
    for (const unsigned table : {0U, 1U, 252U, 253U, 255U}) {
        const RouteHeader header = {.table = static_cast<uint8_t>(table)};
        EXPECT_EQ(receive(newRoute(routeAttributes(), header)), Lines{});
    }
    for (const unsigned type : {0U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 255U}) {
        const RouteHeader header = {.type = static_cast<uint8_t>(type)};
        EXPECT_EQ(receive(newRoute(routeAttributes(), header)), Lines{});
    }
    receive(newRoute(routeAttributes()));
    EXPECT_EQ(receive(deletedRoute(routeAttributes(), {.table = RT_TABLE_LOCAL})), Lines{});
    EXPECT_EQ(receive(deletedRoute(routeAttributes(), {.type = RTN_LOCAL})), Lines{});
}

TEST_F(Tracker, DoesNotConsultTheTableAttribute)
{
    const Bytes table = attribute(RTA_TABLE, uint32_t{RT_TABLE_LOCAL});
    EXPECT_EQ(receive(newRoute(table + routeAttributes())).size(), 2U);
}

TEST_F(Tracker, IgnoresARouteWithoutGateway)
{
    EXPECT_EQ(receive(newRoute(attribute(RTA_DST, network) + attribute(RTA_OIF, 5U))), Lines{});
    EXPECT_EQ(receive(deletedRoute(attribute(RTA_DST, network))), Lines{});
    EXPECT_EQ(receive(newRoute({})), Lines{});
}

TEST_F(Tracker, IgnoresOtherAttributesOfARoute)
{
    Bytes others;
    for (const unsigned type : {0U, 2U, 3U, 6U, 7U, 8U, 9U, 15U, 18U, 0x4005U, 0x8005U, 0xffffU})
        others = others + attribute(type, hostB);
    EXPECT_EQ(receive(newRoute(others)), Lines{});
    EXPECT_EQ(receive(newRoute(others + routeAttributes(network) + others, {.dst_len = 48}))[0],
              loggedRoute("New", AF_INET6, network, 48, gateway, "nas0", 5));
}

TEST_F(Tracker, TakesTheLastOfEachAttributeOfARoute)
{
    const Bytes first = routeAttributes(hostA, hostB, 3);
    EXPECT_EQ(receive(newRoute(first + routeAttributes(network), {.dst_len = 48}))[0],
              loggedRoute("New", AF_INET6, network, 48, gateway, "nas0", 5));
}

TEST_F(Tracker, TracksADefaultRoute)
{
    EXPECT_EQ(receive(newRoute(routeAttributes())),
              (Lines{"log ipinfo.cpp route_log: New IPv6 default route via fe80::1 on nas0(5)",
                     "platform_ipinfo_route 1 \"nas0\" 10 null \"\"/0 via "
                     "fe800000000000000000000000000001 \"fe80::1\""}));
    EXPECT_EQ(receive(deletedRoute(routeAttributes())),
              (Lines{"platform_ipinfo_route 0 \"nas0\" 10 00000000000000000000000000000000 \"\"/0 "
                     "via fe800000000000000000000000000001 \"fe80::1\"",
                     "log ipinfo.cpp route_log: Removed IPv6 default route via fe80::1 on "
                     "nas0(5)"}));
    EXPECT_EQ(routeCount(), 0U);
    EXPECT_EQ(records(), 0U);
}

TEST_F(Tracker, TracksARouteWithDestination)
{
    const Bytes attributes = routeAttributes(network);
    const RouteHeader header = {.dst_len = 48};
    EXPECT_EQ(
        receive(newRoute(attributes, header)),
        (Lines{"log ipinfo.cpp route_log: New IPv6 route 2001:db8:1::/48 via fe80::1 on nas0(5)",
               "platform_ipinfo_route 1 \"nas0\" 10 20010db8000100000000000000000000 "
               "\"2001:db8:1::\"/48 via fe800000000000000000000000000001 \"fe80::1\""}));
    EXPECT_EQ(receive(deletedRoute(attributes, header)),
              (Lines{"platform_ipinfo_route 0 \"nas0\" 10 20010db8000100000000000000000000 "
                     "\"2001:db8:1::\"/48 via fe800000000000000000000000000001 \"fe80::1\"",
                     "log ipinfo.cpp route_log: Removed IPv6 route 2001:db8:1::/48 via fe80::1 on "
                     "nas0(5)"}));
}

TEST_F(Tracker, TracksIpv4RoutesOverTheirFirst4Bytes)
{
    const Bytes dst = address("198.51.100.0");
    const Bytes gw = address("192.0.2.254");
    const RouteHeader ipv4 = {.family = AF_INET, .dst_len = 24};
    const Bytes noisy = routeAttributes(dst + Bytes(12, 0xee), gw + Bytes(12, 0xee));
    EXPECT_EQ(receive(newRoute(noisy, ipv4)),
              (Lines{"log ipinfo.cpp route_log: New IPv4 route 198.51.100.0/24 via 192.0.2.254 on "
                     "nas0(5)",
                     "platform_ipinfo_route 1 \"nas0\" 2 c6336400 \"198.51.100.0\"/24 via c00002fe "
                     "\"192.0.2.254\""}));
    EXPECT_EQ(receive(newRoute(routeAttributes(dst, gw), ipv4)), Lines{});
    EXPECT_EQ(Bytes(routeList.lh_first->dst, routeList.lh_first->dst + 16), dst + Bytes(12));
    EXPECT_EQ(Bytes(routeList.lh_first->gw, routeList.lh_first->gw + 16), gw + Bytes(12));
}

TEST_F(Tracker, ComparesDestinationAndGatewayToTheirLastByte)
{
    const Bytes v4a = address("192.0.2.1");
    const Bytes v4b = address("192.0.2.2");
    const RouteHeader ipv4 = {.family = AF_INET};
    receive(newRoute(routeAttributes(v4a, v4a), ipv4) + newRoute(routeAttributes(v4b, v4a), ipv4) +
            newRoute(routeAttributes(v4a, v4b), ipv4));
    receive(newRoute(routeAttributes(hostA, hostA)) + newRoute(routeAttributes(hostB, hostA)) +
            newRoute(routeAttributes(hostA, hostB)));
    EXPECT_EQ(routeCount(), 6U);
}

TEST_F(Tracker, TakesDestinationLengthsUpTo255)
{
    const Bytes attributes = routeAttributes(network);
    const RouteHeader header = {.dst_len = 255};
    EXPECT_EQ(receive(newRoute(attributes, header)),
              (Lines{loggedRoute("New", AF_INET6, network, 255, gateway, "nas0", 5),
                     publishedRoute(1, "nas0", AF_INET6, network, "2001:db8:1::", 255, gateway)}));
    EXPECT_EQ(receive(deletedRoute(attributes, header)),
              (Lines{publishedRoute(0, "nas0", AF_INET6, network, "2001:db8:1::", 255, gateway),
                     loggedRoute("Removed", AF_INET6, network, 255, gateway, "nas0", 5)}));
}

TEST_F(Tracker, TakesALargeInterfaceIndexOfARouteAndLogsItAsSigned)
{
    const uint32_t large = 0x80010005; // nas0's index in its low half
    EXPECT_EQ(receive(newRoute(routeAttributes({}, gateway, large)))[0],
              loggedRoute("New", AF_INET6, {}, 0, gateway, "", large));
    EXPECT_EQ(receive(newRoute(routeAttributes(network, gateway, large), {.dst_len = 48}))[0],
              loggedRoute("New", AF_INET6, network, 48, gateway, "", large));
    EXPECT_EQ(routeList.lh_first->ifindex, large);
    const Lines lines = receive(deletedLink(static_cast<int>(large)));
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[0], logged("ipinfo_netlink_dellink", "Removed interface (-2147418107)"));
}

TEST_F(Tracker, RecordsARoute)
{
    receive(newRoute(routeAttributes(network), {.dst_len = 48}));
    const route_entry &record = *routeList.lh_first;
    EXPECT_EQ(record.ifindex, 5U);
    EXPECT_EQ(std::string(record.ifname, 16), std::string("nas0") + std::string(12, '\0'));
    EXPECT_EQ(record.family, AF_INET6);
    EXPECT_EQ(Bytes(record.dst, record.dst + 16), network);
    EXPECT_EQ(record.dst_len, 48);
    EXPECT_EQ(Bytes(record.gw, record.gw + 16), gateway);
    EXPECT_EQ(record.entries.le_next, nullptr);
    EXPECT_EQ(record.entries.le_prev, &routeList.lh_first);
}

TEST_F(Tracker, TakesInterface0ForARouteWithoutOne)
{
    EXPECT_EQ(receive(newRoute(attribute(RTA_GATEWAY, gateway)))[0],
              loggedRoute("New", AF_INET6, {}, 0, gateway, "", 0));
}

TEST_F(Tracker, TakesARepeatedRouteAsKnown)
{
    receive(newRoute(routeAttributes()) + newRoute(routeAttributes(network), {.dst_len = 48}));
    EXPECT_EQ(receive(newRoute(routeAttributes())), Lines{});
    EXPECT_EQ(receive(newRoute(routeAttributes(network), {.dst_len = 48})), Lines{});
    EXPECT_EQ(routeCount(), 2U);
}

TEST_F(Tracker, KnowsADefaultRouteByItsExplicitZeroDestination)
{
    receive(newRoute(routeAttributes()));
    EXPECT_EQ(receive(newRoute(routeAttributes(unspecified))), Lines{});
    EXPECT_EQ(receive(deletedRoute(routeAttributes(unspecified))),
              (Lines{publishedRoute(0, "nas0", AF_INET6, unspecified, "::", 0, gateway),
                     loggedRoute("Removed", AF_INET6, unspecified, 0, gateway, "nas0", 5)}));
}

TEST_F(Tracker, IgnoresTheRemovalOfAnUnknownRoute)
{
    receive(newRoute(routeAttributes(network), {.dst_len = 48}));
    EXPECT_EQ(receive(deletedRoute(routeAttributes())), Lines{});
    EXPECT_EQ(receive(deletedRoute(routeAttributes(network), {.dst_len = 49})), Lines{});
    EXPECT_EQ(receive(deletedRoute(routeAttributes(hostA), {.dst_len = 48})), Lines{});
    EXPECT_EQ(receive(deletedRoute(routeAttributes(network, hostA), {.dst_len = 48})), Lines{});
    EXPECT_EQ(receive(deletedRoute(routeAttributes(network, gateway, 3), {.dst_len = 48})),
              Lines{});
    EXPECT_EQ(receive(deletedRoute(routeAttributes(network), {.family = 7, .dst_len = 48})),
              Lines{});
    EXPECT_EQ(routeCount(), 1U);
}

TEST_F(Tracker, KnowsARouteOfAnInterfaceCreatedAnewUnderItsName)
{
    receive(newRoute(routeAttributes()));
    netlink().names = {{7, "nas0"}};
    EXPECT_EQ(receive(newRoute(routeAttributes({}, gateway, 7))), Lines{});
    EXPECT_EQ(receive(deletedRoute(routeAttributes({}, gateway, 7)))[1],
              loggedRoute("Removed", AF_INET6, {}, 0, gateway, "nas0", 5));
}

TEST_F(Tracker, NeverKnowsADefaultRouteOfNonzeroLength)
{
    const RouteHeader header = {.dst_len = 64};
    EXPECT_EQ(receive(newRoute(routeAttributes(), header)),
              (Lines{loggedRoute("New", AF_INET6, {}, 64, gateway, "nas0", 5),
                     publishedRoute(1, "nas0", AF_INET6, {}, "", 64, gateway)}));
    EXPECT_EQ(routeList.lh_first->dst_len, 0);
    EXPECT_EQ(receive(deletedRoute(routeAttributes(), header)), Lines{});
    EXPECT_EQ(receive(newRoute(routeAttributes(), header)).size(), 2U);
    EXPECT_EQ(routeCount(), 2U);
}

TEST_F(Tracker, LogsARouteThatCannotBeRecordedAndForgetsIt)
{
    memory().exhausted = true;
    const Lines lines = receive(newRoute(routeAttributes()));
    EXPECT_EQ(lines, (Lines{loggedRoute("New", AF_INET6, {}, 0, gateway, "nas0", 5),
                            publishedRoute(1, "nas0", AF_INET6, {}, "", 0, gateway),
                            logged("route_insert", "Failed to allocate memory")}));
    EXPECT_EQ(routeCount(), 0U);
    EXPECT_EQ(receive(newRoute(routeAttributes())), lines);
}

// Link deletion.

TEST_F(Tracker, ForgetsTheRecordsOfADeletedLink)
{
    receive(newAddress(hostA) + newAddress(hostB) + newAddress(hostC, {.ifindex = 5}) +
            newRoute(routeAttributes({}, gateway, 3)) + newRoute(routeAttributes()));
    netlink().names.erase(3);
    EXPECT_EQ(receive(deletedLink(3)),
              Lines{logged("ipinfo_netlink_dellink", "Removed interface (3)")} + removed(hostB) +
                  removed(hostA) +
                  Lines({publishedRoute(0, "br0", AF_INET6, unspecified, "::", 0, gateway),
                         logged("route_log", "Removed IPv6 route ::/0 via fe80::1 on br0(3)")}));
    EXPECT_EQ(addressCount(), 1U);
    EXPECT_EQ(ipList.lh_first->ifindex, 5U);
    EXPECT_EQ(routeCount(), 1U);
    EXPECT_EQ(routeList.lh_first->ifindex, 5U);
    EXPECT_EQ(records(), 2U);
}

TEST_F(Tracker, LogsADeletedLinkWithTheNameThatItStillHas)
{
    EXPECT_EQ(receive(deletedLink(3)),
              Lines{logged("ipinfo_netlink_dellink", "Removed interface br0(3)")});
}

TEST_F(Tracker, GoesByIndexAloneOnLinkDeletion)
{
    receive(newAddress(hostA));
    netlink().names = {{9, "br0"}};
    EXPECT_EQ(receive(deletedLink(9)),
              Lines{logged("ipinfo_netlink_dellink", "Removed interface br0(9)")});
    EXPECT_EQ(addressCount(), 1U);
}

TEST_F(Tracker, TakesANegativeLinkIndex)
{
    receive(newAddress(hostA, {.ifindex = 0xfffffffe}));
    EXPECT_EQ(receive(deletedLink(-2)).size(), 3U);
    EXPECT_EQ(addressCount(), 0U);
}

} // namespace
