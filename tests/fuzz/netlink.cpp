/// Whole datagrams, received one after the other: messages that were valid until the mutator broke
/// them. The model has a walk of its own over the bytes and the tables of Tables.
///
/// An input is a row of receptions: four bytes, the length of the datagram, how it is received and
/// which interface gets which name before, and the datagram.

#include "tracker.h"

#include <algorithm>
#include <linux/rtnetlink.h>
#include <random>
#include <sys/socket.h>

using fuzz::AddressBytes;
using fuzz::datagramRoom;
using fuzz::due;
using fuzz::kernel;

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

/// The bytes of a datagram by offset; zeros follow it.
class Bytes {
public:
    explicit Bytes(const std::string &datagram) : bytes_(datagram) {}

    uint32_t number(size_t offset, size_t width) const
    {
        uint32_t value = 0;
        for (size_t i = width; i-- > 0;) // as this machine stores them, little-endian
            value = value << 8 | at(offset + i);
        return value;
    }

    AddressBytes address(size_t offset) const
    {
        AddressBytes result;
        for (size_t i = 0; i < result.size(); i++)
            result[i] = at(offset + i);
        return result;
    }

private:
    uint8_t at(size_t offset) const
    {
        return offset < bytes_.size() ? static_cast<uint8_t>(bytes_[offset]) : uint8_t{0};
    }

    const std::string &bytes_;
};

/// The offset of the data of the last attribute of a type, 0 for none.
size_t findAttribute(const Bytes &bytes, size_t first, size_t end, uint32_t type)
{
    size_t found = 0;
    for (size_t at = first; at + 4 <= end;) {
        const uint32_t length = bytes.number(at, 2);
        if (length < 4 || at + length > end)
            break;
        if (bytes.number(at + 2, 2) == type)
            found = at + 4;
        at += (length + 3) / 4 * 4;
    }
    return found;
}

void expectAddress(fuzz::Tables &tables, const Bytes &bytes, size_t at, size_t end, bool add)
{
    const auto family = static_cast<uint8_t>(bytes.number(at + 16, 1));
    const auto length = static_cast<uint8_t>(bytes.number(at + 17, 1));
    const size_t host = findAttribute(bytes, at + 24, end, IFA_ADDRESS);
    if (bytes.number(at + 19, 1) != RT_SCOPE_UNIVERSE || host == 0)
        return;
    const uint32_t ifindex = bytes.number(at + 20, 4);
    if (add)
        tables.addAddress(ifindex, family, bytes.address(host), length);
    else
        tables.removeAddress(ifindex, family, bytes.address(host), length);
}

void expectRoute(fuzz::Tables &tables, const Bytes &bytes, size_t at, size_t end, bool add)
{
    const auto family = static_cast<uint8_t>(bytes.number(at + 16, 1));
    const auto length = static_cast<uint8_t>(bytes.number(at + 17, 1));
    const size_t to = findAttribute(bytes, at + 28, end, RTA_DST);
    const size_t gateway = findAttribute(bytes, at + 28, end, RTA_GATEWAY);
    const size_t oif = findAttribute(bytes, at + 28, end, RTA_OIF);
    if (bytes.number(at + 20, 1) != RT_TABLE_MAIN || bytes.number(at + 23, 1) != RTN_UNICAST ||
        gateway == 0)
        return;
    const uint32_t ifindex = oif != 0 ? bytes.number(oif, 4) : 0;
    const fuzz::Destination destination = {to != 0, bytes.address(to)};
    if (add)
        tables.addRoute(ifindex, family, destination, length, bytes.address(gateway));
    else
        tables.removeRoute(ifindex, family, destination, length, bytes.address(gateway));
}

void expectDatagram(fuzz::Tables &tables, const std::string &datagram)
{
    const Bytes bytes(datagram);
    size_t at = 0;
    while (at + 16 <= datagram.size()) {
        const size_t length = bytes.number(at, 4);
        if (length < 16 || length > datagram.size() - at)
            return;
        const uint32_t type = bytes.number(at + 4, 2);
        if (type == NLMSG_DONE)
            return;
        if (type == NLMSG_ERROR) {
            due("log ipinfo_netlink_recv: Netlink error");
            return;
        }
        if (type == RTM_DELLINK)
            tables.removeLink(bytes.number(at + 20, 4));
        if (type == RTM_NEWADDR || type == RTM_DELADDR)
            expectAddress(tables, bytes, at, at + length, type == RTM_NEWADDR);
        if (type == RTM_NEWROUTE || type == RTM_DELROUTE)
            expectRoute(tables, bytes, at, at + length, type == RTM_NEWROUTE);
        at += (length + 3) / 4 * 4;
    }
}

