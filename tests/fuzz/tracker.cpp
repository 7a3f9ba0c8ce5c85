#include "tracker.h"

#include "fakes/event_loop.h"
#include "fakes/memory.h"
#include "ipinfo.h"

using fakes::eventLoop;
using fakes::netlink;

namespace {

/// Starts it as after any end: with its variables as they are, and no record.
void begin()
{
    for (const auto &[record, size] : fakes::memory().live)
        free(const_cast<void *>(record));
    fakes::memory() = {};
    eventLoop() = {};
    event_init();
    ipinfo_register();
    if (ipList.lh_first || routeList.lh_first)
        fuzz::wrong("the tracker did not start with empty tables");
}

} // namespace

namespace fuzz {

void startTracker()
{
    netlink() = {};
    netlink().names = {{1, "br0"}, {2, "nas0_0"}, {3, "ppp0"}, {4, "eth0"}, {5, "fifteen-letters"}};
    begin();
    if (!eventLoop().isPending(netlinkFd))
        wrong("the tracker does not wait for its socket");
    fakes::journal().take();
}

void startTrackerInVain(int step)
{
    constexpr const char *messages[] = {"open netlink socket", "set netlink socket options",
                                        "bind netlink socket"};
    int *const results[] = {&netlink().socketResult, &netlink().setsockoptResult,
                            &netlink().bindResult};
    *results[step - 1] = -1;
    begin();
    if (fakes::journal().take({"log"}) !=
        fakes::Lines{tracker::logged("ipinfo_register_netlink",
                                     std::string("Failed to ") + messages[step - 1])})
        wrong("the step that failed is not told");
    if (eventLoop().find(netlinkFd))
        wrong("the tracker started without its socket");
}

void receive(fakes::Reception reception)
{
    netlink().receptions.clear();
    netlink().receptions.push_back(std::move(reception));
    eventLoop().readable(netlinkFd);
}

} // namespace fuzz
