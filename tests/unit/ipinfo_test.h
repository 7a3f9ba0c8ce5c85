/// What the tests of the IP information tracker share: messages in the words of their meaning, what
/// they leave in log and hooks, and a tracker that has br0 as interface 3 and nas0 as interface 5.

#pragma once

#include "ipinfo.h"

#include "fakes/event_loop.h"
#include "fakes/journal.h"
#include "fakes/memory.h"
#include "fakes/netlink.h"
#include "tables.h"

#include <gtest/gtest.h>

#include <string>

namespace tracker {

using fakes::eventLoop;
using fakes::journal;
using fakes::operator+;
using ::operator+;
using fakes::memory;
using fakes::netlink;

constexpr int netlinkFd = 7;

inline const Bytes hostA = address("2001:db8::1");
inline const Bytes hostB = address("2001:db8::2");
inline const Bytes hostC = address("2001:db8::3");
inline const Bytes network = address("2001:db8:1::");
inline const Bytes gateway = address("fe80::1");
inline const Bytes unspecified = Bytes(16);

/// A new address on interface 3, with these attributes.
inline Bytes addressMessage(const Bytes &attributes)
{
    return message(RTM_NEWADDR, AddressHeader{} + attributes);
}

/// A new address on br0, interface 3.
inline Bytes newAddress(const Bytes &host, const AddressHeader &header = {})
{
    return message(RTM_NEWADDR, header + attribute(IFA_ADDRESS, host));
}

inline Bytes deletedAddress(const Bytes &host, const AddressHeader &header = {})
{
    return message(RTM_DELADDR, header + attribute(IFA_ADDRESS, host));
}

/// The attributes of a route over nas0, interface 5; without destination a default route.
inline Bytes routeAttributes(const Bytes &dst = {}, const Bytes &gw = gateway, uint32_t ifindex = 5)
{
    const Bytes to = dst.empty() ? Bytes{} : attribute(RTA_DST, dst);
    return to + attribute(RTA_GATEWAY, gw) + attribute(RTA_OIF, ifindex);
}

inline Bytes newRoute(const Bytes &attributes, const RouteHeader &header = {})
{
    return message(RTM_NEWROUTE, header + attributes);
}

inline Bytes deletedRoute(const Bytes &attributes, const RouteHeader &header = {})
{
    return message(RTM_DELROUTE, header + attributes);
}

inline Bytes deletedLink(int ifindex)
{
    return message(RTM_DELLINK, linkHeader(ifindex));
}

/// What an address that was announced on br0 leaves in log and hook.
inline Lines added(const Bytes &host, int prefixlen = 64)
{
    return {loggedAddress("New", AF_INET6, host, prefixlen, "br0", 3),
            publishedAddress(1, "br0", AF_INET6, host, prefixlen)};
}

inline Lines removed(const Bytes &host, int prefixlen = 64)
{
    return {publishedAddress(0, "br0", AF_INET6, host, prefixlen),
            loggedAddress("Removed", AF_INET6, host, prefixlen, "br0", 3)};
}

inline size_t addressCount()
{
    size_t count = 0;
    for (const ipaddr_entry *entry = ipList.lh_first; entry; entry = entry->entries.le_next)
        count++;
    return count;
}

inline size_t routeCount()
{
    size_t count = 0;
    for (const route_entry *entry = routeList.lh_first; entry; entry = entry->entries.le_next)
        count++;
    return count;
}

class Tracker : public testing::Test {
protected:
    Tracker()
    {
        event_init();
        ipinfo_register();
        netlink().names = {{3, "br0"}, {5, "nas0"}};
        journal().take();
    }

    /// A datagram arrives. Returns what was logged and passed to the hooks.
    static Lines receive(const Bytes &bytes, int flags = 0)
    {
        netlink().receptions.push_back({bytes, flags, 0});
        return wake();
    }

    static Lines wake()
    {
        eventLoop().readable(netlinkFd);
        EXPECT_TRUE(eventLoop().isPending(netlinkFd));
        return journal().take({"log", "platform_ipinfo_ip", "platform_ipinfo_route"});
    }

    static size_t records() { return memory().live.size(); }
};

} // namespace tracker
