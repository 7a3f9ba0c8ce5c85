/// What the daemon does in the signal mode, for link and address messages and for its pipe, with
/// raw calls on epoll(7): it writes, logs, publishes and stores the same. The time-out is its
/// clock, since a timerfd_create(2) would take a read(2) more at each tick. Routes and the other
/// display modes are left out: nothing that is measured comes there.

#include "jobs.h"
#include "tcapi.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/queue.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

// The walking macros of <linux/rtnetlink.h> cast in the old style.
#pragma GCC diagnostic ignored "-Wold-style-cast"

namespace {

constexpr char fifoPath[] = "/var/run/kelo-monitord.display";

/// One record in one formatting call and one write.
[[gnu::format(printf, 1, 2)]] void writeLog(const char *format, ...)
{
    char record[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(record, sizeof record, format, arguments);
    va_end(arguments);
    [[maybe_unused]] const ssize_t written = write(2, record, static_cast<size_t>(length));
}

#define LOG(format, ...)                                                                           \
    writeLog("kelo-monitord: " format " [floor.cpp:%d %s]\n", __VA_ARGS__, __LINE__, __func__)

struct Address {
    uint32_t ifindex;
    char ifname[IF_NAMESIZE];
    uint8_t family;
    uint8_t bytes[16];
    uint8_t prefixlen;
    LIST_ENTRY(Address) entries;
};

LIST_HEAD(, Address) addresses;

/// system(3) without its signal handling.
void runShell(const char *command)
{
    const pid_t child = vfork(); // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", command, nullptr);
        _exit(127);
    }
    waitpid(child, nullptr, 0);
}

void publish(bool add, const char *ifname, uint8_t family, const char *text, uint8_t prefixlen)
{
    if (family != AF_INET6)
        return;
    const bool lan = strcmp(ifname, "br0") == 0;
    if (!lan && strncmp(ifname, "nas0", 4) != 0 && strncmp(ifname, "ppp", 3) != 0)
        return;
    tcapiSet("Kelo_Ipv6Status", lan ? "lanAddress" : "wanAddress", add ? text : "");
    tcapiSetUint32("Kelo_Ipv6Status", lan ? "lanAddressLen" : "wanAddressLen", add ? prefixlen : 0);
    runShell("omci set update_ip");
}

[[gnu::noinline]] void changeAddress(bool add, const ifaddrmsg &header, const void *bytes)
{
    char name[IF_NAMESIZE] = {};
    if_indextoname(header.ifa_index, name);
    const size_t size = header.ifa_family == AF_INET ? 4 : 16;
    Address *entry;
    LIST_FOREACH(entry, &addresses, entries)
    {
        if ((entry->ifindex == header.ifa_index || (name[0] && !strcmp(entry->ifname, name))) &&
            entry->family == header.ifa_family && !memcmp(entry->bytes, bytes, size) &&
            entry->prefixlen == header.ifa_prefixlen)
            break;
    }
    if ((entry != nullptr) == add)
        return;
    if (add) {
        memset(name, 0, sizeof name);
        if_indextoname(header.ifa_index, name);
    } else {
        memcpy(name, entry->ifname, sizeof name);
    }
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(header.ifa_family, bytes, text, sizeof text);
    if (!add)
        publish(add, name, header.ifa_family, text, header.ifa_prefixlen);
    LOG("%s %s address %s/%d on %s(%d)", add ? "New" : "Removed",
        header.ifa_family == AF_INET ? "IPv4" : "IPv6", text, header.ifa_prefixlen, name,
        static_cast<int>(header.ifa_index));
    if (add) {
        publish(add, name, header.ifa_family, text, header.ifa_prefixlen);
        entry = static_cast<Address *>(calloc(1, sizeof *entry));
        if (!entry)
            return;
        entry->ifindex = header.ifa_index;
        memcpy(entry->ifname, name, sizeof name);
        entry->family = header.ifa_family;
        memcpy(entry->bytes, bytes, size);
        entry->prefixlen = header.ifa_prefixlen;
        LIST_INSERT_HEAD(&addresses, entry, entries);
    } else {
        LIST_REMOVE(entry, entries);
        free(entry);
    }
}

void removeLink(const ifinfomsg &header)
{
    char name[IF_NAMESIZE] = {};
    if_indextoname(static_cast<unsigned>(header.ifi_index), name);
    LOG("Removed interface %s(%d)", name, header.ifi_index);
}

[[gnu::noinline]] void receive(int fd)
{
    alignas(nlmsghdr) char bytes[16400] = {}; // cleared each time, as documented
    sockaddr_nl name = {};
    socklen_t nameLength = 0;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&name), &nameLength) == -1)
        return;
    iovec vector = {bytes, sizeof bytes};
    msghdr message = {};
    message.msg_name = &name;
    message.msg_namelen = sizeof name;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    const auto received = static_cast<int>(recvmsg(fd, &message, 0));
    if (received <= 0) {
        LOG("Failed to receive netlink msg (%d)", received);
        return;
    }
    int left = received;
    for (auto *header = reinterpret_cast<nlmsghdr *>(bytes);
         NLMSG_OK(header, static_cast<uint32_t>(left)); header = NLMSG_NEXT(header, left)) {
        if (header->nlmsg_type == RTM_DELLINK) {
            removeLink(*static_cast<const ifinfomsg *>(NLMSG_DATA(header)));
        } else if (header->nlmsg_type == RTM_NEWADDR || header->nlmsg_type == RTM_DELADDR) {
            const auto &address = *static_cast<const ifaddrmsg *>(NLMSG_DATA(header));
            if (address.ifa_scope != RT_SCOPE_UNIVERSE)
                continue;
            const void *found = nullptr;
            auto attributesLeft = static_cast<int>(IFA_PAYLOAD(header));
            for (const rtattr *attribute = IFA_RTA(&address); RTA_OK(attribute, attributesLeft);
                 attribute = RTA_NEXT(attribute, attributesLeft)) {
                if (attribute->rta_type == IFA_ADDRESS)
                    found = RTA_DATA(attribute);
            }
            if (found)
                changeAddress(header->nlmsg_type == RTM_NEWADDR, address, found);
        }
    }
}

