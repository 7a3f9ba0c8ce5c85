/// The IP information tracker: listens to rtnetlink(7) for addresses of universe scope and
/// main-table unicast routes via a gateway, logs every change and passes it to the platform hooks.
///
/// It only listens: what existed before the daemon started stays unknown until the kernel announces
/// it again.

#pragma once

#include <cstdint>
#include <net/if.h>

/// A record's place in its table: the next record, and the pointer that points at this one, so that
/// unlinking needs no search.
template <typename Entry>
struct ListLink {
    Entry *le_next;
    Entry **le_prev;
};

extern "C" {

/// One announced address.
struct ipaddr_entry {
    uint32_t ifindex;
    char ifname[IF_NAMESIZE]; ///< name when it was announced; empty if the index was unknown
    uint8_t family;           ///< AF_INET or AF_INET6
    uint8_t addr[16];         ///< AF_INET: the first 4 bytes, the others 0
    uint8_t prefixlen;
    ListLink<ipaddr_entry> entries;
};

/// One announced route.
struct route_entry {
    uint32_t ifindex;         ///< output interface, 0 if the announcement had none
    char ifname[IF_NAMESIZE]; ///< name when it was announced; empty if the index was unknown
    uint8_t family;           ///< AF_INET or AF_INET6
    uint8_t dst[16];          ///< all 0 for a default route
    uint8_t dst_len;          ///< 0 for a default route, whatever was announced
    uint8_t gw[16];
    ListLink<route_entry> entries;
};

/// The known addresses and routes, newest first; null where there are none.
extern struct ipaddr_list {
    ipaddr_entry *lh_first;
} ipList;
extern struct route_list {
    route_entry *lh_first;
} routeList;

/// Opens the route netlink socket and adds its read event. A socket that cannot be opened is
/// logged; the tables then stay empty for good.
void ipinfo_register();
}
