/// The kernel as the IP information tracker sees it, and a plain model of the tracker's tables,
/// which notes what each change should log and publish.

#pragma once

#include "fuzz.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzz {

/// What the next calls into the kernel give.
struct Kernel {
    std::array<std::string, 16> names; ///< of interfaces, by the low four bits of the index
    std::string datagram;
    int receiveResult = 0; ///< other than 0: recvmsg gives this and no datagram
    int receiveFlags = 0;
    int getsocknameResult = 0;
    int setupFails = 0; ///< 1: socket fails, 2: setsockopt, 3: bind
    bool memoryExhausted = false;
};

Kernel &kernel();

constexpr size_t datagramRoom = 16400;

using AddressBytes = std::array<uint8_t, 16>;

struct Destination {
    bool present;
    AddressBytes bytes;
};

class Tables {
public:
    void addAddress(uint32_t ifindex, uint8_t family, const AddressBytes &address, uint8_t length);
    void removeAddress(uint32_t ifindex, uint8_t family, const AddressBytes &address,
                       uint8_t length);
    void addRoute(uint32_t ifindex, uint8_t family, const Destination &destination, uint8_t length,
                  const AddressBytes &gateway);
    void removeRoute(uint32_t ifindex, uint8_t family, const Destination &destination,
                     uint8_t length, const AddressBytes &gateway);
    void removeLink(uint32_t ifindex);

    /// Ends the program unless the daemon's tables hold the same, in the same order.
    void compare() const;

private:
    struct Record {
        uint32_t ifindex;
        std::string name;
        uint8_t family;
        AddressBytes address;
        uint8_t length;
        AddressBytes gateway;
    };

    /// Where in the table a record like this is, the newest first; the table's size for none.
    static size_t find(const std::vector<Record> &table, const Record &wanted);

    // The newest last.
    std::vector<Record> addresses_;
    std::vector<Record> routes_;
};

/// Starts the tracker with empty tables and interfaces that have names.
void startTracker();

/// Starts it in vain: one of the three steps of opening its socket fails.
void startTrackerInVain(int step);

/// Lets it receive once. The event calls back with this descriptor in place of its own where it is
/// not -1.
void receive(int fd = -1);

/// Frees the records.
void stopTracker();

} // namespace fuzz
