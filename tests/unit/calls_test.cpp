/// Every call that the whole daemon makes into the C library, libevent and the vendor libraries, in
/// order and with its arguments: of a start, of one tick of each kind, and of one change of each
/// kind.

#include "display.h"
#include "ipinfo.h"

#include "datagram.h"
#include "fakes/event_loop.h"
#include "fakes/files.h"
#include "fakes/journal.h"
#include "fakes/netlink.h"
#include "fakes/process.h"
#include "fakes/vendor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/socket.h>

extern "C" int daemon_main(int argc, char **argv);

namespace {

using namespace std::chrono_literals;
using fakes::eventLoop;
using fakes::files;
using fakes::journal;
using fakes::Lines;
using fakes::netlink;
using fakes::operator+;
using fakes::text;
using ::operator+;

constexpr int netlinkFd = 7;
constexpr int pipeFd = fakes::firstDescriptor;
const std::string gpioPath = "/proc/tc3162/gpio_output";
const std::string buttonPath = "/proc/tc3162/reset_button";
const std::string pipePath = "/var/run/kelo-monitord.display";
const std::string snapshotPath = "/var/run/kelo-monitord.netinfo";

// The journal's numbers of events and of callbacks.
enum Event {
    signals = 1,
    snapshotTimer = 5,
    netlinkSocket,
    displayTimer,
    displayPipe,
    buttonTimer
};

/// What happened since the last take, with N for the line in a log record's location.
Lines take()
{
    static const std::string file = ".cpp:";
    Lines lines = journal().take();
    for (std::string &line : lines) {
        const size_t found = line.find(file);
        if (found == std::string::npos)
            continue;
        const size_t number = found + file.size();
        line.replace(number, line.find(' ', number) - number, "N");
    }
    return lines;
}

/// A log record from a function of a module: three formatting calls and one write.
Lines logged(const std::string &module, const std::string &function, const std::string &format,
             const std::string &message)
{
    return {R"(snprintf 1024 "kelo-monitord: ")", "vsnprintf 1009 \"" + format + '"',
            text("snprintf %zu \" [%%s:%%d %%s]\n\"", 1009 - message.size()),
            "stderr kelo-monitord: " + message + " [" + module + ".cpp:N " + function + "]\n"};
}

Lines led(int gpio, int level)
{
    return {"fopen " + gpioPath + " w",
            "setvbuf full 128",
            "fprintf \"active %d %d\n\"",
            "fclose",
            "write " + gpioPath + text(": active %d %d\n", gpio, level),
            "close " + gpioPath};
}

/// The six LEDs of a pattern, GPIO 6, 7, 8, 2, 3 and 4 from left to right.
Lines drawn(const std::string &pattern)
{
    static constexpr int gpios[] = {6, 7, 8, 2, 3, 4};
    Lines lines;
    for (size_t i = 0; i < 6; i++)
        lines = lines + led(gpios[i], pattern[i] == '1' ? 0 : 1);
    return lines;
}

const Lines registered = [] {
    Lines lines = {"event_init"};
    int event = signals;
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        lines.push_back(
            text("event_set %d fd=%d flags=0x18 callback=1 argument=base", event, signal));
        lines.push_back(text("event_add %d", event++));
    }
    return lines;
}();

Lines switched(int from, int to)
{
    return logged("display", "display_setMode", "switch display mode %d -> %d\n",
                  text("switch display mode %d -> %d\n", from, to));
}

Lines armed(int callback, const std::string &argument, const std::string &interval)
{
    return {text("event_set %d fd=-1 flags=0x10 callback=%d argument=%s", displayTimer, callback,
                 argument.c_str()),
            text("event_add %d ", displayTimer) + interval,
            text("event_active %d 0 0", displayTimer)};
}

const Lines stopped = {text("event_initialized %d = 1", displayTimer),
                       text("event_del %d", displayTimer)};

const Lines pipeOpened = {
    "open " + pipePath + text(" 0x%x", static_cast<unsigned>(O_RDONLY | O_NONBLOCK)),
    text("event_set %d fd=%d flags=0x12 callback=5 argument=itself", displayPipe, pipeFd),
    text("event_add %d", displayPipe)};

