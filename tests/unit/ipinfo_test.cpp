/// The IP information tracker: the socket, the walk over a datagram and its messages, what becomes
/// of an address or route, and the tables beside a plain model of them.

#include "ipinfo.h"

#include "datagram.h"
#include "fakes/board.h"
#include "fakes/event_loop.h"
#include "fakes/faults.h"
#include "fakes/journal.h"
#include "fakes/memory.h"
#include "fakes/netlink.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <deque>
#include <random>
#include <string>
#include <sys/socket.h>

namespace {

using fakes::eventLoop;
using fakes::journal;
using fakes::Lines;
using fakes::operator+;
using ::operator+;
using fakes::memory;
using fakes::netlink;

constexpr int netlinkFd = 7;

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
static_assert(sizeof ipList == sizeof(void *) && sizeof routeList == sizeof(void *));

std::string logged(const std::string &function, const std::string &text)
{
    return "log ipinfo.cpp " + function + ": " + text;
}

std::string quoted(const std::string &text)
{
    return '"' + text + '"';
}

/// What inet_ntop makes of an address, empty for none.
std::string textOf(uint8_t family, const Bytes &bytes)
{
    char text[INET6_ADDRSTRLEN] = {};
    if (!bytes.empty())
        inet_ntop(family, bytes.data(), text, sizeof text);
    return text;
}

std::string familyWord(uint8_t family)
{
    return family == AF_INET ? "IPv4" : "IPv6";
}

std::string onInterface(const std::string &name, uint32_t ifindex)
{
    return " on " + name + '(' + std::to_string(static_cast<int32_t>(ifindex)) + ')';
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

/// An empty destination is that of a default route.
std::string loggedRoute(const std::string &action, uint8_t family, const Bytes &dst, int dst_len,
                        const Bytes &gw, const std::string &name, uint32_t ifindex)
{
    const std::string to = dst.empty()
                               ? " default route"
                               : " route " + textOf(family, dst) + '/' + std::to_string(dst_len);
    return logged("route_log", action + ' ' + familyWord(family) + to + " via " +
                                   textOf(family, gw) + onInterface(name, ifindex));
}

/// An empty destination is passed as null.
std::string publishedRoute(int add, const std::string &name, uint8_t family, const Bytes &dst,
                           const std::string &dstText, int dst_len, const Bytes &gw)
{
    return "platform_ipinfo_route " + std::to_string(add) + ' ' + quoted(name) + ' ' +
           std::to_string(family) + ' ' +
           fakes::addressDigits(family, dst.empty() ? nullptr : dst.data()) + ' ' +
           quoted(dstText) + '/' + std::to_string(dst_len) + " via " +
           fakes::addressDigits(family, gw.data()) + ' ' + quoted(textOf(family, gw));
}

const Bytes hostA = address("2001:db8::1");
const Bytes hostB = address("2001:db8::2");
const Bytes hostC = address("2001:db8::3");
const Bytes network = address("2001:db8:1::");
const Bytes gateway = address("fe80::1");
const Bytes unspecified = Bytes(16);

/// A new address on br0, interface 3.
Bytes newAddress(const Bytes &host, const AddressHeader &header = {})
{
    return message(RTM_NEWADDR, header + attribute(IFA_ADDRESS, host));
}

Bytes deletedAddress(const Bytes &host, const AddressHeader &header = {})
{
    return message(RTM_DELADDR, header + attribute(IFA_ADDRESS, host));
}

/// The attributes of a route over nas0, interface 5; without destination a default route.
Bytes routeAttributes(const Bytes &dst = {}, const Bytes &gw = gateway, uint32_t ifindex = 5)
{
    const Bytes to = dst.empty() ? Bytes{} : attribute(RTA_DST, dst);
    return to + attribute(RTA_GATEWAY, gw) + attribute(RTA_OIF, ifindex);
}

Bytes newRoute(const Bytes &attributes, const RouteHeader &header = {})
{
    return message(RTM_NEWROUTE, header + attributes);
}

Bytes deletedRoute(const Bytes &attributes, const RouteHeader &header = {})
{
    return message(RTM_DELROUTE, header + attributes);
}

Bytes deletedLink(int ifindex)
{
    return message(RTM_DELLINK, linkHeader(ifindex));
}

/// What an address that was announced on br0 leaves in log and hook.
Lines added(const Bytes &host, int prefixlen = 64)
{
    return {loggedAddress("New", AF_INET6, host, prefixlen, "br0", 3),
            publishedAddress(1, "br0", AF_INET6, host, prefixlen)};
}

Lines removed(const Bytes &host, int prefixlen = 64)
{
    return {publishedAddress(0, "br0", AF_INET6, host, prefixlen),
            loggedAddress("Removed", AF_INET6, host, prefixlen, "br0", 3)};
}

size_t addressCount()
{
    size_t count = 0;
    ipaddr_entry *entry;
    LIST_FOREACH(entry, &ipList, entries) {
        count++;
    }
    return count;
}

size_t routeCount()
{
    size_t count = 0;
    route_entry *entry;
    LIST_FOREACH(entry, &routeList, entries) {
        count++;
    }
    return count;
}

// The socket.

const Lines socketOpened = {"socket " + std::to_string(AF_NETLINK) + " 0x" + [] {
    char text[16];
    snprintf(text, sizeof text, "%x", static_cast<unsigned>(SOCK_RAW) | SOCK_NONBLOCK);
    return std::string(text);
}() + " " + std::to_string(NETLINK_ROUTE)};
const Lines socketSized = {"setsockopt fd=7 " + std::to_string(SOL_SOCKET) + ' ' +
                           std::to_string(SO_RCVBUF) + " 16384"};
const Lines socketBound = {"bind fd=7 family=16 pad=0 pid=0 groups=0x551"};
const Lines eventAdded = {"event_set fd=7 flags=0x12", "event_add fd=7"};

class Registration : public testing::Test {
protected:
    Registration()
    {
        event_init();
        journal().take();
    }
};

TEST_F(Registration, OpensASubscribedSocketAndWatchesIt)
{
    ipinfo_register();
    EXPECT_EQ(journal().take(), socketOpened + socketSized + socketBound + eventAdded);
    EXPECT_TRUE(eventLoop().isPending(netlinkFd));
    EXPECT_EQ(eventLoop().find(netlinkFd)->argument, nullptr);
}

TEST_F(Registration, EmptiesTheTables)
{
    ipaddr_entry address = {};
    route_entry route = {};
    ipList.lh_first = &address;
    routeList.lh_first = &route;
    ipinfo_register();
    EXPECT_EQ(ipList.lh_first, nullptr);
    EXPECT_EQ(routeList.lh_first, nullptr);
}

TEST_F(Registration, OpensTheSocketBeforeItEmptiesTheTables)
{
    ipaddr_entry address = {};
    ipList.lh_first = &address;
    bool emptyBefore = true;
    fakes::chooseFailure() = [&](const std::string &call, const std::string &) {
        if (call == "event_add")
            emptyBefore = LIST_EMPTY(&ipList);
        return false;
    };
    ipinfo_register();
    EXPECT_FALSE(emptyBefore);
}

TEST_F(Registration, EmptiesTheTablesAlsoWithoutASocket)
{
    ipaddr_entry address = {};
    ipList.lh_first = &address;
    netlink().socketResult = -1;
    ipinfo_register();
    EXPECT_EQ(ipList.lh_first, nullptr);
}

TEST_F(Registration, LogsASocketThatCannotBeOpened)
{
    netlink().socketResult = -1;
    ipinfo_register();
    EXPECT_EQ(journal().take(), socketOpened + Lines{logged("ipinfo_register_netlink",
                                                            "Failed to open netlink socket")});
    EXPECT_EQ(eventLoop().pendingCount(), 0U);
}

TEST_F(Registration, LogsOptionsThatCannotBeSetAndLeavesTheSocketOpen)
{
    netlink().setsockoptResult = -1;
    ipinfo_register();
    EXPECT_EQ(journal().take(),
              socketOpened + socketSized +
                  Lines{logged("ipinfo_register_netlink", "Failed to set netlink socket options")});
    EXPECT_EQ(eventLoop().pendingCount(), 0U);
}

TEST_F(Registration, LogsAFailedBindAndLeavesTheSocketOpen)
{
    for (const int result : {-1, -2}) {
        netlink().bindResult = result;
        ipinfo_register();
        EXPECT_EQ(journal().take(),
                  socketOpened + socketSized + socketBound +
                      Lines{logged("ipinfo_register_netlink", "Failed to bind netlink socket")});
        EXPECT_EQ(eventLoop().pendingCount(), 0U);
    }
}

TEST_F(Registration, TakesOnlyMinus1AsFailureOfTheOtherSteps)
{
    netlink().setsockoptResult = -2;
    netlink().bindResult = 1;
    ipinfo_register();
    EXPECT_EQ(journal().take(), socketOpened + socketSized + socketBound + eventAdded);
}

TEST_F(Registration, WorksWithAFailedEventAdd)
{
    eventLoop().addResult = -1;
    ipinfo_register();
    EXPECT_EQ(journal().take({"log"}), Lines{});
}

class Tracker : public testing::Test {
protected:
    Tracker()
    {
        event_init();
        ipinfo_register();
        netlink().names = {{3, "br0"}, {5, "nas0"}};
        recordsBefore_ = memory().live;
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

    size_t records() const { return memory().live - recordsBefore_; }

private:
    size_t recordsBefore_;
};

// Receiving.

TEST_F(Tracker, ReceivesOneDatagramPerCall)
{
    netlink().receptions.push_back({newAddress(hostA), 0, 0});
    netlink().receptions.push_back({newAddress(hostB), 0, 0});
    eventLoop().readable(netlinkFd);
    EXPECT_EQ(journal().take(),
              Lines({"getsockname fd=7 room=0", "recvmsg fd=7 flags=0"}) + added(hostA));
    EXPECT_EQ(wake(), added(hostB));
}

TEST(TrackerOnDescriptor0, TakesItAsInvalid)
{
    event_init();
    netlink().socketResult = 0;
    ipinfo_register();
    journal().take();
    for (int call = 0; call < 2; call++) {
        eventLoop().readable(0);
        EXPECT_EQ(journal().take(), Lines{logged("ipinfo_netlink_recv", "Invalid netlink fd")});
    }
}

TEST(TrackerOnDescriptor1, TakesItAsValid)
{
    event_init();
    netlink().socketResult = 1;
    ipinfo_register();
    journal().take();
    eventLoop().readable(1);
    EXPECT_EQ(journal().take({"recvmsg"}), Lines{"recvmsg fd=1 flags=0"});
}

TEST_F(Tracker, LogsADescriptorThatIsNegative)
{
    eventLoop().find(netlinkFd)->callback(-1, EV_READ, nullptr);
    EXPECT_EQ(journal().take(), Lines{logged("ipinfo_netlink_recv", "Invalid netlink fd")});
}

TEST_F(Tracker, LogsADescriptorThatIsNoSocket)
{
    netlink().getsocknameResult = -1;
    eventLoop().readable(netlinkFd);
    EXPECT_EQ(journal().take(),
              (Lines{"getsockname fd=7 room=0",
                     logged("ipinfo_netlink_recv", "Failed to get netlink addr")}));
}

TEST_F(Tracker, TakesOnlyMinus1AsFailureOfGetsockname)
{
    netlink().getsocknameResult = -2;
    EXPECT_EQ(receive(newAddress(hostA)), added(hostA));
}

TEST_F(Tracker, LogsAFailedReceptionWithItsResult)
{
    for (const int error : {EAGAIN, ENOBUFS, EINTR}) {
        netlink().receptions.push_back({newAddress(hostA), 0, error});
        EXPECT_EQ(wake(),
                  Lines{logged("ipinfo_netlink_recv", "Failed to receive netlink msg (-1)")});
    }
    EXPECT_EQ(receive({}),
              Lines{logged("ipinfo_netlink_recv", "Failed to receive netlink msg (0)")});
    EXPECT_EQ(receive(newAddress(hostA)), added(hostA)); // goes on as before
}

TEST_F(Tracker, DropsATruncatedDatagramWhole)
{
    for (const int flags : {0x20, 0x08, 0x28, 0x21, 0x48}) {
        EXPECT_EQ(receive(newAddress(hostA), flags),
                  Lines{logged("ipinfo_netlink_recv",
                               "Netlink msg_trunc (" + std::to_string(flags) + ")")});
    }
    EXPECT_EQ(addressCount(), 0U);
}

TEST_F(Tracker, LooksAtNoOtherFlags)
{
    EXPECT_EQ(receive(newAddress(hostA), ~(MSG_TRUNC | MSG_CTRUNC)), added(hostA));
}

// The walk over the messages.

TEST_F(Tracker, ActsOnEveryMessageOfADatagram)
{
    EXPECT_EQ(receive(newAddress(hostA) + newAddress(hostB) + deletedAddress(hostA)),
              added(hostA) + added(hostB) + removed(hostA));
}

TEST_F(Tracker, EndsTheWalkAtDone)
{
    EXPECT_EQ(receive(newAddress(hostA) + message(NLMSG_DONE, Bytes(4)) + newAddress(hostB)),
              added(hostA));
}

TEST_F(Tracker, LogsAnErrorAndEndsTheWalk)
{
    const Bytes error = message(NLMSG_ERROR, bytesOf(nlmsgerr{-EPERM, {}}));
    const Lines line = {logged("ipinfo_netlink_recv", "Netlink error")};
    EXPECT_EQ(receive(error + error + newAddress(hostA)), line);
    EXPECT_EQ(receive(newAddress(hostA) + error + newAddress(hostB)), added(hostA) + line);
}

TEST_F(Tracker, SkipsOtherTypes)
{
    for (const unsigned type :
         {0U, 1U, 4U, 15U, 16U, 18U, 19U, 22U, 23U, 26U, 28U, 29U, 32U, 68U, 0x8014U, 0xffffU}) {
        const Bytes skipped = message(type, AddressHeader{} + attribute(IFA_ADDRESS, hostB));
        EXPECT_EQ(receive(skipped + newAddress(hostA)), added(hostA)) << type;
        receive(deletedAddress(hostA));
    }
}

TEST_F(Tracker, IgnoresFlagsSequenceAndSenderOfAMessage)
{
    Bytes bytes = newAddress(hostA);
    std::fill(bytes.begin() + offsetof(nlmsghdr, nlmsg_flags), bytes.begin() + sizeof(nlmsghdr),
              static_cast<unsigned char>(0xff));
    EXPECT_EQ(receive(bytes), added(hostA));
}

TEST_F(Tracker, EndsTheWalkAtAMessageThatIsTooShort)
{
    for (const size_t length : {0U, 1U, 12U, 15U}) {
        const Bytes shortOne =
            message(RTM_NEWADDR, AddressHeader{} + attribute(IFA_ADDRESS, hostB), length);
        EXPECT_EQ(receive(newAddress(hostA) + shortOne + newAddress(hostC)), added(hostA));
        receive(deletedAddress(hostA));
    }
}

TEST_F(Tracker, EndsTheWalkAtAMessageThatIsLongerThanTheRest)
{
    const Bytes payload = AddressHeader{} + attribute(IFA_ADDRESS, hostB);
    const size_t whole = sizeof(nlmsghdr) + payload.size();
    for (const size_t length :
         {whole + 1, whole + 4, size_t{0x7fffffff}, size_t{0x80000000}, size_t{0xffffffff}}) {
        EXPECT_EQ(receive(newAddress(hostA) + message(RTM_NEWADDR, payload, length)), added(hostA))
            << length;
        receive(deletedAddress(hostA));
    }
    EXPECT_EQ(receive(message(RTM_NEWADDR, payload, whole)), added(hostB));
}

TEST_F(Tracker, EndsTheWalkWhereLessThanAHeaderIsLeft)
{
    for (size_t rest = 1; rest < sizeof(nlmsghdr); rest++) {
        Bytes cut = newAddress(hostB);
        cut.resize(rest);
        EXPECT_EQ(receive(newAddress(hostA) + cut), added(hostA));
        EXPECT_EQ(receive(cut), Lines{});
        receive(deletedAddress(hostA));
    }
}

TEST_F(Tracker, FindsTheNextMessageAtAMultipleOf4)
{
    for (size_t odd = 1; odd <= 4; odd++) {
        const Bytes skipped = message(RTM_NEWLINK, Bytes(odd, 0xee));
        ASSERT_EQ(skipped.size(), 20U);
        EXPECT_EQ(receive(skipped + newAddress(hostA)), added(hostA)) << odd;
        receive(deletedAddress(hostA));
    }
}

TEST_F(Tracker, TakesALastMessageWithoutItsPadding)
{
    for (size_t odd = 1; odd <= 3; odd++) {
        Bytes bytes = newAddress(hostA);
        bytes.resize(bytes.size() + odd);
        bytes[0] = static_cast<unsigned char>(bytes.size()); // nlmsg_len
        EXPECT_EQ(receive(bytes), added(hostA)) << odd;
        EXPECT_EQ(receive(deletedAddress(hostA) + bytes), removed(hostA) + added(hostA));
        receive(deletedAddress(hostA));
    }
}

TEST_F(Tracker, ReadsTheFamilyHeaderPastAShortMessage)
{
    // The interface index of this one lies where the next has its type and flags.
    const Bytes bare = message(RTM_DELLINK, {});
    EXPECT_EQ(receive(bare + message(RTM_NEWLINK, {})),
              Lines{logged("ipinfo_netlink_dellink", "Removed interface (16)")});
    // Nothing follows: zeros.
    EXPECT_EQ(receive(bare), Lines{logged("ipinfo_netlink_dellink", "Removed interface (0)")});
    for (size_t size = 0; size <= 8; size++) {
        EXPECT_EQ(receive(message(RTM_NEWADDR, Bytes(size))), Lines{});
        EXPECT_EQ(receive(message(RTM_NEWROUTE, Bytes(size))), Lines{});
    }
}

TEST_F(Tracker, DoesNotSeeTheDatagramBefore)
{
    const Bytes noise(16000, 0xee);
    receive(message(RTM_NEWLINK, noise));
    const Bytes bare = attribute(IFA_ADDRESS, Bytes{}); // its address lies past the datagram
    EXPECT_EQ(receive(message(RTM_NEWADDR, AddressHeader{} + bare)), added(unspecified));
}

// The very end of the receive buffer.

/// A datagram of 16400 bytes that ends with the given message.
Bytes fullDatagram(const Bytes &last)
{
    const size_t rest = fakes::datagramRoom - last.size();
    return message(RTM_NEWLINK, Bytes(rest - sizeof(nlmsghdr), 0xee)) + last;
}

TEST_F(Tracker, TakesADatagramThatFillsTheBuffer)
{
    EXPECT_EQ(receive(fullDatagram(newAddress(hostA))), added(hostA));
}

TEST_F(Tracker, ReadsZerosPastTheBuffer)
{
    const Bytes bareAddress =
        message(RTM_NEWADDR, AddressHeader{} + attribute(IFA_ADDRESS, Bytes{}));
    EXPECT_EQ(receive(fullDatagram(bareAddress)), added(unspecified));
    EXPECT_EQ(receive(fullDatagram(message(RTM_DELLINK, {}))),
              Lines{logged("ipinfo_netlink_dellink", "Removed interface (0)")});
    EXPECT_EQ(receive(fullDatagram(message(RTM_NEWADDR, {}))), Lines{});
    EXPECT_EQ(receive(fullDatagram(message(RTM_NEWROUTE, {}))), Lines{});
    const Bytes bareGateway = attribute(RTA_OIF, 5U) + attribute(RTA_GATEWAY, Bytes{});
    EXPECT_EQ(receive(fullDatagram(newRoute(bareGateway))),
              (Lines{loggedRoute("New", AF_INET6, {}, 0, unspecified, "nas0", 5),
                     publishedRoute(1, "nas0", AF_INET6, {}, "", 0, unspecified)}));
    const Bytes bareRest =
        attribute(RTA_GATEWAY, gateway) + attribute(RTA_DST, network) + attribute(RTA_OIF, Bytes{});
    EXPECT_EQ(receive(fullDatagram(newRoute(bareRest, {.dst_len = 64}))),
              (Lines{loggedRoute("New", AF_INET6, network, 64, gateway, "", 0),
                     publishedRoute(1, "", AF_INET6, network, "2001:db8:1::", 64, gateway)}));
}

// The attributes of a message.

Bytes addressMessage(const Bytes &attributes)
{
    return message(RTM_NEWADDR, AddressHeader{} + attributes);
}

TEST_F(Tracker, TakesTheLastOfSeveralAddresses)
{
    EXPECT_EQ(
        receive(addressMessage(attribute(IFA_ADDRESS, hostA) + attribute(IFA_ADDRESS, hostB))),
        added(hostB));
}

TEST_F(Tracker, IgnoresOtherAttributesOfAnAddress)
{
    Bytes others;
    for (const unsigned type : {0U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 255U, 0x4001U, 0x8001U, 0xffffU})
        others = others + attribute(type, hostB);
    EXPECT_EQ(receive(addressMessage(others)), Lines{});
    EXPECT_EQ(receive(addressMessage(others + attribute(IFA_ADDRESS, hostA) + others)),
              added(hostA));
}

TEST_F(Tracker, FindsTheNextAttributeAtAMultipleOf4)
{
    for (size_t odd = 0; odd <= 4; odd++) {
        const Bytes label = attribute(IFA_LABEL, Bytes(odd, 'x'));
        EXPECT_EQ(receive(addressMessage(label + attribute(IFA_ADDRESS, hostA))), added(hostA));
        receive(deletedAddress(hostA));
    }
}

TEST_F(Tracker, EndsAtAnAttributeThatIsTooShort)
{
    for (const unsigned length : {0U, 1U, 3U}) {
        EXPECT_EQ(receive(addressMessage(attribute(IFA_ADDRESS, hostA) +
                                         attribute(IFA_ADDRESS, hostB, length) +
                                         attribute(IFA_ADDRESS, hostC))),
                  added(hostA));
        receive(deletedAddress(hostA));
    }
}

TEST_F(Tracker, EndsAtAnAttributeThatIsLongerThanTheRest)
{
    for (const unsigned length : {21U, 24U, 0x7fffU, 0x8000U, 0xffffU}) {
        EXPECT_EQ(receive(addressMessage(attribute(IFA_ADDRESS, hostA) +
                                         attribute(IFA_ADDRESS, hostB, length))),
                  added(hostA));
        receive(deletedAddress(hostA));
    }
    EXPECT_EQ(receive(addressMessage(attribute(IFA_ADDRESS, hostB, 20))), added(hostB));
}

TEST_F(Tracker, TakesALastAttributeWithoutItsPadding)
{
    // One byte longer than an address, and the message ends with that byte.
    Bytes payload = AddressHeader{} + attribute(IFA_ADDRESS, hostA + Bytes{0xee});
    payload.resize(payload.size() - 3);
    EXPECT_EQ(receive(message(RTM_NEWADDR, payload)), added(hostA));
}

TEST_F(Tracker, EndsWhereLessThanAnAttributeHeaderIsLeft)
{
    for (size_t rest = 1; rest <= 3; rest++) {
        Bytes payload = AddressHeader{} + attribute(IFA_ADDRESS, hostA);
        const Bytes more = attribute(IFA_ADDRESS, hostB);
        payload.insert(payload.end(), more.begin(), more.begin() + static_cast<long>(rest));
        EXPECT_EQ(receive(message(RTM_NEWADDR, payload) + newAddress(hostB)),
                  added(hostA) + added(hostB));
        receive(deletedAddress(hostA) + deletedAddress(hostB));
    }
}

TEST_F(Tracker, LooksForAttributesWithinTheMessageOnly)
{
    // An attribute of the right type that the message's length leaves out, by a byte or wholly.
    const Bytes payload = AddressHeader{} + attribute(IFA_ADDRESS, hostA);
    for (const size_t length : {16U, 17U, 20U, 23U, 24U, 25U, 28U, 43U})
        EXPECT_EQ(receive(message(RTM_NEWADDR, payload, length)), Lines{}) << length;
    EXPECT_EQ(receive(message(RTM_NEWADDR, payload, 44)), added(hostA));
    const Bytes route = RouteHeader{} + attribute(RTA_GATEWAY, gateway);
    for (const size_t length : {16U, 17U, 20U, 27U, 28U, 29U, 32U, 47U})
        EXPECT_EQ(receive(message(RTM_NEWROUTE, route, length)), Lines{}) << length;
    EXPECT_EQ(receive(message(RTM_NEWROUTE, route, 48)).size(), 2U);
}

TEST_F(Tracker, ReadsAnAddressPastAShortAttribute)
{
    const Bytes next = attribute(IFA_LOCAL, address("2001:db8::7"));
    // The bytes after the attribute's own four: those of the next attribute.
    const Bytes shortOne = attribute(IFA_ADDRESS, Bytes{0x20, 0x01, 0x0d, 0xb8});
    Bytes seen = Bytes{0x20, 0x01, 0x0d, 0xb8} + next;
    seen.resize(16);
    EXPECT_EQ(receive(addressMessage(shortOne + next)), added(seen));
}

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

// The tables beside a plain model of the documented rules.

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
