#include "ipinfo.h"

#include "kelo-monitord.h"
#include "platform.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <event.h>

ipaddr_list ipList;
route_list routeList;

namespace {

struct AddressText {
    char text[INET6_ADDRSTRLEN];
};

struct InterfaceName {
    char name[IF_NAMESIZE];
};

/// What follows a position in a datagram by that many bytes.
const void *after(const void *position, size_t length)
{
    return static_cast<const unsigned char *>(position) + length;
}

const void *payload(const nlmsghdr *message)
{
    return after(message, NLMSG_HDRLEN);
}

size_t addressSize(uint8_t family)
{
    return family == AF_INET ? 4 : 16;
}

const char *familyWord(uint8_t family)
{
    return family == AF_INET ? "IPv4" : "IPv6";
}

/// The text of an address, empty for a null one.
AddressText addressText(uint8_t family, const void *address)
{
    AddressText result = {};
    if (address)
        inet_ntop(family, address, result.text, sizeof result.text);
    return result;
}

/// Copies an address into 16 zero bytes, which stay zero for a null one.
void copyAddress(uint8_t *destination, uint8_t family, const void *address)
{
    if (address)
        memcpy(destination, address, addressSize(family));
}

/// The current name of an interface, empty when the index is unknown.
InterfaceName interfaceName(uint32_t ifindex)
{
    InterfaceName result = {};
    if_indextoname(ifindex, result.name);
    return result;
}

/// Whether a record belongs to an interface with this index and current name. The name counts too,
/// deliberately: it finds records from before the interface was created anew. An empty name never
/// matches.
template <typename Entry>
bool sameInterface(const Entry &entry, uint32_t ifindex, const InterfaceName &current)
{
    return entry.ifindex == ifindex ||
           (current.name[0] != '\0' && strcmp(entry.ifname, current.name) == 0);
}

template <typename Entry>
void insertHead(Entry *&head, Entry *entry)
{
    entry->entries.le_next = head;
    entry->entries.le_prev = &head;
    if (head)
        head->entries.le_prev = &entry->entries.le_next;
    head = entry;
}

template <typename Entry>
void removeEntry(Entry *entry)
{
    Entry *const next = entry->entries.le_next;
    if (next)
        next->entries.le_prev = entry->entries.le_prev;
    *entry->entries.le_prev = next;
    free(entry);
}

// Insertion logs before it calls the hook and allocates last, removal calls the hook before it
// logs, both deliberately: a consumer of the hooks and of the log sees the orders that it always
// saw.

ipaddr_entry *ipaddr_find(uint32_t ifindex, uint8_t family, const void *addr, uint8_t prefixlen)
{
    const InterfaceName current = interfaceName(ifindex);
    const size_t size = addressSize(family);
    for (ipaddr_entry *entry = ipList.lh_first; entry; entry = entry->entries.le_next) {
        if (sameInterface(*entry, ifindex, current) && entry->family == family &&
            memcmp(entry->addr, addr, size) == 0 && entry->prefixlen == prefixlen)
            return entry;
    }
    return nullptr;
}

void ipaddr_log(const char *action, const char *ifname, uint32_t ifindex, uint8_t family,
                const void *addr, uint8_t prefixlen)
{
    const AddressText text = addressText(family, addr);
    KELO_LOG("%s %s address %s/%d on %s(%d)", action, familyWord(family), text.text, prefixlen,
             ifname, ifindex);
}

int ipaddr_insert(uint32_t ifindex, uint8_t family, const void *addr, uint8_t prefixlen)
{
    if (ipaddr_find(ifindex, family, addr, prefixlen))
        return 0;
    const InterfaceName current = interfaceName(ifindex);
    const AddressText text = addressText(family, addr);
    ipaddr_log("New", current.name, ifindex, family, addr, prefixlen);
    platform_ipinfo_ip(1, current.name, family, addr, text.text, prefixlen);
    auto *const entry = static_cast<ipaddr_entry *>(calloc(1, sizeof(ipaddr_entry)));
    if (!entry) {
        KELO_LOG("Failed to allocate memory");
        return 0;
    }
    entry->ifindex = ifindex;
    memcpy(entry->ifname, current.name, sizeof entry->ifname);
    entry->family = family;
    copyAddress(entry->addr, family, addr);
    entry->prefixlen = prefixlen;
    insertHead(ipList.lh_first, entry);
    return 1;
}

int ipaddr_remove(uint32_t ifindex, uint8_t family, const void *addr, uint8_t prefixlen)
{
    ipaddr_entry *const entry = ipaddr_find(ifindex, family, addr, prefixlen);
    if (!entry)
        return 0;
    const AddressText text = addressText(entry->family, entry->addr);
    platform_ipinfo_ip(0, entry->ifname, entry->family, entry->addr, text.text, entry->prefixlen);
    ipaddr_log("Removed", entry->ifname, entry->ifindex, family, addr, prefixlen);
    removeEntry(entry);
    return 1;
}

route_entry *route_find(uint32_t ifindex, uint8_t family, const void *dst, uint8_t dst_len,
                        const void *gw)
{
    const InterfaceName current = interfaceName(ifindex);
    uint8_t wantedDst[16] = {};
    uint8_t wantedGw[16] = {};
    copyAddress(wantedDst, family, dst);
    copyAddress(wantedGw, family, gw);
    const size_t size = addressSize(family);
    for (route_entry *entry = routeList.lh_first; entry; entry = entry->entries.le_next) {
        if (sameInterface(*entry, ifindex, current) && entry->family == family &&
            memcmp(entry->dst, wantedDst, size) == 0 && entry->dst_len == dst_len &&
            memcmp(entry->gw, wantedGw, size) == 0)
            return entry;
    }
    return nullptr;
}

/// A null destination is a default route.
void route_log(const char *action, const char *ifname, uint32_t ifindex, uint8_t family,
               const void *dst, uint8_t dst_len, const void *gw)
{
    const char *const word = familyWord(family);
    const AddressText gwText = addressText(family, gw);
    const AddressText dstText = addressText(family, dst);
    if (dst)
        KELO_LOG("%s %s route %s/%d via %s on %s(%d)", action, word, dstText.text, dst_len,
                 gwText.text, ifname, ifindex);
    else
        KELO_LOG("%s %s default route via %s on %s(%d)", action, word, gwText.text, ifname,
                 ifindex);
}

int route_insert(uint32_t ifindex, uint8_t family, const void *dst, uint8_t dst_len, const void *gw)
{
    if (route_find(ifindex, family, dst, dst_len, gw))
        return 0;
    const InterfaceName current = interfaceName(ifindex);
    const AddressText gwText = addressText(family, gw);
    const AddressText dstText = addressText(family, dst);
    route_log("New", current.name, ifindex, family, dst, dst_len, gw);
    platform_ipinfo_route(1, current.name, family, dst, dstText.text, dst_len, gw, gwText.text);
    auto *const entry = static_cast<route_entry *>(calloc(1, sizeof(route_entry)));
    if (!entry) {
        KELO_LOG("Failed to allocate memory");
        return 0;
    }
    entry->ifindex = ifindex;
    memcpy(entry->ifname, current.name, sizeof entry->ifname);
    entry->family = family;
    copyAddress(entry->dst, family, dst);
    // Deliberately 0 without a destination, so that a removal with another length does not match.
    if (dst)
        entry->dst_len = dst_len;
    copyAddress(entry->gw, family, gw);
    insertHead(routeList.lh_first, entry);
    return 1;
}

int route_remove(uint32_t ifindex, uint8_t family, const void *dst, uint8_t dst_len, const void *gw)
{
    route_entry *const entry = route_find(ifindex, family, dst, dst_len, gw);
    if (!entry)
        return 0;
    // The hook always gets the record's own destination, also for a default route, which the hook
    // therefore does not recognise as one: deliberate, the gateway stays published.
    const AddressText gwText = addressText(entry->family, gw ? entry->gw : nullptr);
    const AddressText dstText = addressText(entry->family, dst ? entry->dst : nullptr);
    platform_ipinfo_route(0, entry->ifname, entry->family, entry->dst, dstText.text, entry->dst_len,
                          entry->gw, gwText.text);
    route_log("Removed", entry->ifname, entry->ifindex, family, dst, dst_len, gw);
    removeEntry(entry);
    return 1;
}

void ipinfo_init()
{
    ipList.lh_first = nullptr;
    routeList.lh_first = nullptr;
}

/// The first record from `entry` on that was made under this index.
template <typename Entry>
const Entry *firstOf(const Entry *entry, uint32_t ifindex)
{
    while (entry && entry->ifindex != ifindex)
        entry = entry->entries.le_next;
    return entry;
}

/// Forgets what is known of a deleted link. It goes by index alone, through the ordinary removal.
void ipinfo_netlink_dellink(const nlmsghdr *message)
{
    const auto *const link = static_cast<const ifinfomsg *>(payload(message));
    const auto ifindex = static_cast<uint32_t>(link->ifi_index);
    KELO_LOG("Removed interface %s(%d)", interfaceName(ifindex).name, ifindex);
    while (const ipaddr_entry *const entry = firstOf(ipList.lh_first, ifindex))
        ipaddr_remove(entry->ifindex, entry->family, entry->addr, entry->prefixlen);
    // A default route is deliberately logged like any other here, by its record's zero destination.
    while (const route_entry *const entry = firstOf(routeList.lh_first, ifindex))
        route_remove(entry->ifindex, entry->family, entry->dst, entry->dst_len, entry->gw);
}

constexpr uint32_t GROUPS =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
constexpr int SOCKET_BUFFER_SIZE = 16384;
constexpr size_t DATAGRAM_MAX = 16400;

// Message lengths are checked, but the header or the address of a message may still extend past the
// datagram. It then reads zeros: no header or address is longer than the slack.
constexpr size_t DATAGRAM_SLACK = sizeof(ifinfomsg);

/// Netlink messages and attributes are aligned to 4 bytes.
int alignedLength(uint32_t length)
{
    return static_cast<int>(NLMSG_ALIGN(length));
}

constexpr unsigned attributeTypes = RTA_GATEWAY + 1; // the highest type of interest

/// The data of the attributes of a message by type, null where there is none; the last one wins.
struct Attributes {
    const void *data[attributeTypes];
};

Attributes findAttributes(const nlmsghdr *message, size_t headerSize)
{
    Attributes found = {};
    int left = static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(headerSize));
    const void *position = after(payload(message), NLMSG_ALIGN(headerSize));
    while (left >= static_cast<int>(sizeof(rtattr))) {
        const auto *const attribute = static_cast<const rtattr *>(position);
        if (attribute->rta_len < sizeof(rtattr) || attribute->rta_len > left)
            break;
        if (attribute->rta_type < attributeTypes)
            found.data[attribute->rta_type] = after(position, sizeof(rtattr));
        left -= alignedLength(attribute->rta_len);
        position = after(position, static_cast<size_t>(alignedLength(attribute->rta_len)));
    }
    return found;
}

