/// The address and route tables beside a plain model of the documented rules.

#include "ipinfo_test.h"

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

namespace {

using namespace tracker;

TEST_F(Tracker, AgreesWithTheModelOver100000RandomChanges)
{
    std::mt19937 random(20240229); // always the same changes
    const auto below = [&random](uint32_t limit) {
        return static_cast<uint32_t>(random()) % limit;
    };
    const std::vector<Bytes> hosts = {Bytes(16), hostA, hostB, hostA + Bytes(4, 1)};
    const std::vector<std::string> names = {"br0", "nas0", "ppp0", "abcdefghijklmno"};
    constexpr uint8_t families[] = {AF_INET, AF_INET6, AF_INET6, 7};
    constexpr uint8_t lengths[] = {0, 64};
    Lines expected;
    Tables tables(expected);
    size_t most = 0;

    for (int change = 0; change < 110000; change++) {
        const uint32_t ifindex = below(5);
        const uint8_t family = families[below(4)];
        const uint8_t length = lengths[below(2)];
        Bytes host = hosts[below(4)];
        Bytes gw = hosts[1 + below(2)];
        host.resize(family == AF_INET ? 4 : 16);
        gw.resize(host.size());
        Bytes dst = below(3) == 0 ? Bytes{} : host;
        const AddressHeader addressHeader = {ifindex, family, length};
        const RouteHeader routeHeader = {family, length};
        const Bytes attributes = routeAttributes(dst, gw, ifindex);
        Bytes datagram;
        switch (below(40)) {
        case 0: // an interface appears, is renamed or goes
            if (below(3) == 0)
                netlink().names.erase(ifindex);
            else
                netlink().names[ifindex] = names[below(4)];
            continue;
        case 1:
            memory().exhausted = below(10) == 0;
            continue;
        case 2:
            datagram = deletedLink(static_cast<int>(ifindex));
            tables.deleteLink(ifindex);
            break;
        default:
            switch (below(4)) {
            case 0:
                datagram = newAddress(host, addressHeader);
                tables.insertAddress(ifindex, family, host, length);
                break;
            case 1:
                datagram = deletedAddress(host, addressHeader);
                tables.removeAddress(ifindex, family, host, length);
                break;
            case 2:
                datagram = newRoute(attributes, routeHeader);
                tables.insertRoute(ifindex, family, dst, length, gw);
                break;
            default:
                datagram = deletedRoute(attributes, routeHeader);
                tables.removeRoute(ifindex, family, dst, length, gw);
            }
        }
        ASSERT_EQ(receive(datagram), std::exchange(expected, {})) << "change " << change;
        ASSERT_TRUE(tables.agree()) << "change " << change;
        most = std::max(most, tables.size());
    }
    EXPECT_GT(most, 20U); // the tables were not nearly empty all the while
}

} // namespace
