/// The IP information tracker up to the tables: the socket, the reception of a datagram, the walk
/// over its messages and over the attributes of each.

#include "ipinfo_test.h"

#include "fakes/faults.h"

#include <cerrno>
#include <sys/socket.h>

namespace {

using namespace tracker;

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
            emptyBefore = ipList.lh_first == nullptr;
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

TEST_F(Registration, TakesOnlyMinus1AsFailureOfTheSocket)
{
    netlink().socketResult = -2;
    netlink().bindResult = -1; // no event can watch that descriptor
    ipinfo_register();
    EXPECT_EQ(journal().take({"log"}),
              Lines{logged("ipinfo_register_netlink", "Failed to bind netlink socket")});
}

TEST_F(Registration, WorksWithAFailedEventAdd)
{
    eventLoop().addResult = -1;
    ipinfo_register();
    EXPECT_EQ(journal().take({"log"}), Lines{});
}

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

TEST_F(Tracker, ActsOnNothingBehindTheReceivedLength)
{
    netlink().receptions.push_back({newAddress(hostA), 0, 0, newAddress(hostB)});
    EXPECT_EQ(wake(), added(hostA));
}

TEST_F(Tracker, ReceivesIntoZerosWhateverTheLastDatagramLeft)
{
    const std::vector<unsigned char> all(fakes::datagramRoom, 0xff);
    netlink().receptions.push_back({newAddress(hostA), 0, 0, all});
    netlink().receptions.push_back({newAddress(hostB), 0, 0, all});
    EXPECT_EQ(wake(), added(hostA));
    EXPECT_EQ(wake(), added(hostB));
}

TEST_F(Tracker, CompletesNoMessageFromBehindTheReceivedLength)
{
    const Bytes second = newAddress(hostB);
    const auto middle = second.begin() + NLMSG_HDRLEN;
    netlink().receptions.push_back(
        {newAddress(hostA) + Bytes(second.begin(), middle), 0, 0, Bytes(middle, second.end())});
    EXPECT_EQ(wake(), added(hostA));
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
        netlink().receptions.push_back({newAddress(hostA), MSG_TRUNC, error});
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
    for (const size_t size : {0U, 1U, 4U, 100U}) {
        EXPECT_EQ(receive(newAddress(hostA) + message(NLMSG_DONE, Bytes(size)) + newAddress(hostB)),
                  added(hostA));
        receive(deletedAddress(hostA));
    }
}

TEST_F(Tracker, LogsAnErrorAndEndsTheWalk)
{
    const Bytes error = message(NLMSG_ERROR, bytesOf(nlmsgerr{-EPERM, {}}));
    const Lines line = {logged("ipinfo_netlink_recv", "Netlink error")};
    EXPECT_EQ(receive(error + error + newAddress(hostA)), line);
    EXPECT_EQ(receive(newAddress(hostA) + error + newAddress(hostB)), added(hostA) + line);
    const Bytes acknowledgement = message(NLMSG_ERROR, bytesOf(nlmsgerr{0, {}}));
    for (const Bytes &other : {acknowledgement, message(NLMSG_ERROR, {})})
        EXPECT_EQ(receive(other + newAddress(hostB)), line);
}

TEST_F(Tracker, SkipsOtherTypes)
{
    receive(newAddress(hostB) + newRoute(routeAttributes()));
    const Bytes payloads[] = {
        AddressHeader{} + attribute(IFA_ADDRESS, hostB), // known: would be removed
        AddressHeader{} + attribute(IFA_ADDRESS, hostC), // unknown: would be added
        RouteHeader{} + routeAttributes(),
        RouteHeader{} + routeAttributes(network),
        linkHeader(3),
    };
    for (const unsigned type : {0U, 1U, 4U, 15U, 16U, 18U, 19U, 22U, 23U, 26U, 28U, 29U, 32U, 68U,
                                0x102U, 0x103U, 0x8014U, 0xffffU}) {
        Bytes skipped;
        for (const Bytes &payload : payloads)
            skipped = skipped + message(type, payload);
        EXPECT_EQ(receive(skipped + newAddress(hostA)), added(hostA)) << type;
        receive(deletedAddress(hostA));
    }
}

TEST_F(Tracker, TakesADeletedLinkForNothingElse)
{
    receive(newAddress(hostA));
    netlink().names[7] = "br0"; // so that what is known of br0 would be found under 7
    const Bytes link = AddressHeader{.ifindex = 7} + attribute(IFA_ADDRESS, hostA);
    EXPECT_EQ(receive(message(RTM_DELLINK, link)),
              Lines{logged("ipinfo_netlink_dellink", "Removed interface br0(7)")});
}

TEST_F(Tracker, TakesAnAddressForNoRoute)
{
    receive(newRoute(routeAttributes(network), {.dst_len = 64}));
    // Read as a message about a route, it would take back the one just added: the interface number
    // has the main table and the unicast type in it, and an empty attribute fills the longer
    // header.
    constexpr uint8_t parts[] = {RT_TABLE_MAIN, 0, 0, RTN_UNICAST};
    AddressHeader header;
    memcpy(&header.ifindex, parts, sizeof parts);
    receive(
        message(RTM_NEWADDR, header + attribute(IFA_LABEL, Bytes{}) + routeAttributes(network)));
    EXPECT_EQ(routeCount(), 1U);
}

TEST_F(Tracker, IgnoresFlagsSequenceAndSenderOfAMessage)
{
    const auto marked = [](Bytes bytes) {
        std::fill(bytes.begin() + offsetof(nlmsghdr, nlmsg_flags), bytes.begin() + sizeof(nlmsghdr),
                  static_cast<unsigned char>(0xff));
        return bytes;
    };
    EXPECT_EQ(receive(marked(newAddress(hostA))), added(hostA));
    EXPECT_EQ(receive(marked(deletedAddress(hostA))), removed(hostA));
    EXPECT_EQ(receive(marked(newRoute(routeAttributes()))).size(), 2U);
    EXPECT_EQ(receive(marked(deletedRoute(routeAttributes()))).size(), 2U);
    EXPECT_EQ(receive(marked(deletedLink(3))).size(), 1U);
    EXPECT_EQ(receive(marked(message(NLMSG_DONE, {})) + newAddress(hostA)), Lines{});
    EXPECT_EQ(receive(marked(message(NLMSG_ERROR, {})) + newAddress(hostA)).size(), 1U);
}

TEST_F(Tracker, LooksAtNoOtherFieldOfAFamilyHeader)
{
    const Bytes host = bytesOf(ifaddrmsg{AF_INET6, 64, 0xff, RT_SCOPE_UNIVERSE, 3}) +
                       attribute(IFA_ADDRESS, hostA);
    const Bytes route = bytesOf(rtmsg{AF_INET6, 0, 0xff, 0xff, RT_TABLE_MAIN, 0xff, 0xff,
                                      RTN_UNICAST, 0xffffffff}) +
                        routeAttributes();
    EXPECT_EQ(receive(message(RTM_NEWADDR, host)), added(hostA));
    EXPECT_EQ(receive(message(RTM_NEWROUTE, route)).size(), 2U);
    EXPECT_EQ(receive(message(RTM_DELADDR, host)), removed(hostA));
    EXPECT_EQ(receive(message(RTM_DELROUTE, route)).size(), 2U);
    receive(newAddress(hostA));
    const Bytes link = bytesOf(ifinfomsg{0xff, 0xff, 0xffff, 3, ~0U, ~0U});
    EXPECT_EQ(receive(message(RTM_DELLINK, link)).size(), 3U);
}

TEST_F(Tracker, EndsTheWalkAtAMessageThatIsTooShort)
{
    for (const size_t length : {0U, 1U, 12U, 15U}) {
        const Bytes shortOne = message(RTM_DELLINK, linkHeader(3), length);
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

TEST_F(Tracker, CountsThePaddingOfAMessage)
{
    const Bytes odd = message(RTM_NEWLINK, Bytes(1));
    for (const size_t beyond : {1U, 2U, 3U}) {
        const Bytes payload = AddressHeader{} + attribute(IFA_ADDRESS, hostA);
        const size_t length = sizeof(nlmsghdr) + payload.size() + beyond;
        EXPECT_EQ(receive(odd + message(RTM_NEWADDR, payload, length)), Lines{}) << beyond;
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

TEST_F(Tracker, CountsThePaddingOfAnAttribute)
{
    const Bytes odd = attribute(IFA_LABEL, Bytes(1));
    for (const unsigned length : {21U, 22U, 23U})
        EXPECT_EQ(receive(addressMessage(odd + attribute(IFA_ADDRESS, hostA, length))), Lines{});
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

} // namespace
