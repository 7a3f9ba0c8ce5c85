/// Long sequences of well-formed messages over a few interfaces, addresses and gateways, so that
/// announcements meet the records that earlier ones made; links go, come anew and are renamed, and
/// memory runs out.

#include "tracker.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

using fuzz::AddressBytes;
using fuzz::kernel;

namespace {

template <typename T>
std::string bytesOf(const T &value)
{
    std::string bytes(sizeof value, '\0');
    memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

std::string attribute(uint16_t type, const std::string &data)
{
    const rtattr header = {static_cast<uint16_t>(sizeof header + data.size()), type};
    return bytesOf(header) + data;
}

std::string message(uint16_t type, const std::string &payload)
{
    nlmsghdr header = {};
    header.nlmsg_len = static_cast<uint32_t>(sizeof header + payload.size());
    header.nlmsg_type = type;
    return bytesOf(header) + payload;
}

/// One of a few addresses; two of them differ only past the first 4 bytes.
AddressBytes address(unsigned which)
{
    AddressBytes result = {};
    result[which & 1 ? 0 : 15] = static_cast<uint8_t>(which & 2 ? 0x20 : 0);
    result[3] = static_cast<uint8_t>(which & 4);
    return result;
}

std::string textOf(const AddressBytes &bytes)
{
    return {bytes.begin(), bytes.end()};
}

uint8_t family(unsigned which)
{
    constexpr uint8_t families[] = {AF_INET6, AF_INET, AF_INET6, AF_UNSPEC};
    return families[which % 4];
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    fuzz::Tables tables;
    fuzz::startTracker();
    std::string datagram;
    while (!input.empty()) {
        const uint8_t operation = input.byte();
        const uint8_t what = input.byte();
        const uint32_t ifindex = what % 8;
        const auto length = static_cast<uint8_t>(what >> 6);
        const bool add = (operation & 8) == 0;
        kernel().memoryExhausted = operation >> 4 == 15;
        switch (operation & 7) {
        case 0:
        case 1:
        case 2: {
            const uint8_t from = input.byte();
            const AddressBytes host = address(from);
            const uint8_t kind = family(what >> 4);
            datagram += message(add ? RTM_NEWADDR : RTM_DELADDR,
                                bytesOf(ifaddrmsg{kind, length, 0, RT_SCOPE_UNIVERSE, ifindex}) +
                                    attribute(IFA_ADDRESS, textOf(host)));
            if (add)
                tables.addAddress(ifindex, kind, host, length);
            else
                tables.removeAddress(ifindex, kind, host, length);
            break;
        }
        case 3:
        case 4:
        case 5: {
            const uint8_t from = input.byte();
            const fuzz::Destination to = {(from & 64) != 0, address(from)};
            const AddressBytes gateway = address(from >> 3);
            const uint8_t kind = family(what >> 4);
            datagram += message(add ? RTM_NEWROUTE : RTM_DELROUTE,
                                bytesOf(rtmsg{kind, length, 0, 0, RT_TABLE_MAIN, RTPROT_KERNEL,
                                              RT_SCOPE_UNIVERSE, RTN_UNICAST, 0}) +
                                    (to.present ? attribute(RTA_DST, textOf(to.bytes)) : "") +
                                    attribute(RTA_GATEWAY, textOf(gateway)) +
                                    attribute(RTA_OIF, bytesOf(ifindex)));
            if (add)
                tables.addRoute(ifindex, kind, to, length, gateway);
            else
                tables.removeRoute(ifindex, kind, to, length, gateway);
            break;
        }
        case 6: {
            ifinfomsg link = {};
            link.ifi_index = static_cast<int>(ifindex);
            datagram += message(RTM_DELLINK, bytesOf(link));
            tables.removeLink(ifindex);
            break;
        }
        default:
            kernel().names[ifindex] = kernel().names[what >> 4];
            break;
        }
        kernel().datagram = datagram;
        if (!datagram.empty())
            fuzz::receive();
        datagram.clear();
        fuzz::compare();
    }
    tables.compare();
    fuzz::stopTracker();
    return 0;
}