void ipinfo_netlink_addr(const nlmsghdr *message, bool add)
{
    const auto *const header = static_cast<const ifaddrmsg *>(payload(message));
    if (header->ifa_scope != RT_SCOPE_UNIVERSE)
        return;
    const void *const address = findAttributes(message, sizeof *header).data[IFA_ADDRESS];
    if (!address)
        return;
    const auto change = add ? ipaddr_insert : ipaddr_remove;
    change(header->ifa_index, header->ifa_family, address, header->ifa_prefixlen);
}

void ipinfo_netlink_route(const nlmsghdr *message, bool add)
{
    const auto *const header = static_cast<const rtmsg *>(payload(message));
    if (header->rtm_type != RTN_UNICAST || header->rtm_table != RT_TABLE_MAIN)
        return;
    const Attributes attributes = findAttributes(message, sizeof *header);
    if (!attributes.data[RTA_GATEWAY])
        return;
    uint32_t oif = 0;
    if (attributes.data[RTA_OIF])
        memcpy(&oif, attributes.data[RTA_OIF], sizeof oif);
    const auto change = add ? route_insert : route_remove;
    change(oif, header->rtm_family, attributes.data[RTA_DST], header->rtm_dst_len,
           attributes.data[RTA_GATEWAY]);
}

/// Acts on one message. Returns false when it ends the datagram.
bool handleMessage(const nlmsghdr *message)
{
    switch (message->nlmsg_type) {
    case NLMSG_DONE:
        return false;
    case RTM_DELLINK:
        ipinfo_netlink_dellink(message);
        break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
        ipinfo_netlink_addr(message, message->nlmsg_type == RTM_NEWADDR);
        break;
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        ipinfo_netlink_route(message, message->nlmsg_type == RTM_NEWROUTE);
        break;
    default:
        break;
    }
    return true;
}