/// From event_init up to the loop.
const Lines started =
    registered +
    Lines({text("event_set %d fd=-1 flags=0x10 callback=2 argument=itself", snapshotTimer),
           text("event_add %d 1.000000", snapshotTimer),
           text("socket %d 0x%x %d", AF_NETLINK, static_cast<unsigned>(SOCK_RAW | SOCK_NONBLOCK),
                NETLINK_ROUTE),
           text("setsockopt fd=%d %d %d 16384", netlinkFd, SOL_SOCKET, SO_RCVBUF),
           text("bind fd=%d family=16 pad=0 pid=0 groups=0x551", netlinkFd),
           text("event_set %d fd=%d flags=0x12 callback=3 argument=null", netlinkSocket, netlinkFd),
           text("event_add %d", netlinkSocket)}) +
    drawn("000000") + switched(0, 1) + Lines{text("event_initialized %d = 0", displayTimer)} +
    armed(4, "itself", "0.500000") + Lines({"unlink " + pipePath, "mkfifo " + pipePath + " 0600"}) +
    pipeOpened +
    Lines({text("event_set %d fd=-1 flags=0x10 callback=6 argument=itself", buttonTimer),
           text("event_add %d 1.000000", buttonTimer), "event_base_dispatch"});

const Lines launching =
    Lines{"getopt \"d\" = 100"} +
    logged("kelo-monitord", "main", "Launching as daemon...\n", "Launching as daemon...\n") +
    Lines{"getopt \"d\" = -1", "fork"};

class Calls : public testing::Test {
protected:
    Calls()
    {
        files().content[gpioPath] = "";
        netlink().names = {{3, "br0"}, {5, "nas0_0"}};
        journal().detailed = true;
    }

    /// Runs main until it exits, with the loop doing this.
    static void run(const std::function<void()> &loop, bool detached = false)
    {
        char name[] = "kelo-monitord";
        char option[] = "-d";
        char *arguments[] = {name, detached ? option : nullptr, nullptr};
        eventLoop().duringDispatch = loop;
        EXPECT_THROW(daemon_main(detached ? 2 : 1, arguments), fakes::Exit);
    }

    /// Starts the daemon, draws its first tick, and then has the loop do this.
    static void whileRunning(const std::function<void()> &loop)
    {
        run([&] {
            eventLoop().runActive();
            take();
            loop();
        });
    }

    /// The calls for a datagram.
    static Lines receive(const Bytes &bytes)
    {
        netlink().receptions.push_back({bytes});
        eventLoop().readable(netlinkFd);
        return take();
    }
};

TEST_F(Calls, OfAStartInTheForeground)
{
    run([] {});
    EXPECT_EQ(take(), Lines{"getopt \"d\" = -1"} + started + Lines{"exit 0"});
}

TEST_F(Calls, OfAStartAsDaemon)
{
    fakes::process().forkResult = 0;
    run([] {}, true);
    EXPECT_EQ(take(),
              launching +
                  Lines({"umask 000", "setsid", "chdir /", "close 0", "close 1", "close 2"}) +
                  started + Lines{"exit 0"});
}

TEST_F(Calls, OfTheLaunchingParent)
{
    fakes::process().forkResult = 1; // the smallest that a parent gets
    run([] {}, true);
    EXPECT_EQ(take(), launching + Lines{"exit 0"});
}

TEST_F(Calls, OfATerminationSignal)
{
    whileRunning([] { eventLoop().raise(SIGTERM); });
    EXPECT_EQ(take(), Lines({"event_base_loopexit now", "exit 0"}));
}

TEST_F(Calls, OfTwoSignalTicks)
{
    run([] {
        fakes::vendor().gponState = 4;
        take();
        eventLoop().runActive();
        EXPECT_EQ(take(), Lines({"syscfg_getLaserInfo", "syscfg_getGponState"}) + drawn("010101"));
        eventLoop().run(500ms);
        EXPECT_EQ(take(), Lines{"syscfg_getGponState"} + drawn("110000"));
    });
}

struct Mode {
    int32_t mode;
    const char *argument; ///< of its handler
    const char *interval; ///< in seconds, empty for a static mode
    const char *first;    ///< the pattern that it begins with
};

