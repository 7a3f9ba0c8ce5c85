/// Whole datagrams, received one after the other: messages that were valid until the mutator broke
/// them. The model has a walk of its own over the bytes and the tables of Tables.
///
/// An input is a row of receptions: four bytes, the length of the datagram, how it is received and
/// which interface gets which name before, and the datagram.

#include "fakes/event_loop.h"
#include "fakes/memory.h"
#include "tracker.h"

#include <algorithm>
#include <cerrno>
#include <random>

using fakes::datagramRoom;
using fakes::netlink;
using fuzz::due;
using fuzz::netlinkFd;
using tracker::Tables;

namespace {

enum How : uint8_t {
    received,
    truncated,
    controlTruncated,
    failed,
    empty,
    noSocket,
    invalidFd,
    memoryExhausted,
    startedAnew,           // no reception: the tracker starts in vain, then with empty tables
    pushedToTheEnd = 0x80, // a message of no interest before it fills the room exactly
};

struct Reception {
    uint16_t length;
    uint8_t how;
    uint8_t rename; // high half: which interface, low half: the name of which it takes over
};

uint8_t byteAt(const Bytes &bytes, size_t offset)
{
    return offset < bytes.size() ? bytes[offset] : uint8_t{0}; // zeros follow a datagram
}

uint32_t numberAt(const Bytes &bytes, size_t offset, size_t width)
{
    uint32_t value = 0;
    for (size_t i = width; i-- > 0;) // as this machine stores them, little-endian
        value = value << 8 | byteAt(bytes, offset + i);
    return value;
}

Bytes addressAt(const Bytes &bytes, size_t offset)
{
    Bytes result(16);
    for (size_t i = 0; i < result.size(); i++)
        result[i] = byteAt(bytes, offset + i);
    return result;
}

/// The offset of the data of the last attribute of a type, 0 for none.
size_t findAttribute(const Bytes &bytes, size_t first, size_t end, uint32_t type)
{
    size_t found = 0;
    for (size_t at = first; at + 4 <= end;) {
        const size_t length = numberAt(bytes, at, 2);
        if (length < 4 || at + length > end)
            break;
        if (numberAt(bytes, at + 2, 2) == type)
            found = at + 4;
        at += (length + 3) / 4 * 4;
    }
    return found;
}

void expectAddress(Tables &tables, const Bytes &bytes, size_t at, size_t end, bool add)
{
    const auto family = static_cast<uint8_t>(numberAt(bytes, at + 16, 1));
    const auto length = static_cast<uint8_t>(numberAt(bytes, at + 17, 1));
    const size_t host = findAttribute(bytes, at + 24, end, IFA_ADDRESS);
    if (numberAt(bytes, at + 19, 1) != RT_SCOPE_UNIVERSE || host == 0)
        return;
    const uint32_t ifindex = numberAt(bytes, at + 20, 4);
    if (add)
        tables.insertAddress(ifindex, family, addressAt(bytes, host), length);
    else
        tables.removeAddress(ifindex, family, addressAt(bytes, host), length);
}

void expectRoute(Tables &tables, const Bytes &bytes, size_t at, size_t end, bool add)
{
    const auto family = static_cast<uint8_t>(numberAt(bytes, at + 16, 1));
    const auto length = static_cast<uint8_t>(numberAt(bytes, at + 17, 1));
    const size_t to = findAttribute(bytes, at + 28, end, RTA_DST);
    const size_t gateway = findAttribute(bytes, at + 28, end, RTA_GATEWAY);
    const size_t oif = findAttribute(bytes, at + 28, end, RTA_OIF);
    if (numberAt(bytes, at + 20, 1) != RT_TABLE_MAIN ||
        numberAt(bytes, at + 23, 1) != RTN_UNICAST || gateway == 0)
        return;
    const uint32_t ifindex = oif != 0 ? numberAt(bytes, oif, 4) : 0;
    const Bytes destination = to != 0 ? addressAt(bytes, to) : Bytes{};
    if (add)
        tables.insertRoute(ifindex, family, destination, length, addressAt(bytes, gateway));
    else
        tables.removeRoute(ifindex, family, destination, length, addressAt(bytes, gateway));
}

void expectDatagram(Tables &tables, const Bytes &bytes)
{
    size_t at = 0;
    while (at + 16 <= bytes.size()) {
        const size_t length = numberAt(bytes, at, 4);
        if (length < 16 || length > bytes.size() - at)
            return;
        const uint32_t type = numberAt(bytes, at + 4, 2);
        if (type == NLMSG_DONE)
            return;
        if (type == NLMSG_ERROR) {
            due("log ipinfo.cpp ipinfo_netlink_recv: Netlink error");
            return;
        }
        if (type == RTM_DELLINK)
            tables.deleteLink(numberAt(bytes, at + 20, 4));
        if (type == RTM_NEWADDR || type == RTM_DELADDR)
            expectAddress(tables, bytes, at, at + length, type == RTM_NEWADDR);
        if (type == RTM_NEWROUTE || type == RTM_DELROUTE)
            expectRoute(tables, bytes, at, at + length, type == RTM_NEWROUTE);
        at += (length + 3) / 4 * 4;
    }
}

/// Receives a datagram, and expects what it should bring about.
void receive(Tables &tables, How how, Bytes datagram)
{
    fakes::Reception reception;
    if (how == truncated)
        reception.flags = MSG_TRUNC;
    if (how == controlTruncated)
        reception.flags = MSG_CTRUNC | MSG_EOR;
    if (how == failed)
        reception.error = ENOBUFS;
    if (how == empty)
        datagram.clear();
    netlink().getsocknameResult = how == noSocket ? -1 : 0;
    fakes::memory().exhausted = how == memoryExhausted;
    if (how == invalidFd) {
        due("log ipinfo.cpp ipinfo_netlink_recv: Invalid netlink fd");
        fakes::eventLoop().find(netlinkFd)->callback(0, EV_READ, nullptr);
        return;
    }
    due("getsockname fd=%d room=0", netlinkFd);
    if (how == noSocket)
        due("log ipinfo.cpp ipinfo_netlink_recv: Failed to get netlink addr");
    else
        due("recvmsg fd=%d flags=0", netlinkFd);
    if (how == failed || (how != noSocket && datagram.empty()))
        due("log ipinfo.cpp ipinfo_netlink_recv: Failed to receive netlink msg (%d)",
            how == failed ? -1 : 0);
    else if (reception.flags != 0)
        due("log ipinfo.cpp ipinfo_netlink_recv: Netlink msg_trunc (%d)", reception.flags);
    else if (how != noSocket)
        expectDatagram(tables, datagram);
    reception.bytes = std::move(datagram);
    fuzz::receive(std::move(reception));
}

Bytes pushed(const Bytes &datagram)
{
    const size_t before = (datagramRoom - std::min(datagram.size(), datagramRoom)) / 4 * 4;
    return before < sizeof(nlmsghdr)
               ? datagram
               : message(RTM_NEWLINK, Bytes(before - sizeof(nlmsghdr), 0x55)) + datagram;
}

// The mutator.

struct Received {
    Reception reception;
    Bytes datagram;
};

std::vector<Received> parse(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    std::vector<Received> rows;
    while (!input.empty()) {
        const auto reception = input.take<Reception>();
        const std::string datagram = input.text(reception.length);
        rows.push_back({reception, {datagram.begin(), datagram.end()}});
    }
    return rows;
}

size_t write(std::vector<Received> &rows, uint8_t *bytes, size_t room)
{
    Bytes all;
    for (Received &row : rows) {
        row.reception.length = static_cast<uint16_t>(row.datagram.size());
        all = std::move(all) + bytesOf(row.reception) + row.datagram;
    }
    all.resize(std::min(all.size(), room));
    std::ranges::copy(all, bytes);
    return all.size();
}

class Mutator {
public:
    explicit Mutator(unsigned seed) : random_(seed) {}

