// Addresses and routes as they come on a device: from a provider's servers at the far end.

#include "board_test.h"

#include "provider.h"

namespace {

using kelo::Provider;

constexpr char prefix[] = "2001:db8:1::/64";
constexpr char address[] = "2001:db8:1::ff:fe00:1"; // of the prefix and the link's hardware address

class FarEnd : public BoardTest {
protected:
    void SetUp() override
    {
        NEEDS(Programs);
        for (const std::string name : {"nas0_0", "ppp0", "br0"})
            ip("link set " + name + " down; ip link set " + name + " address " +
               (name == "ppp0" ? "02:00:00:00:00:02" : "02:00:00:00:00:01") + "; ip link set " +
               name + " up");
        start();
    }

    static Provider lasting(const std::string &link = "nas0_0", const std::string &of = prefix)
    {
        return {link, {of}};
    }

    /// Lifetimes that a test can wait for.
    static Provider brief(const std::string &link = "nas0_0") { return {link, {prefix}, 2, 4}; }

    void provide(const Provider &provider) { kelo::startProvider(board, provider); }

    std::string tell(const std::string &link, const kelo::Words &words)
    {
        return kelo::tellProvider(board, link, words);
    }

    std::string gatewayOf(const std::string &link)
    {
        const auto line = board.exec(
            board.form().far({"ip", "-o", "-6", "addr", "show", "dev", link, "scope", "link"}));
        const size_t at = line.output.find("fe80:");
        return line.output.substr(at, line.output.find('/', at) - at);
    }

    std::string addresses(const std::string &link)
    {
        return board.exec({"ip", "-6", "addr", "show", "dev", link}).output;
    }

    /// Waits until a link's addresses have a text in them, or no more.
    testing::AssertionResult shows(const std::string &link, const std::string &text,
                                   bool wanted = true)
    {
        const auto end = kelo::Clock::now() + deadline;
        while ((addresses(link).find(text) != std::string::npos) != wanted) {
            if (kelo::Clock::now() > end)
                return testing::AssertionFailure() << addresses(link);
        }
        return testing::AssertionSuccess();
    }

