/// The address and route tables beside a plain model of the documented rules.

#include "ipinfo_test.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <utility>
#include <vector>

namespace {

using namespace tracker;

struct ModelRecord {
    uint32_t ifindex;
    std::string ifname;
    uint8_t family;
    Bytes addressOrDst; // 16 bytes
    uint8_t length;
    Bytes gw; // 16 bytes; empty for an address
};

using ModelTable = std::deque<ModelRecord>; // newest first

size_t sizeOf(uint8_t family)
{
    return family == AF_INET ? 4 : 16;
}

/// Only as many bytes as the family has, followed by zeros.
Bytes stored(uint8_t family, Bytes bytes)
{
    bytes.resize(std::min(bytes.size(), sizeOf(family)));
    bytes.resize(16);
    return bytes;
}

struct Model {
    ModelTable addresses;
    ModelTable routes;
    std::map<uint32_t, std::string> names;
    bool exhausted = false;
    Lines lines; // expected

    std::string nameOf(uint32_t ifindex) const
    {
        const auto found = names.find(ifindex);
        return found == names.end() ? "" : found->second;
    }

    ModelTable::iterator find(ModelTable &table, const ModelRecord &wanted) const
    {
        const std::string current = nameOf(wanted.ifindex);
        return std::find_if(table.begin(), table.end(), [&](const ModelRecord &record) {
            const bool sameInterface =
                record.ifindex == wanted.ifindex || (!current.empty() && record.ifname == current);
            return sameInterface && record.family == wanted.family &&
                   record.addressOrDst == wanted.addressOrDst && record.length == wanted.length &&
                   record.gw == wanted.gw;
        });
    }

    void insertAddress(uint32_t ifindex, uint8_t family, const Bytes &address, uint8_t length)
    {
        const ModelRecord record = {
            ifindex, nameOf(ifindex), family, stored(family, address), length, {}};
        if (find(addresses, record) != addresses.end())
            return;
        lines.push_back(loggedAddress("New", family, address, length, record.ifname, ifindex));
        lines.push_back(publishedAddress(1, record.ifname, family, address, length));
        if (exhausted)
            lines.push_back(logged("ipaddr_insert", "Failed to allocate memory"));
        else
            addresses.push_front(record);
    }

    void removeAddress(uint32_t ifindex, uint8_t family, const Bytes &address, uint8_t length)
    {
        const auto found =
            find(addresses, {ifindex, "", family, stored(family, address), length, {}});
        if (found == addresses.end())
            return;
        lines.push_back(
            publishedAddress(0, found->ifname, family, found->addressOrDst, found->length));
        lines.push_back(
            loggedAddress("Removed", family, address, length, found->ifname, found->ifindex));
        addresses.erase(found);
    }

    void insertRoute(uint32_t ifindex, uint8_t family, const Bytes &dst, uint8_t length,
                     const Bytes &gw)
    {
        ModelRecord record = {ifindex, nameOf(ifindex),   family, stored(family, dst),
                              length,  stored(family, gw)};
        if (find(routes, record) != routes.end())
            return;
        lines.push_back(loggedRoute("New", family, dst, length, gw, record.ifname, ifindex));
        lines.push_back(
            publishedRoute(1, record.ifname, family, dst, textOf(family, dst), length, gw));
        if (dst.empty())
            record.length = 0;
        if (exhausted)
            lines.push_back(logged("route_insert", "Failed to allocate memory"));
        else
            routes.push_front(record);
    }

    void removeRoute(uint32_t ifindex, uint8_t family, const Bytes &dst, uint8_t length,
                     const Bytes &gw)
    {
        const auto found =
            find(routes, {ifindex, "", family, stored(family, dst), length, stored(family, gw)});
        if (found == routes.end())
            return;
        lines.push_back(publishedRoute(0, found->ifname, family, found->addressOrDst,
                                       dst.empty() ? "" : textOf(family, found->addressOrDst),
                                       found->length, found->gw));
        lines.push_back(
            loggedRoute("Removed", family, dst, length, gw, found->ifname, found->ifindex));
        routes.erase(found);
    }

