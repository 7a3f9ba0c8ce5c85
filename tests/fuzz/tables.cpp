/// Long sequences of well-formed messages over a few interfaces, addresses and gateways, so that
/// announcements meet the records that earlier ones made; links go, come anew and are renamed, and
/// memory runs out.

#include "fakes/memory.h"
#include "tracker.h"

using fuzz::due;

namespace {

/// One of a few addresses; two of them differ only past the first 4 bytes.
Bytes hostOf(unsigned which)
{
    Bytes result(16);
    result[which & 1 ? 0 : 15] = static_cast<uint8_t>(which & 2 ? 0x20 : 0);
    result[3] = static_cast<uint8_t>(which & 4);
    return result;
}

uint8_t familyOf(unsigned which)
{
    constexpr uint8_t families[] = {AF_INET6, AF_INET, AF_INET6, AF_UNSPEC};
    return families[which % 4];
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    tracker::Tables tables(fuzz::expected());
    fuzz::startTracker();
    auto &names = fakes::netlink().names;
    while (!input.empty()) {
        const uint8_t operation = input.byte();
        const uint8_t what = input.byte();
        const uint32_t ifindex = what % 8;
        const auto length = static_cast<uint8_t>(what >> 6);
        const bool add = (operation & 8) == 0;
        const uint8_t family = familyOf(what >> 4);
        Bytes datagram;
        fakes::memory().exhausted = operation >> 4 == 15;
        if ((operation & 7) != 7) {
            due("getsockname fd=%d room=0", fuzz::netlinkFd);
            due("recvmsg fd=%d flags=0", fuzz::netlinkFd);
        }
        switch (operation & 7) {
        case 0:
        case 1:
        case 2: {
            const Bytes host = hostOf(input.byte());
            datagram =
                message(add ? RTM_NEWADDR : RTM_DELADDR,
                        AddressHeader{ifindex, family, length} + attribute(IFA_ADDRESS, host));
            if (add)
                tables.insertAddress(ifindex, family, host, length);
            else
                tables.removeAddress(ifindex, family, host, length);
            break;
        }
        case 3:
        case 4:
        case 5: {
            const uint8_t from = input.byte();
            const Bytes to = from & 64 ? hostOf(from) : Bytes{};
            const Bytes gateway = hostOf(from >> 3);
            datagram =
                message(add ? RTM_NEWROUTE : RTM_DELROUTE,
                        RouteHeader{family, length} + (to.empty() ? to : attribute(RTA_DST, to)) +
                            attribute(RTA_GATEWAY, gateway) + attribute(RTA_OIF, ifindex));
            if (add)
                tables.insertRoute(ifindex, family, to, length, gateway);
            else
                tables.removeRoute(ifindex, family, to, length, gateway);
            break;
        }
        case 6:
            datagram = message(RTM_DELLINK, linkHeader(static_cast<int>(ifindex)));
            tables.deleteLink(ifindex);
            break;
        default:
            names[ifindex] = names[what >> 4];
            continue;
        }
        fuzz::receive({datagram});
        fuzz::compare();
        if (!tables.agree())
            fuzz::wrong("the tables differ");
    }
    return 0;
}
