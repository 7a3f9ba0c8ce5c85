#include "tables.h"

#include "fakes/memory.h"
#include "fakes/netlink.h"
#include "ipinfo.h"

#include <algorithm>
#include <cstring>

namespace tracker {

namespace {

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

std::string nameOf(uint32_t ifindex)
{
    const auto &names = fakes::netlink().names;
    const auto found = names.find(ifindex);
    return found == names.end() ? "" : found->second;
}

std::string quoted(const std::string &text)
{
    return '"' + text + '"';
}

std::string familyWord(uint8_t family)
{
    return family == AF_INET ? "IPv4" : "IPv6";
}

std::string onInterface(const std::string &name, uint32_t ifindex)
{
    return " on " + name + '(' + std::to_string(static_cast<int32_t>(ifindex)) + ')';
}

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

template <typename Record>
bool equal(const ipaddr_entry &entry, const Record &record)
{
    return holds(entry.addr, record.addressOrDst) && entry.prefixlen == record.length;
}

template <typename Record>
bool equal(const route_entry &entry, const Record &record)
{
    return holds(entry.dst, record.addressOrDst) && entry.dst_len == record.length &&
           holds(entry.gw, record.gw);
}

} // namespace

std::string logged(const std::string &function, const std::string &text)
{
    return "log ipinfo.cpp " + function + ": " + text;
}

std::string textOf(uint8_t family, const Bytes &bytes)
{
    char text[INET6_ADDRSTRLEN] = {};
    if (!bytes.empty())
        inet_ntop(family, bytes.data(), text, sizeof text);
    return text;
}

std::string loggedAddress(const std::string &action, uint8_t family, const Bytes &address,
                          int prefixlen, const std::string &name, uint32_t ifindex)
{
    return logged("ipaddr_log", action + ' ' + familyWord(family) + " address " +
                                    textOf(family, address) + '/' + std::to_string(prefixlen) +
                                    onInterface(name, ifindex));
}

std::string publishedAddress(int add, const std::string &name, uint8_t family, const Bytes &address,
                             int prefixlen)
{
    return "platform_ipinfo_ip " + std::to_string(add) + ' ' + quoted(name) + ' ' +
           std::to_string(family) + ' ' + fakes::addressDigits(family, address.data()) + ' ' +
           quoted(textOf(family, address)) + '/' + std::to_string(prefixlen);
}

std::string loggedRoute(const std::string &action, uint8_t family, const Bytes &dst, int dst_len,
                        const Bytes &gw, const std::string &name, uint32_t ifindex)
{
    const std::string to = dst.empty()
                               ? " default route"
                               : " route " + textOf(family, dst) + '/' + std::to_string(dst_len);
    return logged("route_log", action + ' ' + familyWord(family) + to + " via " +
                                   textOf(family, gw) + onInterface(name, ifindex));
}

std::string publishedRoute(int add, const std::string &name, uint8_t family, const Bytes &dst,
                           const std::string &dstText, int dst_len, const Bytes &gw)
{
    return "platform_ipinfo_route " + std::to_string(add) + ' ' + quoted(name) + ' ' +
           std::to_string(family) + ' ' +
           fakes::addressDigits(family, dst.empty() ? nullptr : dst.data()) + ' ' +
           quoted(dstText) + '/' + std::to_string(dst_len) + " via " +
           fakes::addressDigits(family, gw.data()) + ' ' + quoted(textOf(family, gw));
}

Tables::Table::iterator Tables::find(Table &table, const Record &wanted)
{
    return std::ranges::find_if(table, [&](const Record &record) {
        const bool sameInterface = record.ifindex == wanted.ifindex ||
                                   (!wanted.ifname.empty() && record.ifname == wanted.ifname);
        return sameInterface && record.family == wanted.family &&
               record.addressOrDst == wanted.addressOrDst && record.length == wanted.length &&
               record.gw == wanted.gw;
    });
}

void Tables::insertAddress(uint32_t ifindex, uint8_t family, const Bytes &address, uint8_t length)
{
    const Record record = {ifindex, nameOf(ifindex), family, stored(family, address), length, {}};
    if (find(addresses_, record) != addresses_.end())
        return;
    expected_.push_back(loggedAddress("New", family, address, length, record.ifname, ifindex));
    expected_.push_back(publishedAddress(1, record.ifname, family, address, length));
    if (fakes::memory().exhausted)
        expected_.push_back(logged("ipaddr_insert", "Failed to allocate memory"));
    else
        addresses_.push_front(record);
}

void Tables::removeAddress(uint32_t ifindex, uint8_t family, const Bytes &address, uint8_t length)
{
    const auto found =
        find(addresses_, {ifindex, nameOf(ifindex), family, stored(family, address), length, {}});
    if (found == addresses_.end())
        return;
    expected_.push_back(
        publishedAddress(0, found->ifname, family, found->addressOrDst, found->length));
    expected_.push_back(
        loggedAddress("Removed", family, address, length, found->ifname, found->ifindex));
    addresses_.erase(found);
}

void Tables::insertRoute(uint32_t ifindex, uint8_t family, const Bytes &dst, uint8_t length,
                         const Bytes &gw)
{
    Record record = {ifindex, nameOf(ifindex),   family, stored(family, dst),
                     length,  stored(family, gw)};
    if (find(routes_, record) != routes_.end())
        return;
    expected_.push_back(loggedRoute("New", family, dst, length, gw, record.ifname, ifindex));
    expected_.push_back(
        publishedRoute(1, record.ifname, family, dst, textOf(family, dst), length, gw));
    if (dst.empty())
        record.length = 0;
    if (fakes::memory().exhausted)
        expected_.push_back(logged("route_insert", "Failed to allocate memory"));
    else
        routes_.push_front(record);
}

void Tables::removeRoute(uint32_t ifindex, uint8_t family, const Bytes &dst, uint8_t length,
                         const Bytes &gw)
{
    const auto found = find(routes_, {ifindex, nameOf(ifindex), family, stored(family, dst), length,
                                      stored(family, gw)});
    if (found == routes_.end())
        return;
    expected_.push_back(publishedRoute(0, found->ifname, family, found->addressOrDst,
                                       dst.empty() ? "" : textOf(family, found->addressOrDst),
                                       found->length, found->gw));
    expected_.push_back(
        loggedRoute("Removed", family, dst, length, gw, found->ifname, found->ifindex));
    routes_.erase(found);
}

void Tables::deleteLink(uint32_t ifindex)
{
    expected_.push_back(
        logged("ipinfo_netlink_dellink", "Removed interface " + nameOf(ifindex) + '(' +
                                             std::to_string(static_cast<int32_t>(ifindex)) + ')'));
    const auto ofLink = [ifindex](const Record &record) { return record.ifindex == ifindex; };
    const auto firstOf = [&](const Table &table) { return std::ranges::find_if(table, ofLink); };
    for (auto i = firstOf(addresses_); i != addresses_.end(); i = firstOf(addresses_)) {
        const Record &record = *i;
        removeAddress(ifindex, record.family, record.addressOrDst, record.length);
    }
    for (auto i = firstOf(routes_); i != routes_.end(); i = firstOf(routes_)) {
        const Record &record = *i;
        removeRoute(ifindex, record.family, record.addressOrDst, record.length, record.gw);
    }
}

void Tables::clear()
{
    addresses_.clear();
    routes_.clear();
}

template <typename List>
bool Tables::agree(const List &list, const Table &table)
{
    auto *const *link = &list.lh_first;
    for (const Record &record : table) {
        const auto *const entry = *link;
        if (!entry || entry->entries.le_prev != link || entry->ifindex != record.ifindex ||
            !holds(entry->ifname, record.ifname) || entry->family != record.family ||
            !equal(*entry, record))
            return false;
        link = &entry->entries.le_next;
    }
    return !*link;
}

bool Tables::agree() const
{
    return agree(ipList, addresses_) && agree(routeList, routes_) &&
           fakes::memory().live.size() == size();
}

} // namespace tracker