    void mutate(std::vector<Received> &rows)
    {
        if (rows.empty() || oneIn(12))
            rows.insert(rows.begin() + static_cast<std::ptrdiff_t>(upTo(rows.size())), Received{});
        if (rows.size() > 1 && oneIn(20))
            rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(upTo(rows.size() - 1)));
        Received &row = rows[upTo(rows.size() - 1)];
        if (oneIn(20))
            row.reception.how = static_cast<uint8_t>(upTo(startedAnew));
        if (oneIn(20))
            row.reception.how ^= pushedToTheEnd;
        if (oneIn(20))
            row.reception.rename = byte();
        for (size_t steps = upTo(2) + 1; steps > 0; steps--)
            mutate(row.datagram);
    }

private:
    void mutate(Bytes &datagram)
    {
        const std::vector<size_t> starts = messages(datagram);
        const size_t at = starts.empty() ? 0 : starts[upTo(starts.size() - 1)];
        switch (starts.empty() ? 0 : upTo(9)) {
        case 0:
        case 1:
            insert(datagram, at, anyMessage());
            break;
        case 2: // the opposite of what was announced, or the same once more
            opposite(datagram, at);
            break;
        case 3:
            datagram.erase(from(datagram, at), from(datagram, at + messageLength(datagram, at)));
            break;
        case 4:
            store(datagram, at, 4, lengthNear(messageLength(datagram, at)));
            break;
        case 5:
            store(datagram, at + 4, 2, oneIn(4) ? byte() : 15 + upTo(12));
            break;
        case 6: // of an attribute
            if (const size_t attribute = anyAttribute(datagram, at); attribute != 0)
                store(datagram, attribute, 2, lengthNear(4 + upTo(16)));
            break;
        case 7:
            if (const size_t attribute = anyAttribute(datagram, at); attribute != 0)
                store(datagram, attribute + 2, 2, upTo(8));
            break;
        case 8:
            datagram.resize(datagram.size() - std::min(datagram.size(), 1 + upTo(24)));
            break;
        default:
            if (!datagram.empty())
                datagram[upTo(datagram.size() - 1)] = byte();
            break;
        }
    }

