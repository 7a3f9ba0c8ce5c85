#include "netlink.h"

#include "faults.h"
#include "journal.h"
#include "memory.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <net/if.h>
#include <sys/socket.h>

using fakes::detail;
using fakes::misuse;
using fakes::netlink;
using fakes::note;

namespace {

/// A result as the kernel gives it, with errno where it is a failure.
int given(int result)
{
    if (result < 0)
        errno = EPERM;
    return result;
}

bool isZero(const void *bytes, size_t size)
{
    static constexpr unsigned char zeros[fakes::datagramRoom] = {};
    return memcmp(bytes, zeros, size) == 0;
}

} // namespace

fakes::Netlink &fakes::netlink()
{
    static auto &instance = *new Netlink; // outlives every other static object
    return instance;
}

extern "C" {

int fake_socket(int domain, int type, int protocol)
{
    note("socket %d 0x%x %d", domain, static_cast<unsigned>(type), protocol);
    return fakes::fails("socket") ? -1 : given(netlink().socketResult);
}

int fake_setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
    int number = 0;
    if (length != sizeof number)
        misuse("setsockopt with a value that is no int");
    memcpy(&number, value, sizeof number);
    note("setsockopt fd=%d %d %d %d", fd, level, option, number);
    return fakes::fails("setsockopt") ? -1 : given(netlink().setsockoptResult);
}

int fake_bind(int fd, const sockaddr *address, socklen_t length)
{
    sockaddr_nl local = {};
    if (length != sizeof local)
        misuse("bind to an address that is no sockaddr_nl");
    memcpy(&local, address, sizeof local);
    note("bind fd=%d family=%d pad=%d pid=%u groups=0x%x", fd, local.nl_family, local.nl_pad,
         local.nl_pid, local.nl_groups);
    return fakes::fails("bind") ? -1 : given(netlink().bindResult);
}

int fake_getsockname(int fd, sockaddr *address, socklen_t *length)
{
    note("getsockname fd=%d room=%u", fd, *length);
    if (!isZero(address, 16))
        misuse("getsockname with a name area that is not zeroed");
    if (fakes::fails("getsockname"))
        return -1;
    *length = sizeof(sockaddr_nl); // what the kernel would have stored
    return given(netlink().getsocknameResult);
}

ssize_t fake_recvmsg(int fd, msghdr *message, int flags)
{
    note("recvmsg fd=%d flags=%d", fd, flags);
    if (message->msg_iovlen != 1 || message->msg_iov->iov_len != fakes::datagramRoom ||
        !isZero(message->msg_iov->iov_base, fakes::datagramRoom))
        misuse("recvmsg into other than one zeroed area of 16400 bytes");
    if (message->msg_namelen != 16 || !isZero(message->msg_name, 16))
        misuse("recvmsg into other than a zeroed name area of 16 bytes");
    if (message->msg_control || message->msg_controllen != 0 || message->msg_flags != 0)
        misuse("recvmsg with a control area or flags");
    if (fakes::fails("recvmsg"))
        return -1; // the datagram stays where it is
    if (netlink().receptions.empty()) {
        errno = EAGAIN;
        return -1;
    }
    const fakes::Reception reception = std::move(netlink().receptions.front());
    netlink().receptions.pop_front();
    message->msg_flags = reception.flags;
    if (reception.error != 0) {
        errno = reception.error;
        return -1;
    }
    const size_t length = std::min(reception.bytes.size(), fakes::datagramRoom);
    auto *const area = static_cast<unsigned char *>(message->msg_iov->iov_base);
    std::copy_n(reception.bytes.begin(), length, area);
    std::copy_n(reception.behind.begin(),
                std::min(reception.behind.size(), fakes::datagramRoom - length), area + length);
    const sockaddr_nl sender = {AF_NETLINK, 0, 4711, 0}; // not the kernel, whose id is 0
    memcpy(message->msg_name, &sender, sizeof sender);
    message->msg_namelen = sizeof sender;
    return static_cast<ssize_t>(length);
}

char *fake_if_indextoname(unsigned index, char *name)
{
    detail("if_indextoname %u", index);
    if (!isZero(name, IF_NAMESIZE))
        misuse("if_indextoname into an area that is not zeroed");
    const auto found = netlink().names.find(index);
    if (fakes::fails("if_indextoname", std::to_string(index)) || found == netlink().names.end()) {
        errno = ENXIO;
        return nullptr;
    }
    strncpy(name, found->second.c_str(), IF_NAMESIZE - 1);
    return name;
}

const char *fake_inet_ntop(int family, const void *address, char *text, socklen_t size)
{
    if (!isZero(text, INET6_ADDRSTRLEN))
        misuse("inet_ntop into an area that is not zeroed");
    const char *const result = inet_ntop(family, address, text, size);
    detail("inet_ntop %d %s %u \"%s\"", family,
           fakes::memory().holds(address) ? "record" : "message", size, text);
    return result;
}
}