class CallsOfMode : public Calls, public testing::WithParamInterface<Mode> {};

TEST_P(CallsOfMode, OnEntryAndOfItsFirstTick)
{
    whileRunning([] {
        const auto &[mode, argument, interval, first] = GetParam();
        display_setMode(mode);
        EXPECT_EQ(take(), switched(1, mode) + stopped +
                              (*interval ? armed(7, argument, interval) : drawn(first)));
        eventLoop().runActive();
        EXPECT_EQ(take(), *interval ? drawn(first) : Lines{});
    });
}

INSTANTIATE_TEST_SUITE_P(
    Each, CallsOfMode,
    testing::Values(Mode{0, "", "", "000000"}, Mode{2, "itself", "0.250000", "000111"},
                    Mode{3, "itself", "0.100000", "000100"}, Mode{4, "", "", "010000"},
                    Mode{5, "itself", "0.250000", "111000"},
                    Mode{6, "itself", "3.000000", "111111"}, Mode{7, "null", "0.500000", "001000"},
                    Mode{8, "1", "0.500000", "001110"}),
    [](const auto &test) { return std::to_string(test.param.mode); });

TEST_F(Calls, OfAModeOutOfRange)
{
    whileRunning([] {
        display_setMode(9);
        EXPECT_EQ(take(), switched(1, 9) + stopped);
    });
}

TEST_F(Calls, OfASnapshot)
{
    whileRunning([] {
        display_setMode(None);
        Lines expected = {"fopen " + snapshotPath + ".tmp w", "setvbuf full 1024"};
        std::string content;
        for (size_t port = 1; port <= 7; port++) {
            static constexpr const char *names[] = {"lan1", "lan2",  "lan3", "lan4",
                                                    "wan",  "wifi2", "wifi5"};
            fakes::vendor().ports[port] = {port, 10 * port};
            expected.push_back(text("syscfg_getPortBytes %zu", port));
            expected.push_back(
                "fprintf \"port=%s,in=%llu,out=%llu,counterIn=%llu,counterOut=%llu\n\"");
            content += text("port=%s,in=%zu,out=%zu,counterIn=%zu,counterOut=%zu\n",
                            names[port - 1], port, 10 * port, port, 10 * port);
        }
        take();
        eventLoop().run(1s);
        EXPECT_EQ(take(), expected + Lines({"fclose", "write " + snapshotPath + ".tmp: " + content,
                                            "close " + snapshotPath + ".tmp",
                                            "rename " + snapshotPath + ".tmp " + snapshotPath,
                                            "fopen " + buttonPath + " r"}));
    });
}

// The button.

/// From the next sample of the button on.
Lines sample(const std::string &content)
{
    files().content[buttonPath] = content;
    eventLoop().run(1s);
    Lines lines = take();
    lines.erase(lines.begin(), std::ranges::find(lines, "fopen " + buttonPath + " r"));
    return lines;
}

const Lines sampled = {"fopen " + buttonPath + " r", "setvbuf full 64", "fscanf \"%d\"", "fclose",
                       "close " + buttonPath};
const Lines pressed = sampled + switched(0, 2) + stopped + armed(7, "itself", "0.250000");
const Lines rebooted = sampled + logged("input", "doReboot", "rebooting...\n", "rebooting...\n") +
                       Lines({text("event_del %d", buttonTimer), "fork"});
const Lines restored =
    pressed +
    logged("input", "doDefault", "resetting to defaults...\n", "resetting to defaults...\n") +
    Lines{text("event_del %d", buttonTimer)} + switched(2, 3) + stopped +
    armed(8, "itself", "0.100000") + Lines{"fork"};

TEST_F(Calls, OfAPressAndARelease)
{
    whileRunning([] {
        display_setMode(None);
        EXPECT_EQ(sample("0\n"), sampled);
        EXPECT_EQ(sample("1\n"), pressed + drawn("000111"));
        EXPECT_EQ(sample("2\n"), sampled + drawn("000111"));
        EXPECT_EQ(sample("0\n"), rebooted + drawn("000111"));
    });
}

