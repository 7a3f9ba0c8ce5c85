// The orders in which things happen that other programs may rely on.

#include "board_test.h"

#include "device.h"

#include <csignal>
#include <filesystem>

namespace {

constexpr auto LOG = EventKind::Log;
constexpr auto STORE = EventKind::Store;
constexpr auto OMCI = EventKind::Omci;

class Order : public BoardTest {
protected:
    /// The events since the last command, once everything that it caused has happened. The kernel
    /// gives out a new IPv6 address when it comes to it: then there is a log record to wait for.
    std::vector<Event> after(const std::string &command, const std::string &record = "")
    {
        ip(command);
        if (!record.empty()) {
            EXPECT_TRUE(logs(record));
        }
        const size_t start = from;
        settle();
        std::vector<Event> result;
        for (const Event &event : board.events(start)) {
            if (event.text.find("192.0.2.") != std::string::npos)
                break;
            if (event.kind == LOG || event.kind == STORE || event.kind == OMCI)
                result.push_back(event);
        }
        fromNow();
        return result;
    }

    static testing::AssertionResult are(const std::vector<Event> &events,
                                        const std::vector<Thing> &things)
    {
        const bool equal =
            std::equal(events.begin(), events.end(), things.begin(), things.end(),
                       [](const Event &event, const Thing &thing) { return thing.isIn(event); });
        return equal ? testing::AssertionSuccess() : listed("instead:", events);
    }
};

TEST_F(Order, LedsAreDarkBeforeTheFirstSwitchIsLogged)
{
    start();
    const std::vector<Event> events = board.events(from);
    const auto first = std::find_if(events.begin(), events.end(), [](const Event &event) {
        return event.kind == EventKind::Leds || event.kind == LOG;
    });
    ASSERT_NE(events.end(), first);
    EXPECT_EQ(EventKind::Leds, first->kind);
    EXPECT_TRUE(happens({{EventKind::Leds, "000000"},
                         {LOG, "switch display mode 0 -> 1"},
                         {EventKind::Mode, "1"},
                         {EventKind::Call, "syscfg_getLaserInfo"},
                         {EventKind::Leds, "110000"}}));
}

TEST_F(Order, AddressIsLoggedThenPublishedAndPublishedThenLoggedWhenItGoes)
{
    NEEDS(Network);
    start();
    fromNow();
    EXPECT_TRUE(are(after("-6 addr add 2001:db8::1/64 dev nas0_0 nodad", "2001:db8::1"),
                    {{LOG, "New IPv6 address 2001:db8::1/64"},
                     {STORE, "wanAddress \"2001:db8::1\""},
                     {STORE, "wanAddressLen 64"},
                     {OMCI, "set update_ip"}}));
    EXPECT_TRUE(are(after("-6 addr del 2001:db8::1/64 dev nas0_0"),
                    {{STORE, "wanAddress \"\""},
                     {STORE, "wanAddressLen 0"},
                     {OMCI, "set update_ip"},
                     {LOG, "Removed IPv6 address 2001:db8::1/64"}}));
}

TEST_F(Order, DefaultRouteIsLoggedThenPublished)
{
    NEEDS(Network);
    start();
    fromNow();
    EXPECT_TRUE(are(after("-6 route add default via fe80::1 dev nas0_0"),
                    {{LOG, "New IPv6 default route via fe80::1"},
                     {STORE, "wanGateway \"fe80::1\""},
                     {OMCI, "set update_ip"}}));
}

TEST_F(Order, PurgeTellsOfTheLinkThenOfAddressesThenOfRoutes)
{
    NEEDS(Network);
    start();
    fromNow();
    // What leaves a bridge is reported like a deleted link, and keeps what the kernel would take
    // from that with reports of their own.
    after("link set ppp0 master br0");
    after("-6 addr add 2001:db8::1/64 dev ppp0 nodad", "2001:db8::1");
    after("-6 addr add 2001:db8::2/64 dev ppp0 nodad", "2001:db8::2");
    after("-6 route add 2001:db8:f::/48 via fe80::1 dev ppp0");
    EXPECT_TRUE(
        are(after("link set ppp0 nomaster"), {{LOG, "Removed interface ppp0("},
                                              {STORE, "wanAddress \"\""},
                                              {STORE, "wanAddressLen 0"},
                                              {OMCI, "set update_ip"},
                                              {LOG, "Removed IPv6 address 2001:db8::2/64"},
                                              {STORE, "wanAddress \"\""},
                                              {STORE, "wanAddressLen 0"},
                                              {OMCI, "set update_ip"},
                                              {LOG, "Removed IPv6 address 2001:db8::1/64"},
                                              {LOG, "Removed IPv6 route 2001:db8:f::/48"}}));
}

TEST_F(Order, RebootBesideTheDaemonLeavesASnapshotInItsPlace)
{
    NEEDS(Files);
    start();
    ASSERT_TRUE(board.signalDaemon(SIGSTOP));
    const std::string stat =
        kelo::readFile("/proc/" + std::to_string(board.daemon().value()) + "/stat");
    const pid_t agent = atoi(stat.c_str() + stat.rfind(')') + 4);
    ASSERT_GT(agent, 1);
    const auto letOut = [&](const std::string &text) {
        kelo::writeFile(board.path(kelo::device::channelPath), text);
    };
    fromNow();
    for (int port = 1; port <= 7; port++) {
        letOut("\036syscfg_getPortBytes " + std::to_string(port) + "\n");
        board.mark();
    }
    letOut("\036syscfg_reboot\n");
    board.mark();
    kill(agent, SIGSTOP); // and look at the rest at once
    const std::string file = board.path(kelo::device::snapshotPath);
    kelo::writeFile(file + ".tmp", "port=lan1\n");
    std::filesystem::rename(file + ".tmp", file);
    letOut("active 4 0\n");
    kill(agent, SIGCONT);
    EXPECT_TRUE(happens({{EventKind::Call, "syscfg_reboot"},
                         {EventKind::Snapshot, "port=lan1"},
                         {EventKind::Leds, ""}}));
}

TEST_F(Order, SnapshotComesRightBehindTheSevenPorts)
{
    start();
    ASSERT_TRUE(seesSnapshot());
    ASSERT_TRUE(happens({{EventKind::Snapshot, ""}, {EventKind::Snapshot, ""}}));
    // A witness that comes late finds all of some seconds at once.
    if (board.form().lacks(kelo::Ability::Files).empty()) {
        const std::string daemon = "/proc/" + std::to_string(board.daemon().value());
        pid_t witness = 0;
        ASSERT_EQ(1, sscanf(kelo::readFile(daemon + "/stat").c_str(), "%*d %*s %*c %d", &witness));
        kill(witness, SIGSTOP);
        board.turn(2500ms);
        kill(witness, SIGCONT);
        fromNow();
        ASSERT_TRUE(seesSnapshot());
        from = 0;
    }
    const std::vector<Event> events = board.events(from);
    size_t snapshots = 0;
    for (size_t i = 7; i < events.size(); i++) {
        if (events[i].kind != EventKind::Snapshot)
            continue;
        snapshots++;
        for (size_t port = 1; port <= 7; port++)
            EXPECT_EQ("syscfg_getPortBytes " + std::to_string(port), events[i - 8 + port].text);
    }
    EXPECT_GE(snapshots, 2U);
}

TEST_F(Order, StoreThatRefusesIsRecordedAsThat)
{
    NEEDS(Network);
    start();
    board.remove("/board/store");
    board.put("/board/store", "");
    fromNow();
    EXPECT_TRUE(are(after("-6 addr add 2001:db8::1/64 dev nas0_0 nodad", "2001:db8::1"),
                    {{LOG, "New IPv6 address 2001:db8::1/64"},
                     {STORE, "wanAddress \"2001:db8::1\" refused"},
                     {STORE, "wanAddressLen 64 refused"},
                     {OMCI, "set update_ip"}}));
}

} // namespace
