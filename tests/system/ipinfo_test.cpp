// Addresses, routes and links, by real changes of the kernel's.

#include "board_test.h"

#include <csignal>

namespace {

class IpInfo : public BoardTest {
protected:
    void SetUp() override
    {
        NEEDS(Network);
        start();
        fromNow();
    }

    /// The index of an interface, as log records show it.
    std::string indexOf(const std::string &interface)
    {
        const kelo::Result result =
            board.exec({"sh", "-c", "ip -o link show " + interface + " | cut -d: -f1"});
        return result.output.substr(0, result.output.find('\n'));
    }

    std::string on(const std::string &interface)
    {
        return " on " + interface + "(" + indexOf(interface) + ")";
    }
};

TEST_F(IpInfo, WanAddressIsLoggedAndPublishedUntilItIsRemoved)
{
    ip("-6 addr add 2001:db8::1/64 dev nas0_0");
    EXPECT_TRUE(
        logs("kelo-monitord: New IPv6 address 2001:db8::1/64" + on("nas0_0") + " [ipinfo.cpp:"));
    EXPECT_TRUE(sees(EventKind::Omci, "set update_ip"));
    EXPECT_EQ("2001:db8::1", stored("wanAddress"));
    EXPECT_EQ("64", stored("wanAddressLen"));
    EXPECT_EQ("(unset)", stored("lanAddress"));
    fromNow();
    ip("-6 addr del 2001:db8::1/64 dev nas0_0");
    EXPECT_TRUE(logs("Removed IPv6 address 2001:db8::1/64" + on("nas0_0")));
    EXPECT_TRUE(sees(EventKind::Omci, "set update_ip"));
    EXPECT_EQ("", stored("wanAddress"));
    EXPECT_EQ("0", stored("wanAddressLen"));
}

TEST_F(IpInfo, LanAddressIsPublishedOfBr0)
{
    ip("-6 addr add 2001:db8:1::1/60 dev br0");
    EXPECT_TRUE(sees(EventKind::Omci, "set update_ip"));
    EXPECT_EQ("2001:db8:1::1", stored("lanAddress"));
    EXPECT_EQ("60", stored("lanAddressLen"));
    ip("-6 addr del 2001:db8:1::1/60 dev br0");
    EXPECT_TRUE(sees(EventKind::Store, "Kelo_Ipv6Status lanAddressLen 0"));
    EXPECT_EQ("", stored("lanAddress"));
}

TEST_F(IpInfo, PppIsWanToo)
{
    ip("-6 addr add 2001:db8::9/128 dev ppp0");
    EXPECT_TRUE(sees(EventKind::Store, "Kelo_Ipv6Status wanAddress \"2001:db8::9\""));
    EXPECT_TRUE(sees(EventKind::Store, "Kelo_Ipv6Status wanAddressLen 128"));
}

TEST_F(IpInfo, OtherInterfacesAndIpv4AreLoggedOnly)
{
    ip("-6 addr add 2001:db8::5/64 dev lan1");
    ip("addr add 192.0.2.99/24 dev br0");
    ip("addr add 198.51.100.9/24 dev nas0_0");
    EXPECT_TRUE(logs("New IPv6 address 2001:db8::5/64" + on("lan1")));
    EXPECT_TRUE(logs("New IPv4 address 192.0.2.99/24" + on("br0")));
    EXPECT_TRUE(logs("New IPv4 address 198.51.100.9/24" + on("nas0_0")));
    settle();
    EXPECT_EQ(0U, count(EventKind::Store));
    EXPECT_EQ(0U, count(EventKind::Omci));
}

TEST_F(IpInfo, LinkLocalAddressesAreNotTracked)
{
    ip("-6 addr add fe80::1234/64 dev nas0_0");
    settle();
    EXPECT_EQ(0U, count(EventKind::Log, "fe80::1234"));
}

TEST_F(IpInfo, RepeatedAnnouncementIsSilent)
{
    ip("-6 addr add 2001:db8::1/64 dev nas0_0 nodad");
    ASSERT_TRUE(logs("New IPv6 address 2001:db8::1/64"));
    // Changed lifetimes are announced as the same address again.
    ip("-6 addr change 2001:db8::1/64 dev nas0_0 valid_lft 1000 preferred_lft 900");
    settle();
    EXPECT_EQ(1U, count(EventKind::Log, "2001:db8::1"));
    EXPECT_EQ(1U, count(EventKind::Omci));
}

TEST_F(IpInfo, LastWanEventWins)
{
    ip("-6 addr add 2001:db8::1/64 dev nas0_0");
    ip("-6 addr add 2001:db8::2/64 dev ppp0");
    ASSERT_TRUE(sees(EventKind::Store, "Kelo_Ipv6Status wanAddress \"2001:db8::2\""));
    EXPECT_EQ("2001:db8::2", stored("wanAddress"));
    ip("-6 addr del 2001:db8::1/64 dev nas0_0");
    ASSERT_TRUE(sees(EventKind::Store, "Kelo_Ipv6Status wanAddress \"\""));
    EXPECT_EQ("", stored("wanAddress"));
}

TEST_F(IpInfo, TwoPrefixLengthsAreTwoAddresses)
{
    ip("addr add 192.0.2.50/24 dev nas0_0");
    ip("addr add 192.0.2.50/32 dev nas0_0");
    EXPECT_TRUE(logs("New IPv4 address 192.0.2.50/24"));
    EXPECT_TRUE(logs("New IPv4 address 192.0.2.50/32"));
}

TEST_F(IpInfo, DefaultRouteIsPublishedAndItsRemovalLeavesTheGateway)
{
    ip("-6 route add default via fe80::1 dev nas0_0");
    EXPECT_TRUE(logs("New IPv6 default route via fe80::1" + on("nas0_0")));
    EXPECT_TRUE(sees(EventKind::Store, "Kelo_Ipv6Status wanGateway \"fe80::1\""));
    EXPECT_TRUE(sees(EventKind::Omci, "set update_ip"));
    fromNow();
    ip("-6 route del default via fe80::1 dev nas0_0");
    EXPECT_TRUE(logs("Removed IPv6 default route via fe80::1" + on("nas0_0")));
    settle();
    EXPECT_EQ("fe80::1", stored("wanGateway"));
    EXPECT_EQ(0U, count(EventKind::Store));
    EXPECT_EQ(0U, count(EventKind::Omci));
}

TEST_F(IpInfo, DefaultRouteOfTheLanIsNotPublished)
{
    ip("-6 route add default via fe80::7 dev br0");
    EXPECT_TRUE(logs("New IPv6 default route via fe80::7" + on("br0")));
    settle();
    EXPECT_EQ("(unset)", stored("wanGateway"));
}

TEST_F(IpInfo, RoutesWithADestinationAreLoggedOnly)
{
    ip("addr add 192.0.2.1/24 dev nas0_0");
    ip("route add 198.51.100.0/24 via 192.0.2.254 dev nas0_0");
    ip("-6 route add 2001:db8:f::/48 via fe80::1 dev nas0_0");
    EXPECT_TRUE(logs("New IPv4 route 198.51.100.0/24 via 192.0.2.254" + on("nas0_0")));
    EXPECT_TRUE(logs("New IPv6 route 2001:db8:f::/48 via fe80::1" + on("nas0_0")));
    ip("route del 198.51.100.0/24 via 192.0.2.254 dev nas0_0");
    EXPECT_TRUE(logs("Removed IPv4 route 198.51.100.0/24 via 192.0.2.254" + on("nas0_0")));
    EXPECT_EQ(0U, count(EventKind::Store));
}

TEST_F(IpInfo, OnlyMainTableUnicastRoutesViaAGatewayAreTracked)
{
    ip("-6 route add 2001:db8:a::/48 dev nas0_0");
    ip("-6 route add unreachable 2001:db8:b::/48");
    ip("-6 route add 2001:db8:c::/48 via fe80::1 dev nas0_0 table 100");
    settle();
    EXPECT_EQ(0U, count(EventKind::Log, " route "));
}

TEST_F(IpInfo, DeletedLinkIsPurged)
{
    const std::string index = indexOf("ppp0");
    ip("-6 addr add 2001:db8::1/64 dev ppp0 nodad");
    ip("-6 route add 2001:db8:f::/48 via fe80::1 dev ppp0");
    ip("-6 addr add 2001:db8::2/64 dev nas0_0 nodad");
    ASSERT_TRUE(logs("New IPv6 route 2001:db8:f::/48"));
    ASSERT_TRUE(logs("New IPv6 address 2001:db8::2/64"));
    fromNow();
    ip("link del ppp0");
    EXPECT_TRUE(logs("Removed interface (" + index + ") ["));
    EXPECT_TRUE(logs("Removed IPv6 address 2001:db8::1/64 on ppp0(" + index + ")"));
    EXPECT_TRUE(logs("Removed IPv6 route 2001:db8:f::/48 via fe80::1 on ppp0(" + index + ")"));
    settle();
    EXPECT_EQ("", stored("wanAddress"));
    EXPECT_EQ(0U, count(EventKind::Log, "2001:db8::2"));
}

TEST_F(IpInfo, InterfaceThatComesBackUnderItsNameIsNewAfterItsPurge)
{
    ip("-6 addr add 2001:db8::1/64 dev ppp0 nodad");
    ASSERT_TRUE(logs("New IPv6 address 2001:db8::1/64" + on("ppp0")));
    ip("link del ppp0");
    ASSERT_TRUE(logs("Removed IPv6 address 2001:db8::1/64"));
    fromNow();
    ip("link add ppp0 type veth peer name ppp0_end");
    ip("link set ppp0 up");
    ip("-6 addr add 2001:db8::1/64 dev ppp0 nodad");
    EXPECT_TRUE(logs("New IPv6 address 2001:db8::1/64" + on("ppp0")));
}

TEST_F(IpInfo, PortLeavingTheBridgeIsReportedLikeADeletedLink)
{
    const std::string index = indexOf("lan1");
    ip("link set lan1 nomaster");
    EXPECT_TRUE(logs("Removed interface lan1(" + index + ")"));
}

TEST_F(IpInfo, WhatWasThereBeforeTheStartIsUnknown)
{
    ip("-6 addr add 2001:db8::1/64 dev nas0_0 nodad");
    ASSERT_TRUE(logs("New IPv6 address 2001:db8::1/64")); // it may take a while
    board.stopDaemon();
    start();
    fromNow();
    ip("-6 addr del 2001:db8::1/64 dev nas0_0");
    settle();
    EXPECT_EQ(0U, count(EventKind::Log, "2001:db8::1"));
}

TEST_F(IpInfo, BurstBeyondTheSocketsBufferIsReportedAndTheDaemonGoesOn)
{
    ASSERT_TRUE(board.signalDaemon(SIGSTOP));
    const std::string batch = "i=0; while [ $i -lt 400 ]; do i=$((i + 1)); "
                              "echo addr add 203.0.113.$((i % 250))/$((i % 8 + 24)) dev lan1; "
                              "done | ip -force -batch -";
    board.exec({"sh", "-c", batch});
    ASSERT_TRUE(board.signalDaemon(SIGCONT));
    EXPECT_TRUE(logs("Failed to receive netlink msg (-1)"));
    settle();
}

} // namespace