int openFifo()
{
    return open(fifoPath, O_RDONLY | O_NONBLOCK);
}

constexpr long long TICK = 500;

long long milliseconds()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000LL + time.tv_nsec / 1000000;
}

void watch(int epoll, int fd)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

} // namespace

int main()
{
    const int epoll = epoll_create1(0);
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
        sigaddset(&ending, signal);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    const int signals = signalfd(-1, &ending, 0);
    watch(epoll, signals);

    const int netlink = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK, NETLINK_ROUTE);
    const int room = 16384;
    setsockopt(netlink, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    sockaddr_nl local = {};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR |
                      RTMGRP_IPV6_ROUTE;
    static_cast<void>(bind(netlink, reinterpret_cast<const sockaddr *>(&local), sizeof local));
    watch(epoll, netlink);

    for (const int gpio : {6, 7, 8, 2, 3, 4})
        writeLed(gpio, false);
    LOG("switch display mode %d -> %d\n", 0, 1);
    unlink(fifoPath);
    mkfifo(fifoPath, 0600);
    int fifo = openFifo();
    watch(epoll, fifo);

    jobTick();

    long long next = milliseconds() + TICK;
    for (bool wholeSecond = false;;) {
        const long long left = next - milliseconds();
        epoll_event events[4];
        const int count = epoll_wait(epoll, events, 4, left > 0 ? static_cast<int>(left) : 0);
        if (milliseconds() >= next) {
            jobTick();
            if (wholeSecond) {
                jobSnapshot();
                jobButton();
            }
            wholeSecond = !wholeSecond;
            next += TICK;
        }
        for (int i = 0; i < count; i++) {
            const int fd = events[i].data.fd;
            if (fd == netlink) {
                receive(netlink);
            } else if (fd == fifo) {
                char text[128] = {};
                const auto length = static_cast<int>(read(fifo, text, sizeof text - 1));
                if (length > 0) {
                    LOG("received \"%s\"\n", text);
                } else {
                    LOG("received len: %d\n", length);
                    close(fifo);
                    fifo = openFifo();
                    watch(epoll, fifo);
                }
            } else if (fd == signals) {
                return 0;
            }
        }
    }
}
