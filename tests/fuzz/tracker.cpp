#include "tracker.h"

#include "ipinfo.h"
#include "platform.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <event.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

using fuzz::did;
using fuzz::due;
using fuzz::kernel;

namespace {

constexpr int netlinkFd = 7;

event *readEvent;
event_callback_fn callback;

size_t addressSize(uint8_t family)
{
    return family == AF_INET ? 4 : 16;
}

std::string digits(uint8_t family, const uint8_t *address)
{
    constexpr char figures[] = "0123456789abcdef";
    if (!address)
        return "null";
    std::string result;
    for (size_t i = 0; i < addressSize(family); i++) {
        result += figures[address[i] >> 4];
        result += figures[address[i] & 15];
    }
    return result;
}

std::string textOf(uint8_t family, const fuzz::AddressBytes &address)
{
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(family, address.data(), text, sizeof text);
    return text;
}

const char *wordFor(uint8_t family)
{
    return family == AF_INET ? "IPv4" : "IPv6";
}

/// The part of an address that counts, the rest zero.
fuzz::AddressBytes used(uint8_t family, const fuzz::AddressBytes &address)
{
    fuzz::AddressBytes result = {};
    std::copy_n(address.begin(), addressSize(family), result.begin());
    return result;
}

const std::string &nameOf(uint32_t ifindex)
{
    return kernel().names[ifindex % kernel().names.size()];
}

void expectAddressLog(const char *action, const std::string &name, uint32_t ifindex, uint8_t family,
                      const std::string &text, uint8_t length)
{
    due("log ipaddr_log: %s %s address %s/%d on %s(%d)", action, wordFor(family), text.c_str(),
        length, name.c_str(), static_cast<int>(ifindex));
}

void expectRouteLog(const char *action, const std::string &name, uint32_t ifindex, uint8_t family,
                    const fuzz::Destination &destination, uint8_t length,
                    const fuzz::AddressBytes &gateway)
{
    const std::string via = textOf(family, gateway);
    if (destination.present)
        due("log route_log: %s %s route %s/%d via %s on %s(%d)", action, wordFor(family),
            textOf(family, destination.bytes).c_str(), length, via.c_str(), name.c_str(),
            static_cast<int>(ifindex));
    else
        due("log route_log: %s %s default route via %s on %s(%d)", action, wordFor(family),
            via.c_str(), name.c_str(), static_cast<int>(ifindex));
}

bool isZero(const void *bytes, size_t size)
{
    static constexpr unsigned char zeros[fuzz::datagramRoom] = {};
    return memcmp(bytes, zeros, size) == 0;
}

template <typename Entry>
void freeRecords(Entry *&head)
{
    while (Entry *const entry = head) {
        head = entry->entries.le_next;
        free(entry);
    }
}

} // namespace