    testing::AssertionResult stores(const std::string &attribute, const std::string &value)
    {
        return sees(EventKind::Store, "Kelo_Ipv6Status " + attribute + " " + value);
    }
};

TEST_F(FarEnd, AutoconfiguredAddressAndItsRouterArePublished)
{
    provide(lasting());
    ASSERT_TRUE(happens({{EventKind::Log, "New IPv6 default route via " + gatewayOf("nas0_0")},
                         {EventKind::Store, "wanGateway \"" + gatewayOf("nas0_0") + "\""},
                         {EventKind::Omci, "set update_ip"},
                         {EventKind::Log, "New IPv6 address " + std::string(address) + "/64"},
                         {EventKind::Store, std::string("wanAddress \"") + address + "\""},
                         {EventKind::Store, "wanAddressLen 64"},
                         {EventKind::Omci, "set update_ip"}}));
}

TEST_F(FarEnd, AdvertisementsOfWhatIsKnownChangeNothing)
{
    provide(lasting());
    ASSERT_TRUE(logs(std::string("New IPv6 address ") + address));
    settle();
    const size_t commands = count(EventKind::Omci);
    const auto end = kelo::Clock::now() + 3s; // advertisements come every second
    while (kelo::Clock::now() < end)
        board.turn(end - kelo::Clock::now());
    EXPECT_EQ(1U, count(EventKind::Log, "New IPv6 address"));
    EXPECT_EQ(1U, count(EventKind::Log, "New IPv6 default route"));
    EXPECT_EQ(commands, count(EventKind::Omci));
}

TEST_F(FarEnd, AddressIsKeptWhileDeprecatedAndGoesWhenItExpires)
{
    provide(brief());
    ASSERT_TRUE(logs(std::string("New IPv6 address ") + address));
    tell("nas0_0", {"silence"});
    ASSERT_TRUE(shows("nas0_0", "deprecated"));
    EXPECT_EQ(address, stored("wanAddress"));
    EXPECT_EQ(0U, count(EventKind::Log, "Removed IPv6 address"));
    EXPECT_TRUE(logs(std::string("Removed IPv6 address ") + address + "/64"));
    EXPECT_TRUE(stores("wanAddress", "\"\""));
    EXPECT_TRUE(stores("wanAddressLen", "0"));
}

TEST_F(FarEnd, RouterThatWithdrawsItselfStaysTheGateway)
{
    provide(lasting());
    ASSERT_TRUE(logs("New IPv6 default route"));
    const std::string gateway = gatewayOf("nas0_0");
    ASSERT_TRUE(logs(std::string("New IPv6 address ") + address));
    settle();
    const size_t commands = count(EventKind::Omci);
    tell("nas0_0", {"stop"});
    ASSERT_TRUE(logs("Removed IPv6 default route via " + gateway));
    settle();
    EXPECT_EQ(gateway, stored("wanGateway"));
    EXPECT_EQ(commands, count(EventKind::Omci));
    EXPECT_EQ(address, stored("wanAddress"));
}

TEST_F(FarEnd, NoRouterAmongAdvertisersIsNoGateway)
{
    Provider provider = lasting();
    provider.router = 0;
    provide(provider);
    ASSERT_TRUE(logs(std::string("New IPv6 address ") + address));
    EXPECT_EQ("(unset)", stored("wanGateway"));
    EXPECT_EQ(0U, count(EventKind::Log, "default route"));
}

TEST_F(FarEnd, LastOfTwoRoutersIsTheGatewayAndStaysIt)
{
    provide(lasting("nas0_0"));
    ASSERT_TRUE(stores("wanGateway", "\"" + gatewayOf("nas0_0") + "\""));
    provide(lasting("ppp0", "2001:db8:2::/64"));
    ASSERT_TRUE(stores("wanGateway", "\"" + gatewayOf("ppp0") + "\""));
    tell("ppp0", {"stop"});
    ASSERT_TRUE(logs("Removed IPv6 default route via " + gatewayOf("ppp0")));
    settle();
    EXPECT_EQ(gatewayOf("ppp0"), stored("wanGateway"));
}

TEST_F(FarEnd, RenumberingPublishesTheNewAddressAndTheOldOnesEndEmptiesIt)
{
    provide(brief());
    ASSERT_TRUE(logs(std::string("New IPv6 address ") + address));
    tell("nas0_0", {"renumber", "2001:db8:9::/64"});
    ASSERT_TRUE(stores("wanAddress", "\"2001:db8:9::ff:fe00:1\""));
    ASSERT_TRUE(logs(std::string("Removed IPv6 address ") + address + "/64"));
    ASSERT_TRUE(stores("wanAddress", "\"\""));
    settle();
    EXPECT_EQ("", stored("wanAddress"));
    EXPECT_NE(std::string::npos, addresses("nas0_0").find("2001:db8:9::ff:fe00:1/64"));
}

TEST_F(FarEnd, EndOfTheOlderOfTwoAddressesEmptiesTheEntry)
{
    provide(brief("nas0_0"));
    ASSERT_TRUE(stores("wanAddress", std::string("\"") + address + "\""));
    provide(lasting("ppp0", "2001:db8:2::/64"));
    ASSERT_TRUE(stores("wanAddress", "\"2001:db8:2::ff:fe00:2\""));
    tell("nas0_0", {"silence"});
    ASSERT_TRUE(logs(std::string("Removed IPv6 address ") + address + "/64"));
    EXPECT_TRUE(stores("wanAddress", "\"\""));
    settle();
    EXPECT_EQ("", stored("wanAddress"));
}

TEST_F(FarEnd, LeasedAddressesArePublishedAsIpv6AndLoggedAsIpv4)
{
    Provider provider = lasting();
    provider.leases = true;
    provide(provider);
    ASSERT_TRUE(stores("wanAddressLen", "64")); // autoconfigured
    settle();
    fromNow();
    tell("nas0_0", {"ask"});
    ASSERT_TRUE(stores("wanAddressLen", "128"));
    ASSERT_TRUE(logs("New IPv4 address 198.51.100.1"));
    ASSERT_TRUE(logs("New IPv4 default route via 198.51.100.1 on nas0_0("));
    settle();
    EXPECT_EQ("2001:db8:1::1", stored("wanAddress").substr(0, 13));
    EXPECT_EQ(1U, count(EventKind::Omci));
    EXPECT_EQ(2U, count(EventKind::Store));

    tell("nas0_0", {"release"});
    ASSERT_TRUE(logs("Removed IPv6 address 2001:db8:1::1"));
    ASSERT_TRUE(logs("Removed IPv4 address 198.51.100.1"));
    ASSERT_TRUE(logs("Removed IPv4 default route via 198.51.100.1"));
    settle();
    EXPECT_EQ("", stored("wanAddress"));
    EXPECT_EQ(2U, count(EventKind::Omci));
}

TEST_F(FarEnd, AutoconfiguredAddressThatAnotherHasIsNeverSeen)
{
    const kelo::Result taken = board.exec(board.form().far(
        {"ip", "addr", "add", std::string(address) + "/64", "dev", "nas0_0", "nodad"}));
    ASSERT_EQ(0, taken.status) << taken.output;
    provide(lasting());
    ASSERT_TRUE(shows("nas0_0", address));
    ASSERT_TRUE(shows("nas0_0", address, false)); // until it is found out
    settle();
    EXPECT_EQ(0U, count(EventKind::Log, address));
    EXPECT_EQ("(unset)", stored("wanAddress"));
}

TEST_F(FarEnd, AddressGivenByHandThatAnotherHasIsPublishedAllTheSame)
{
    const kelo::Result taken = board.exec(
        board.form().far({"ip", "addr", "add", "2001:db8:5::5/64", "dev", "nas0_0", "nodad"}));
    ASSERT_EQ(0, taken.status) << taken.output;
    ip("addr add 2001:db8:5::5/64 dev nas0_0");
    ASSERT_TRUE(shows("nas0_0", "dadfailed"));
    settle();
    EXPECT_EQ("2001:db8:5::5", stored("wanAddress"));
    EXPECT_EQ(1U, count(EventKind::Log, "2001:db8:5::5"));
}

TEST_F(FarEnd, PrivacyAddressIsAnAddressLikeAnyOther)
{
    ASSERT_EQ(
        0, board.exec({"sh", "-c", "echo 2 > /proc/sys/net/ipv6/conf/nas0_0/use_tempaddr"}).status);
    provide(lasting());
    ASSERT_TRUE(happens({{EventKind::Log, "New IPv6 address 2001:db8:1:"},
                         {EventKind::Log, "New IPv6 address 2001:db8:1:"}}));
    settle();
    std::string last;
    for (const Event &event : board.events(from)) {
        const size_t at = event.text.find("New IPv6 address ");
        if (event.kind == EventKind::Log && at != std::string::npos)
            last = event.text.substr(at + 17, event.text.find('/', at) - at - 17);
    }
    EXPECT_EQ(last, stored("wanAddress"));
    EXPECT_NE(std::string::npos, addresses("nas0_0").find("temporary"));
}

TEST_F(FarEnd, RouterBehindALanPortGivesTheBridgeItsAddressButNoGateway)
{
    provide(lasting("lan1"));
    ASSERT_TRUE(stores("lanAddress", std::string("\"") + address + "\""));
    ASSERT_TRUE(stores("lanAddressLen", "64"));
    ASSERT_TRUE(logs("New IPv6 default route via " + gatewayOf("lan1") + " on br0("));
    settle();
    EXPECT_EQ("(unset)", stored("wanGateway"));
}

TEST_F(FarEnd, SessionThatDropsIsPurgedAndComesBackUnderAnotherIndex)
{
    const auto index = [&] {
        const std::string line = board.exec({"ip", "-o", "link", "show", "dev", "ppp0"}).output;
        return line.substr(0, line.find(':'));
    };
    provide(lasting("ppp0"));
    ASSERT_TRUE(logs("New IPv6 address 2001:db8:1::ff:fe00:2/64 on ppp0("));
    const std::string before = index();
    tell("ppp0", {"vanish"});
    ASSERT_TRUE(happens({{EventKind::Log, "Removed IPv6 address 2001:db8:1::ff:fe00:2/64"},
                         {EventKind::Log, "Removed interface (" + before + ")"}}));
    ASSERT_TRUE(stores("wanAddress", "\"\""));
    fromNow();
    provide(lasting("ppp0"));
    ASSERT_TRUE(logs("New IPv6 address 2001:db8:1:"));
    EXPECT_NE(before, index());
    EXPECT_EQ(1U, count(EventKind::Log, " on ppp0(" + index() + ")") -
                      count(EventKind::Log, "default route"));
}

TEST_F(FarEnd, LinkThatFlapsKeepsItsAddress)
{
    provide(lasting());
    ASSERT_TRUE(logs(std::string("New IPv6 address ") + address));
    fromNow();
    tell("nas0_0", {"flap", "1"});
    settle();
    EXPECT_EQ(0U, count(EventKind::Log, address));
    EXPECT_EQ(address, stored("wanAddress"));
}

} // namespace