    /// A valid message over few interfaces and addresses.
    Bytes anyMessage()
    {
        const size_t kind = upTo(9);
        if (kind < 4)
            return message(
                oneIn(3) ? RTM_DELADDR : RTM_NEWADDR,
                AddressHeader{number(6), family(), number(3), oneIn(6) ? byte() : uint8_t{0}} +
                    attributes({IFA_ADDRESS, IFA_LOCAL, IFA_LABEL}));
        if (kind < 8)
            return message(oneIn(3) ? RTM_DELROUTE : RTM_NEWROUTE,
                           RouteHeader{family(), number(3),
                                       oneIn(8) ? uint8_t{RT_TABLE_LOCAL} : uint8_t{RT_TABLE_MAIN},
                                       oneIn(8) ? number(8) : uint8_t{RTN_UNICAST}} +
                               attributes({RTA_GATEWAY, RTA_DST, RTA_OIF}));
        if (kind == 8)
            return message(RTM_DELLINK, linkHeader(number(6)));
        return message(static_cast<unsigned>(upTo(30)), {});
    }

    Bytes attributes(const std::vector<uint16_t> &types)
    {
        Bytes result;
        for (size_t count = upTo(3) + (oneIn(8) ? 0 : 1); count > 0; count--) {
            const uint16_t type = oneIn(2) ? types[0] : types[upTo(types.size() - 1)];
            Bytes data(type == RTA_OIF || oneIn(3) ? 4 : 16);
            data[type == RTA_OIF || oneIn(2) ? 0 : data.size() - 1] = number(6);
            result = std::move(result) + attribute(type, data);
        }
        return result;
    }

    void opposite(Bytes &datagram, size_t at)
    {
        Bytes copy(from(datagram, at), from(datagram, at + messageLength(datagram, at)));
        if (copy.size() > 5 && oneIn(2)) {
            const uint8_t type = copy[4];
            if (type == RTM_NEWADDR || type == RTM_DELADDR)
                copy[4] = RTM_NEWADDR + RTM_DELADDR - type;
            if (type == RTM_NEWROUTE || type == RTM_DELROUTE)
                copy[4] = static_cast<uint8_t>(RTM_NEWROUTE + RTM_DELROUTE - type);
        }
        insert(datagram, oneIn(2) ? at : datagram.size() / 4 * 4, copy);
    }

