/// The provider at the far end of a board's links: this machine's radvd(8) and dnsmasq(8), and its
/// dhcpcd(8) on the terminal's side. They end with the board.

#pragma once

#include "access.h"

namespace kelo {

struct Provider {
    std::string link = "nas0_0"; ///< nas0_0, ppp0 or lan1
    std::vector<std::string> prefixes{"2001:db8:1::/64"};
    int preferred = 60;  ///< seconds that an address is preferred without an advertisement
    int valid = 120;     ///< seconds that it stays
    int router = 60;     ///< seconds that the default route stays
    bool leases = false; ///< by DHCPv6, of the first prefix, and by DHCPv4
};

/// Starts it, or starts it anew, and makes its link again where that is gone. Throws
/// std::runtime_error, as the others do, with what a program says or which package is missing.
void startProvider(const Access &board, const Provider &provider);

/// Has the provider on a link do something else; `words` are those of the script `provider`.
/// Returns what that prints.
std::string tellProvider(const Access &board, const std::string &link, const Words &words);

} // namespace kelo