namespace fuzz {

Kernel &kernel()
{
    static auto &instance = *new Kernel; // outlives every other static object
    return instance;
}

size_t Tables::find(const std::vector<Record> &table, const Record &wanted)
{
    for (size_t i = table.size(); i-- > 0;) {
        const Record &record = table[i];
        const bool sameInterface = record.ifindex == wanted.ifindex ||
                                   (!wanted.name.empty() && record.name == wanted.name);
        if (sameInterface && record.family == wanted.family && record.address == wanted.address &&
            record.length == wanted.length && record.gateway == wanted.gateway)
            return i;
    }
    return table.size();
}

void Tables::addAddress(uint32_t ifindex, uint8_t family, const AddressBytes &address,
                        uint8_t length)
{
    const Record record = {ifindex, nameOf(ifindex), family, used(family, address), length, {}};
    if (find(addresses_, record) < addresses_.size())
        return;
    const std::string text = textOf(family, address);
    expectAddressLog("New", record.name, ifindex, family, text, length);
    due("address 1 \"%s\" %d %s \"%s\" %d", record.name.c_str(), family,
        digits(family, address.data()).c_str(), text.c_str(), length);
    if (kernel().memoryExhausted)
        due("log ipaddr_insert: Failed to allocate memory");
    else
        addresses_.push_back(record);
}

void Tables::removeAddress(uint32_t ifindex, uint8_t family, const AddressBytes &address,
                           uint8_t length)
{
    const size_t index =
        find(addresses_, {ifindex, nameOf(ifindex), family, used(family, address), length, {}});
    if (index == addresses_.size())
        return;
    const Record record = addresses_[index];
    addresses_.erase(addresses_.begin() + static_cast<std::ptrdiff_t>(index));
    const std::string text = textOf(record.family, record.address);
    due("address 0 \"%s\" %d %s \"%s\" %d", record.name.c_str(), record.family,
        digits(record.family, record.address.data()).c_str(), text.c_str(), record.length);
    expectAddressLog("Removed", record.name, record.ifindex, family, text, length);
}

void Tables::addRoute(uint32_t ifindex, uint8_t family, const Destination &destination,
                      uint8_t length, const AddressBytes &gateway)
{
    const AddressBytes to = destination.present ? used(family, destination.bytes) : AddressBytes{};
    Record record = {ifindex, nameOf(ifindex), family, to, length, used(family, gateway)};
    if (find(routes_, record) < routes_.size())
        return;
    expectRouteLog("New", record.name, ifindex, family, destination, length, gateway);
    due("route 1 \"%s\" %d %s \"%s\" %d %s \"%s\"", record.name.c_str(), family,
        digits(family, destination.present ? to.data() : nullptr).c_str(),
        destination.present ? textOf(family, to).c_str() : "", length,
        digits(family, gateway.data()).c_str(), textOf(family, gateway).c_str());
    if (!destination.present)
        record.length = 0;
    if (kernel().memoryExhausted)
        due("log route_insert: Failed to allocate memory");
    else
        routes_.push_back(record);
}

void Tables::removeRoute(uint32_t ifindex, uint8_t family, const Destination &destination,
                         uint8_t length, const AddressBytes &gateway)
{
    const AddressBytes to = destination.present ? used(family, destination.bytes) : AddressBytes{};
    const size_t index =
        find(routes_, {ifindex, nameOf(ifindex), family, to, length, used(family, gateway)});
    if (index == routes_.size())
        return;
    const Record record = routes_[index];
    routes_.erase(routes_.begin() + static_cast<std::ptrdiff_t>(index));
    due("route 0 \"%s\" %d %s \"%s\" %d %s \"%s\"", record.name.c_str(), record.family,
        digits(record.family, record.address.data()).c_str(),
        destination.present ? textOf(record.family, record.address).c_str() : "", record.length,
        digits(record.family, record.gateway.data()).c_str(),
        textOf(record.family, record.gateway).c_str());
    expectRouteLog("Removed", record.name, record.ifindex, family, destination, length, gateway);
}

void Tables::removeLink(uint32_t ifindex)
{
    due("log ipinfo_netlink_dellink: Removed interface %s(%d)", nameOf(ifindex).c_str(),
        static_cast<int>(ifindex));
    const auto newestOf = [ifindex](const std::vector<Record> &table) {
        return std::find_if(table.rbegin(), table.rend(),
                            [ifindex](const Record &record) { return record.ifindex == ifindex; });
    };
    for (auto found = newestOf(addresses_); found != addresses_.rend();
         found = newestOf(addresses_)) {
        const Record record = *found;
        removeAddress(ifindex, record.family, record.address, record.length);
    }
    for (auto found = newestOf(routes_); found != routes_.rend(); found = newestOf(routes_)) {
        const Record record = *found;
        removeRoute(ifindex, record.family, {true, record.address}, record.length, record.gateway);
    }
}

void Tables::compare() const
{
    const auto same = [](const auto &entry, const Record &record) {
        char name[IF_NAMESIZE] = {};
        record.name.copy(name, sizeof name - 1);
        return entry.ifindex == record.ifindex && memcmp(entry.ifname, name, sizeof name) == 0 &&
               entry.family == record.family;
    };
    size_t left = addresses_.size();
    ipaddr_entry *const *link = &ipList.lh_first;
    for (const ipaddr_entry *entry = ipList.lh_first; entry; entry = *link) {
        if (left == 0 || entry->entries.le_prev != link)
            wrong("an address that should not be there, or is wrongly linked");
        const Record &record = addresses_[--left];
        if (!same(*entry, record) || memcmp(entry->addr, record.address.data(), 16) != 0 ||
            entry->prefixlen != record.length)
            wrong("an address record differs");
        link = &entry->entries.le_next;
    }
    size_t routesLeft = routes_.size();
    route_entry *const *routeLink = &routeList.lh_first;
    for (const route_entry *entry = routeList.lh_first; entry; entry = *routeLink) {
        if (routesLeft == 0 || entry->entries.le_prev != routeLink)
            wrong("a route that should not be there, or is wrongly linked");
        const Record &record = routes_[--routesLeft];
        if (!same(*entry, record) || memcmp(entry->dst, record.address.data(), 16) != 0 ||
            entry->dst_len != record.length || memcmp(entry->gw, record.gateway.data(), 16) != 0)
            wrong("a route record differs");
        routeLink = &entry->entries.le_next;
    }
    if (left != 0 || routesLeft != 0)
        wrong("a record is missing");
}

void startTracker()
{
    kernel() = {};
    kernel().names = {"", "br0", "nas0_0", "ppp0", "eth0", "fifteen-letters"};
    callback = nullptr;
    ipinfo_register();
    if (!callback || ipList.lh_first || routeList.lh_first)
        wrong("the tracker did not start with empty tables");
}

void startTrackerInVain(int step)
{
    constexpr const char *messages[] = {"open netlink socket", "set netlink socket options",
                                        "bind netlink socket"};
    kernel().setupFails = step;
    callback = nullptr;
    due("log ipinfo_register_netlink: Failed to %s", messages[step - 1]);
    ipinfo_register();
    fuzz::compare();
    if (callback || ipList.lh_first || routeList.lh_first)
        wrong("the tracker started without its socket, or with records");
}

void receive(int fd)
{
    callback(fd == -1 ? netlinkFd : fd, EV_READ, nullptr);
}

void stopTracker()
{
    freeRecords(ipList.lh_first);
    freeRecords(routeList.lh_first);
}

} // namespace fuzz