void ipinfo_netlink_recv(int fd, short, void *)
{
    struct {
        msghdr header;
        iovec vector;
        socklen_t nameLength;
        sockaddr name; // 16 bytes, more than the sender's sockaddr_nl needs
        alignas(nlmsghdr) unsigned char datagram[DATAGRAM_MAX + DATAGRAM_SLACK];
    } area = {};
    area.vector = {area.datagram, DATAGRAM_MAX};
    // Descriptor 0 counts as invalid too, deliberately.
    if (fd <= 0) {
        KELO_LOG("Invalid netlink fd");
        return;
    }
    // Only asks whether this is a socket: with no room for it, no address is stored.
    if (getsockname(fd, &area.name, &area.nameLength) == -1) {
        KELO_LOG("Failed to get netlink addr");
        return;
    }
    msghdr &header = area.header;
    header.msg_name = &area.name;
    header.msg_namelen = sizeof area.name;
    header.msg_iov = &area.vector;
    header.msg_iovlen = 1;
    const auto received = static_cast<int>(recvmsg(fd, &header, 0));
    if (received <= 0) {
        KELO_LOG("Failed to receive netlink msg (%d)", received);
        return;
    }
    if (header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) {
        KELO_LOG("Netlink msg_trunc (%d)", header.msg_flags);
        return;
    }
    int left = received;
    const void *position = area.datagram;
    while (left >= static_cast<int>(sizeof(nlmsghdr))) {
        const auto *const message = static_cast<const nlmsghdr *>(position);
        if (message->nlmsg_len < sizeof(nlmsghdr) ||
            message->nlmsg_len > static_cast<uint32_t>(left))
            break;
        if (message->nlmsg_type == NLMSG_ERROR) {
            KELO_LOG("Netlink error");
            break;
        }
        if (!handleMessage(message))
            break;
        left -= alignedLength(message->nlmsg_len);
        position = after(position, static_cast<size_t>(alignedLength(message->nlmsg_len)));
    }
}

int ipinfo_register_netlink()
{
    // A failure after the socket is opened deliberately leaves it open.
    static event readEvent;
    const int bufferSize = SOCKET_BUFFER_SIZE;
    sockaddr_nl local = {};
    local.nl_family = AF_NETLINK;
    local.nl_groups = GROUPS;
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (fd == -1) {
        KELO_LOG("Failed to open netlink socket");
        return -1;
    }
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize) == -1) {
        KELO_LOG("Failed to set netlink socket options");
        return -1;
    }
    if (bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local) < 0) {
        KELO_LOG("Failed to bind netlink socket");
        return -1;
    }
    event_set(&readEvent, fd, EV_READ | EV_PERSIST, ipinfo_netlink_recv, nullptr);
    return event_add(&readEvent, nullptr);
}

} // namespace

void ipinfo_register()
{
    ipinfo_register_netlink(); // nothing arrives before the loop runs
    ipinfo_init();
}