    void deleteLink(uint32_t ifindex)
    {
        lines.push_back(logged("ipinfo_netlink_dellink", "Removed interface " + nameOf(ifindex) +
                                                             '(' + std::to_string(ifindex) + ')'));
        const auto ofLink = [ifindex](const ModelRecord &r) { return r.ifindex == ifindex; };
        for (auto i = addresses.begin();
             (i = std::find_if(addresses.begin(), addresses.end(), ofLink)) != addresses.end();) {
            const ModelRecord record = *i;
            removeAddress(record.ifindex, record.family, record.addressOrDst, record.length);
        }
        for (auto i = routes.begin();
             (i = std::find_if(routes.begin(), routes.end(), ofLink)) != routes.end();) {
            const ModelRecord record = *i;
            removeRoute(record.ifindex, record.family, record.addressOrDst, record.length,
                        record.gw);
        }
    }
};

bool holds(const char (&ifname)[IF_NAMESIZE], const std::string &name)
{
    char padded[IF_NAMESIZE] = {};
    name.copy(padded, IF_NAMESIZE - 1);
    return memcmp(ifname, padded, IF_NAMESIZE) == 0;
}

bool holds(const uint8_t (&address)[16], const Bytes &bytes)
{
    return memcmp(address, bytes.data(), 16) == 0;
}

bool equal(const ipaddr_entry &entry, const ModelRecord &record)
{
    return entry.ifindex == record.ifindex && holds(entry.ifname, record.ifname) &&
           entry.family == record.family && holds(entry.addr, record.addressOrDst) &&
           entry.prefixlen == record.length;
}

bool equal(const route_entry &entry, const ModelRecord &record)
{
    return entry.ifindex == record.ifindex && holds(entry.ifname, record.ifname) &&
           entry.family == record.family && holds(entry.dst, record.addressOrDst) &&
           entry.dst_len == record.length && holds(entry.gw, record.gw);
}

/// Whether a table of the daemon's holds the model's records in their order, soundly linked.
template <typename List>
bool agree(const List &list, const ModelTable &table)
{
    auto *const *link = &list.lh_first;
    for (const ModelRecord &record : table) {
        const auto *const entry = *link;
        if (!entry || entry->entries.le_prev != link || !equal(*entry, record))
            return false;
        link = &entry->entries.le_next;
    }
    return !*link;
}

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
    Model model;
    model.names = netlink().names;
    size_t most = 0;

    for (int change = 0; change < 110000; change++) {
        const uint32_t ifindex = below(5);
        const uint8_t family = families[below(4)];
        const uint8_t length = lengths[below(2)];
        Bytes host = hosts[below(4)];
        Bytes gw = hosts[1 + below(2)];
        host.resize(sizeOf(family));
        gw.resize(sizeOf(family));
        Bytes dst = below(3) == 0 ? Bytes{} : host;
        const AddressHeader addressHeader = {ifindex, family, length};
        const RouteHeader routeHeader = {family, length};
        const Bytes attributes = routeAttributes(dst, gw, ifindex);
        Bytes datagram;
        switch (below(40)) {
        case 0: // an interface appears, is renamed or goes
            if (below(3) == 0)
                model.names.erase(ifindex);
            else
                model.names[ifindex] = names[below(4)];
            netlink().names = model.names;
            continue;
        case 1:
            memory().exhausted = model.exhausted = below(10) == 0;
            continue;
        case 2:
            datagram = deletedLink(static_cast<int>(ifindex));
            model.deleteLink(ifindex);
            break;
        default:
            switch (below(4)) {
            case 0:
                datagram = newAddress(host, addressHeader);
                model.insertAddress(ifindex, family, host, length);
                break;
            case 1:
                datagram = deletedAddress(host, addressHeader);
                model.removeAddress(ifindex, family, host, length);
                break;
            case 2:
                datagram = newRoute(attributes, routeHeader);
                model.insertRoute(ifindex, family, dst, length, gw);
                break;
            default:
                datagram = deletedRoute(attributes, routeHeader);
                model.removeRoute(ifindex, family, dst, length, gw);
            }
        }
        ASSERT_EQ(receive(datagram), std::exchange(model.lines, {})) << "change " << change;
        ASSERT_TRUE(agree(ipList, model.addresses)) << "change " << change;
        ASSERT_TRUE(agree(routeList, model.routes)) << "change " << change;
        ASSERT_EQ(records(), model.addresses.size() + model.routes.size());
        most = std::max(most, records());
    }
    EXPECT_GT(most, 20U); // the tables were not nearly empty all the while
}

} // namespace