    static Bytes::iterator from(Bytes &datagram, size_t at)
    {
        return datagram.begin() + static_cast<std::ptrdiff_t>(at);
    }

    static void insert(Bytes &datagram, size_t at, const Bytes &bytes)
    {
        datagram.insert(from(datagram, at), bytes.begin(), bytes.end());
    }

    /// Where messages begin, as far as their lengths lead.
    static std::vector<size_t> messages(const Bytes &datagram)
    {
        std::vector<size_t> starts;
        for (size_t at = 0; at + 16 <= datagram.size();
             at += (std::max<size_t>(messageLength(datagram, at), 16) + 3) / 4 * 4)
            starts.push_back(at);
        return starts;
    }

    static size_t messageLength(const Bytes &datagram, size_t at)
    {
        return std::min<size_t>(numberAt(datagram, at, 4), datagram.size() - at);
    }

    size_t anyAttribute(const Bytes &datagram, size_t at)
    {
        const size_t header = numberAt(datagram, at + 4, 2) >= RTM_NEWROUTE ? 28 : 24;
        size_t attribute = at + header;
        for (size_t skipped = upTo(3); skipped > 0; skipped--)
            attribute += (size_t{numberAt(datagram, attribute, 2)} + 3) / 4 * 4;
        return attribute + 4 <= datagram.size() ? attribute : 0;
    }

    size_t lengthNear(size_t length)
    {
        const size_t candidates[] = {
            0,          1,          3,          4,          15,         16,         17,
            length - 1, length + 1, length + 4, length - 4, 0x7fffffff, 0xffffffff, 0xfffffffd,
            24,         28,         length + 3, 20,         12,         0x8000,     0xffff};
        return candidates[upTo(std::size(candidates) - 1)];
    }

    static void store(Bytes &datagram, size_t at, size_t width, size_t value)
    {
        for (size_t i = 0; i < width && at + i < datagram.size(); i++)
            datagram[at + i] = static_cast<uint8_t>(value >> (8 * i));
    }

    uint8_t family()
    {
        return oneIn(10) ? byte() : oneIn(3) ? uint8_t{AF_INET} : uint8_t{AF_INET6};
    }

    size_t upTo(size_t last) { return std::uniform_int_distribution<size_t>(0, last)(random_); }
    bool oneIn(size_t count) { return upTo(count - 1) == 0; }
    uint8_t byte() { return static_cast<uint8_t>(upTo(255)); }
    uint8_t number(uint8_t last) { return static_cast<uint8_t>(upTo(last)); }

    std::minstd_rand random_;
};

} // namespace

extern "C" {

size_t LLVMFuzzerMutate(uint8_t *bytes, size_t size, size_t room) __attribute__((weak));

size_t LLVMFuzzerCustomMutator(uint8_t *bytes, size_t size, size_t room, unsigned seed)
{
    if (seed % 8 == 0)
        return LLVMFuzzerMutate(bytes, size, room);
    std::vector<Received> rows = parse(bytes, size);
    Mutator(seed).mutate(rows);
    return write(rows, bytes, room);
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    Tables tables(fuzz::expected());
    fuzz::startTracker();
    for (const auto &[reception, datagram] : parse(bytes, size)) {
        if (reception.how == startedAnew) {
            tables.clear();
            fuzz::startTrackerInVain(1 + reception.rename % 3);
            fuzz::startTracker();
            continue;
        }
        auto &names = netlink().names;
        names[reception.rename >> 4] = names[reception.rename & 15];
        Bytes whole = reception.how & pushedToTheEnd ? pushed(datagram) : datagram;
        whole.resize(std::min(whole.size(), datagramRoom));
        receive(tables, static_cast<How>(reception.how & 0x7f), std::move(whole));
        fuzz::compare();
        if (!tables.agree())
            fuzz::wrong("the tables differ");
    }
    return 0;
}
}