TEST_F(Calls, OfTheChildThatReboots)
{
    whileRunning([] {
        display_setMode(None);
        sample("1\n");
        fakes::process().forkResult = 0;
        sample("0\n");
    });
    const Lines lines = take();
    EXPECT_EQ(Lines(std::ranges::find(lines, "fork"), lines.end()),
              Lines({"fork", "syscfg_reboot", "exit 0"}));
}

TEST_F(Calls, OfALongHold)
{
    whileRunning([] {
        display_setMode(None);
        EXPECT_EQ(sample("5\n"), restored + drawn("000100"));
    });
}

TEST_F(Calls, OfTheChildThatRestores)
{
    fakes::process().forkResult = 0;
    whileRunning([] { sample("5\n"); });
    const Lines lines = take();
    EXPECT_EQ(Lines(std::ranges::find(lines, "fork"), lines.end()),
              Lines({"fork", "syscfg_restoreDefaultBg", "exit 0"}));
}

// The pipe.

Lines readFromPipe()
{
    return logged("display", "readDisplayMode",
                  "readDisplayMode called with fd: %d, event: %d, arg: %p\n",
                  text("readDisplayMode called with fd: %d, event: 2, arg: %p\n", pipeFd,
                       static_cast<void *>(eventLoop().find(pipeFd)->address))) +
           Lines{text("read fd=%d size=127", pipeFd)};
}

TEST_F(Calls, OfAPipeCommand)
{
    whileRunning([] {
        files().chunks = {"reboot\n"};
        eventLoop().readable(pipeFd);
        EXPECT_EQ(take(), readFromPipe() +
                              logged("display", "readDisplayMode", "received \"%s\"\n",
                                     "received \"reboot\n\"\n") +
                              switched(1, 2) + stopped + armed(7, "itself", "0.250000"));
    });
}

TEST_F(Calls, OfThePipesEnd)
{
    whileRunning([] {
        eventLoop().readable(pipeFd);
        EXPECT_EQ(take(), readFromPipe() +
                              logged("display", "readDisplayMode", "received len: %d\n",
                                     "received len: 0\n") +
                              Lines({text("event_del %d", displayPipe), text("close %d", pipeFd)}) +
                              pipeOpened);
    });
}

// The tables.

const Lines received = {text("getsockname fd=%d room=0", netlinkFd),
                        text("recvmsg fd=%d flags=0", netlinkFd)};

Lines named(int ifindex)
{
    return {text("if_indextoname %d", ifindex)};
}

/// The text of an address that lies in a record or in the message.
Lines madeText(const char *from, const char *address)
{
    return {text("inet_ntop %d %s 46 \"%s\"", strchr(address, ':') ? AF_INET6 : AF_INET, from,
                 address)};
}

const std::string addressFormat = "%s %s address %s/%d on %s(%d)";
const std::string routeFormat = "%s %s route %s/%d via %s on %s(%d)";
const std::string defaultRouteFormat = "%s %s default route via %s on %s(%d)";

Lines published(const std::string &address, int length)
{
    return {"tcapiSet Kelo_Ipv6Status lanAddress \"" + address + "\"",
            text("tcapiSetUint32 Kelo_Ipv6Status lanAddressLen %d", length),
            "system omci set update_ip"};
}

Bytes addressMessage(bool add, const char *host)
{
    const AddressHeader header{.family = strchr(host, ':') ? uint8_t{AF_INET6} : uint8_t{AF_INET}};
    return message(add ? RTM_NEWADDR : RTM_DELADDR, header + attribute(IFA_ADDRESS, address(host)));
}

/// By default a default route.
Bytes routeMessage(bool add, const char *destination = nullptr)
{
    const Bytes to = destination ? attribute(RTA_DST, address(destination)) : Bytes{};
    const RouteHeader header{.dst_len = destination ? uint8_t{48} : uint8_t{0}};
    return message(add ? RTM_NEWROUTE : RTM_DELROUTE,
                   header + to + attribute(RTA_GATEWAY, address("fe80::1")) +
                       attribute(RTA_OIF, uint32_t{5}));
}