/// Sets up how the kernel behaves; returns the descriptor of the callback.
int prepare(const Reception &reception)
{
    kernel().receiveResult = 0;
    kernel().receiveFlags = 0;
    kernel().getsocknameResult = 0;
    kernel().memoryExhausted = false;
    switch (reception.how & 0x7f) {
    case truncated:
        kernel().receiveFlags = MSG_TRUNC;
        break;
    case controlTruncated:
        kernel().receiveFlags = MSG_CTRUNC | MSG_EOR;
        break;
    case failed:
        kernel().receiveResult = -1;
        break;
    case empty:
        kernel().datagram.clear();
        break;
    case noSocket:
        kernel().getsocknameResult = -1;
        break;
    case invalidFd:
        return 0;
    case memoryExhausted:
        kernel().memoryExhausted = true;
        break;
    default:
        break;
    }
    return -1;
}

void expectReception(fuzz::Tables &tables, int fd)
{
    if (fd == 0)
        due("log ipinfo_netlink_recv: Invalid netlink fd");
    else if (kernel().getsocknameResult != 0)
        due("log ipinfo_netlink_recv: Failed to get netlink addr");
    else if (kernel().receiveResult != 0 || kernel().datagram.empty())
        due("log ipinfo_netlink_recv: Failed to receive netlink msg (%d)", kernel().receiveResult);
    else if (kernel().receiveFlags != 0)
        due("log ipinfo_netlink_recv: Netlink msg_trunc (%d)", kernel().receiveFlags);
    else
        expectDatagram(tables, kernel().datagram);
}