extern "C" {

void event_set(event *address, int fd, short flags, event_callback_fn function, void *)
{
    if (fd != netlinkFd || flags != (EV_READ | EV_PERSIST))
        fuzz::wrong("an event other than that of the socket");
    readEvent = address;
    callback = function;
}

int event_add(event *address, const timeval *timeout)
{
    if (address != readEvent || timeout)
        fuzz::wrong("an event is added before it is set, or with a time-out");
    return 0;
}

int fuzz_socket(int, int, int)
{
    return kernel().setupFails == 1 ? -1 : netlinkFd;
}

int fuzz_setsockopt(int, int, int, const void *, socklen_t)
{
    return kernel().setupFails == 2 ? -1 : 0;
}

int fuzz_bind(int, const sockaddr *, socklen_t)
{
    return kernel().setupFails == 3 ? -1 : 0;
}

int fuzz_getsockname(int, sockaddr *, socklen_t *length)
{
    if (*length != 0)
        fuzz::wrong("getsockname may store an address");
    return kernel().getsocknameResult;
}

ssize_t fuzz_recvmsg(int, msghdr *message, int)
{
    if (message->msg_iovlen != 1 || message->msg_iov->iov_len != fuzz::datagramRoom ||
        !isZero(message->msg_iov->iov_base, fuzz::datagramRoom))
        fuzz::wrong("the area for the datagram is not one of 16400 zeros");
    if (message->msg_namelen != 16 || !isZero(message->msg_name, 16) || message->msg_control)
        fuzz::wrong("the area for the name is not one of 16 zeros, or there is one for control");
    message->msg_flags = kernel().receiveFlags;
    if (kernel().receiveResult != 0) {
        errno = ENOBUFS;
        return kernel().receiveResult;
    }
    const size_t length = std::min(kernel().datagram.size(), fuzz::datagramRoom);
    if (length > 0)
        memcpy(message->msg_iov->iov_base, kernel().datagram.data(), length);
    return static_cast<ssize_t>(length);
}

char *fuzz_if_indextoname(unsigned index, char *name)
{
    const std::string &known = nameOf(index);
    if (known.empty()) {
        errno = ENXIO;
        return nullptr;
    }
    memcpy(name, known.c_str(), known.size() + 1);
    return name;
}

void *fuzz_calloc(size_t count, size_t size)
{
    return kernel().memoryExhausted ? nullptr : calloc(count, size);
}

void platform_ipinfo_ip(uint8_t add, const char *ifname, uint8_t family, const void *addr,
                        const char *addrstr, uint8_t prefixlen)
{
    did("address %d \"%s\" %d %s \"%s\" %d", add, ifname, family,
        digits(family, static_cast<const uint8_t *>(addr)).c_str(), addrstr, prefixlen);
}

void platform_ipinfo_route(uint8_t add, const char *ifname, uint8_t family, const void *dst,
                           const char *dststr, uint8_t dst_len, const void *gw, const char *gwstr)
{
    did("route %d \"%s\" %d %s \"%s\" %d %s \"%s\"", add, ifname, family,
        digits(family, static_cast<const uint8_t *>(dst)).c_str(), dststr, dst_len,
        digits(family, static_cast<const uint8_t *>(gw)).c_str(), gwstr);
}
}
