/// The kernel's side of a route netlink socket: datagrams that a test makes, the results of every
/// call on the socket, and the names of interfaces.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace fakes {

/// What one recvmsg(2) gives: the bytes, or a failure.
struct Reception {
    std::vector<unsigned char> bytes;
    int flags = 0;                          ///< msg_flags
    int error = 0;                          ///< nonzero: it fails with this errno
    std::vector<unsigned char> behind = {}; ///< what it stores behind the bytes that it tells of
};

struct Netlink {
    int socketResult = 7;
    int setsockoptResult = 0;
    int bindResult = 0;
    int getsocknameResult = 0;
    std::deque<Reception> receptions; ///< none left: EAGAIN
    std::map<uint32_t, std::string> names;
};

Netlink &netlink();

/// The room that recvmsg(2) is given for a datagram.
constexpr size_t datagramRoom = 16400;

} // namespace fakes