template <typename T>
std::string bytesOf(const T &value)
{
    std::string bytes(sizeof value, '\0');
    memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

std::string fillerMessage(size_t length)
{
    nlmsghdr header = {};
    header.nlmsg_len = static_cast<uint32_t>(length);
    header.nlmsg_type = RTM_NEWLINK;
    return bytesOf(header) + std::string(length - sizeof header, '\x55');
}

std::string pushed(const std::string &datagram)
{
    const size_t before = (datagramRoom - std::min(datagram.size(), datagramRoom)) / 4 * 4;
    return before < sizeof(nlmsghdr) ? datagram : fillerMessage(before) + datagram;
}

// The mutator.

struct Received {
    Reception reception;
    std::string datagram;
};

std::vector<Received> parse(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    std::vector<Received> rows;
    while (!input.empty()) {
        const auto reception = input.take<Reception>();
        rows.push_back({reception, input.text(reception.length)});
    }
    return rows;
}

size_t write(std::vector<Received> &rows, uint8_t *bytes, size_t room)
{
    std::string all;
    for (Received &row : rows) {
        row.reception.length = static_cast<uint16_t>(row.datagram.size());
        all += bytesOf(row.reception) + row.datagram;
    }
    return all.copy(reinterpret_cast<char *>(bytes), room);
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
    void mutate(std::string &datagram)
    {
        const std::vector<size_t> starts = messages(datagram);
        const size_t at = starts.empty() ? 0 : starts[upTo(starts.size() - 1)];
        switch (starts.empty() ? 0 : upTo(9)) {
        case 0:
        case 1:
            datagram.insert(at, message());
            break;
        case 2: // the opposite of what was announced, or the same once more
            opposite(datagram, at);
            break;
        case 3:
            datagram.erase(at, messageLength(datagram, at));
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
                datagram[upTo(datagram.size() - 1)] = static_cast<char>(byte());
            break;
        }
    }

    /// A valid message over few interfaces and addresses.
    std::string message()
    {
        const size_t kind = upTo(9);
        std::string payload;
        uint16_t type = static_cast<uint16_t>(upTo(30));
        if (kind < 4) {
            type = oneIn(3) ? RTM_DELADDR : RTM_NEWADDR;
            payload = bytesOf(
                ifaddrmsg{family(), number(3), 0, oneIn(6) ? byte() : uint8_t{0}, number(6)});
            payload += attributes({IFA_ADDRESS, IFA_LOCAL, IFA_LABEL});
        } else if (kind < 8) {
            type = oneIn(3) ? RTM_DELROUTE : RTM_NEWROUTE;
            const uint8_t table = oneIn(8) ? uint8_t{RT_TABLE_LOCAL} : uint8_t{RT_TABLE_MAIN};
            const uint8_t unicast = oneIn(8) ? number(8) : uint8_t{RTN_UNICAST};
            payload =
                bytesOf(rtmsg{family(), number(3), 0, 0, table, RTPROT_KERNEL, 0, unicast, 0});
            payload += attributes({RTA_GATEWAY, RTA_DST, RTA_OIF});
        } else if (kind == 8) {
            type = RTM_DELLINK;
            ifinfomsg link = {};
            link.ifi_index = number(6);
            payload = bytesOf(link);
        }
        nlmsghdr header = {};
        header.nlmsg_len = static_cast<uint32_t>(sizeof header + payload.size());
        header.nlmsg_type = type;
        return bytesOf(header) + payload;
    }

    std::string attributes(const std::vector<uint16_t> &types)
    {
        std::string result;
        for (size_t count = upTo(3) + (oneIn(8) ? 0 : 1); count > 0; count--) {
            const uint16_t type = oneIn(2) ? types[0] : types[upTo(types.size() - 1)];
            std::string data(type == RTA_OIF ? 4 : oneIn(3) ? 4 : 16, '\0');
            data[type == RTA_OIF || oneIn(2) ? 0 : data.size() - 1] = static_cast<char>(number(6));
            const rtattr header = {static_cast<uint16_t>(sizeof header + data.size()), type};
            result += bytesOf(header) + data;
        }
        return result;
    }

    void opposite(std::string &datagram, size_t at)
    {
        std::string copy = datagram.substr(at, messageLength(datagram, at));
        if (copy.size() > 5 && oneIn(2)) {
            const auto type = static_cast<uint8_t>(copy[4]);
            if (type == RTM_NEWADDR || type == RTM_DELADDR)
                copy[4] = static_cast<char>(RTM_NEWADDR + RTM_DELADDR - type);
            if (type == RTM_NEWROUTE || type == RTM_DELROUTE)
                copy[4] = static_cast<char>(RTM_NEWROUTE + RTM_DELROUTE - type);
        }
        datagram.insert(oneIn(2) ? at : datagram.size() / 4 * 4, copy);
    }

    /// Where messages begin, as far as their lengths lead.
    static std::vector<size_t> messages(const std::string &datagram)
    {
        std::vector<size_t> starts;
        for (size_t at = 0; at + 16 <= datagram.size();
             at += (std::max<size_t>(messageLength(datagram, at), 16) + 3) / 4 * 4)
            starts.push_back(at);
        return starts;
    }

    static size_t messageLength(const std::string &datagram, size_t at)
    {
        return std::min<size_t>(Bytes(datagram).number(at, 4), datagram.size() - at);
    }

    size_t anyAttribute(const std::string &datagram, size_t at)
    {
        const size_t header = Bytes(datagram).number(at + 4, 2) >= RTM_NEWROUTE ? 28 : 24;
        size_t attribute = at + header;
        for (size_t skipped = upTo(3); skipped > 0; skipped--)
            attribute += (Bytes(datagram).number(attribute, 2) + 3) / 4 * 4;
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

    static void store(std::string &datagram, size_t at, size_t width, size_t value)
    {
        for (size_t i = 0; i < width && at + i < datagram.size(); i++)
            datagram[at + i] = static_cast<char>(value >> (8 * i));
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
    fuzz::Tables tables;
    fuzz::startTracker();
    for (const Received &row : parse(bytes, size)) {
        const Reception &reception = row.reception;
        if (reception.how == startedAnew) {
            fuzz::stopTracker();
            tables = {};
            fuzz::startTrackerInVain(1 + reception.rename % 3);
            fuzz::startTracker();
            continue;
        }
        kernel().names[reception.rename >> 4] = kernel().names[reception.rename & 15];
        kernel().datagram = reception.how & pushedToTheEnd ? pushed(row.datagram) : row.datagram;
        kernel().datagram.resize(std::min(kernel().datagram.size(), datagramRoom));
        const int fd = prepare(reception);
        expectReception(tables, fd);
        fuzz::receive(fd);
        fuzz::compare();
        tables.compare();
    }
    fuzz::stopTracker();
    return 0;
}
}