TEST_F(Calls, OfAnAddressThatComesAndGoes)
{
    whileRunning([] {
        const auto log = [](const std::string &action) {
            return logged("ipinfo", "ipaddr_log", addressFormat,
                          action + " IPv6 address 2001:db8::1/64 on br0(3)");
        };
        EXPECT_EQ(receive(addressMessage(true, "2001:db8::1")),
                  received + named(3) + named(3) + madeText("message", "2001:db8::1") +
                      madeText("message", "2001:db8::1") + log("New") +
                      published("2001:db8::1", 64) +
                      Lines{text("calloc 1 %zu", sizeof(ipaddr_entry))});
        EXPECT_EQ(receive(addressMessage(true, "2001:db8::1")), received + named(3));
        EXPECT_EQ(receive(addressMessage(false, "2001:db8::1")),
                  received + named(3) + madeText("record", "2001:db8::1") + published("", 0) +
                      madeText("message", "2001:db8::1") + log("Removed") + Lines{"free"});
        EXPECT_EQ(receive(addressMessage(false, "2001:db8::1")), received + named(3));
    });
}

TEST_F(Calls, OfARouteThatComesAndGoes)
{
    whileRunning([] {
        const auto log = [](const std::string &action) {
            return logged("ipinfo", "route_log", routeFormat,
                          action + " IPv6 route 2001:db8:f::/48 via fe80::1 on nas0_0(5)");
        };
        const auto madeTexts = [](const char *from) {
            return madeText(from, "fe80::1") + madeText(from, "2001:db8:f::");
        };
        EXPECT_EQ(receive(routeMessage(true, "2001:db8:f::")),
                  received + named(5) + named(5) + madeTexts("message") + madeTexts("message") +
                      log("New") + Lines{text("calloc 1 %zu", sizeof(route_entry))});
        EXPECT_EQ(receive(routeMessage(false, "2001:db8:f::")),
                  received + named(5) + madeTexts("record") + madeTexts("message") +
                      log("Removed") + Lines{"free"});
    });
}

TEST_F(Calls, OfADefaultRouteThatComesAndGoes)
{
    whileRunning([] {
        const auto log = [](const std::string &action) {
            return logged("ipinfo", "route_log", defaultRouteFormat,
                          action + " IPv6 default route via fe80::1 on nas0_0(5)");
        };
        EXPECT_EQ(
            receive(routeMessage(true)),
            received + named(5) + named(5) + madeText("message", "fe80::1") +
                madeText("message", "fe80::1") + log("New") +
                Lines({"tcapiSet Kelo_Ipv6Status wanGateway \"fe80::1\"",
                       "system omci set update_ip", text("calloc 1 %zu", sizeof(route_entry))}));
        EXPECT_EQ(receive(routeMessage(false)),
                  received + named(5) + madeText("record", "fe80::1") +
                      madeText("message", "fe80::1") + log("Removed") + Lines{"free"});
    });
}

TEST_F(Calls, OfALinkThatGoes)
{
    whileRunning([] {
        netlink().names = {};
        receive(
            message(RTM_NEWADDR, AddressHeader{.ifindex = 5, .family = AF_INET, .prefixlen = 24} +
                                     attribute(IFA_ADDRESS, address("192.0.2.1"))));
        receive(routeMessage(true));
        receive(addressMessage(true, "2001:db8::1")); // of another interface
        const auto log = [](const char *function, const std::string &format,
                            const std::string &message) {
            return logged("ipinfo", function, format, message);
        };
        EXPECT_EQ(
            receive(message(RTM_DELLINK, linkHeader(5))),
            received + named(5) +
                log("ipinfo_netlink_dellink", "Removed interface %s(%d)", "Removed interface (5)") +
                named(5) + madeText("record", "192.0.2.1") + madeText("record", "192.0.2.1") +
                log("ipaddr_log", addressFormat, "Removed IPv4 address 192.0.2.1/24 on (5)") +
                Lines{"free"} + named(5) + madeText("record", "fe80::1") +
                madeText("record", "::") + madeText("record", "fe80::1") +
                madeText("record", "::") +
                log("route_log", routeFormat, "Removed IPv6 route ::/0 via fe80::1 on (5)") +
                Lines{"free"});
    });
}

} // namespace
