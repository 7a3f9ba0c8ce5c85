/// A plain model of the IP information tracker's tables, by the documented rules, and the lines
/// that its changes leave in the journal.

#pragma once

#include "datagram.h"
#include "fakes/board.h"
#include "fakes/journal.h"

#include <cstdint>
#include <deque>
#include <string>

namespace tracker {

using fakes::Lines;

std::string logged(const std::string &function, const std::string &text);

/// What inet_ntop makes of an address, empty for none.
std::string textOf(uint8_t family, const Bytes &bytes);

std::string loggedAddress(const std::string &action, uint8_t family, const Bytes &address,
                          int prefixlen, const std::string &name, uint32_t ifindex);
std::string publishedAddress(int add, const std::string &name, uint8_t family, const Bytes &address,
                             int prefixlen);

/// An empty destination is that of a default route.
std::string loggedRoute(const std::string &action, uint8_t family, const Bytes &dst, int dst_len,
                        const Bytes &gw, const std::string &name, uint32_t ifindex);
/// An empty destination is passed as null.
std::string publishedRoute(int add, const std::string &name, uint8_t family, const Bytes &dst,
                           const std::string &dstText, int dst_len, const Bytes &gw);

/// The tables as they should be. Names of interfaces, and whether memory is left, are those of the
/// fakes at the time of a change.
class Tables {
public:
    /// Each change appends what the daemon should log and publish.
    explicit Tables(Lines &expected) : expected_(expected) {}

    void insertAddress(uint32_t ifindex, uint8_t family, const Bytes &address, uint8_t length);
    void removeAddress(uint32_t ifindex, uint8_t family, const Bytes &address, uint8_t length);
    /// An empty destination is that of a default route.
    void insertRoute(uint32_t ifindex, uint8_t family, const Bytes &dst, uint8_t length,
                     const Bytes &gw);
    void removeRoute(uint32_t ifindex, uint8_t family, const Bytes &dst, uint8_t length,
                     const Bytes &gw);
    void deleteLink(uint32_t ifindex);
    void clear();

    size_t size() const { return addresses_.size() + routes_.size(); }

    /// Whether the daemon's tables hold these records in their order, soundly linked, and no memory
    /// is taken beside them.
    bool agree() const;

private:
    struct Record {
        uint32_t ifindex;
        std::string ifname;
        uint8_t family;
        Bytes addressOrDst; // 16 bytes
        uint8_t length;
        Bytes gw; // 16 bytes; empty for an address
    };
    using Table = std::deque<Record>; // newest first

    static Table::iterator find(Table &table, const Record &wanted);
    template <typename List>
    static bool agree(const List &list, const Table &table);

    Lines &expected_;
    Table addresses_;
    Table routes_;
};

} // namespace tracker
