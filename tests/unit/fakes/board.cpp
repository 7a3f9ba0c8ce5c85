#include "board.h"

#include "journal.h"
#include "platform.h"

#include <cstdio>
#include <netinet/in.h>
#include <utility>

using fakes::addressDigits;
using fakes::board;
using fakes::note;

namespace {

struct LedWrite {
    uint8_t gpio;
    uint8_t on;
};

std::vector<LedWrite> &ledWrites()
{
    static auto &writes = *new std::vector<LedWrite>; // outlives every other static object
    return writes;
}

} // namespace

fakes::Board &fakes::board()
{
    static auto &instance = *new Board; // outlives every other static object
    return instance;
}

std::vector<std::string> fakes::takePatterns()
{
    static constexpr uint8_t order[] = {6, 7, 8, 2, 3, 4};
    std::vector<std::string> patterns;
    std::string pattern;
    for (const LedWrite &write : std::exchange(ledWrites(), {})) {
        if (write.gpio != order[pattern.size()] || write.on > 1)
            return {"disorder"};
        pattern += write.on ? '1' : '0';
        if (pattern.size() == sizeof order)
            patterns.push_back(std::exchange(pattern, ""));
    }
    if (!pattern.empty())
        return {"disorder"};
    return patterns;
}

std::string fakes::addressDigits(uint8_t family, const void *address)
{
    if (!address)
        return "null";
    std::string digits;
    for (size_t i = 0; i < (family == AF_INET ? 4 : 16); i++) {
        char pair[3];
        snprintf(pair, sizeof pair, "%02x", static_cast<const uint8_t *>(address)[i]);
        digits += pair;
    }
    return digits;
}

int platform_ledSet(uint8_t gpio, uint8_t on)
{
    note("platform_ledSet %d %d", gpio, on);
    if (fakes::journal().recording)
        ledWrites().push_back({gpio, on});
    return 0;
}

int platform_ledInit(uint8_t gpio)
{
    note("platform_ledInit %d", gpio);
    return 0;
}

int platform_getResetButton()
{
    note("platform_getResetButton");
    return board().resetButton;
}

uint8_t platform_isGponUp()
{
    note("platform_isGponUp");
    return board().gponUp;
}

int platform_getLaserRxPowerLevel(float rxPower)
{
    note("platform_getLaserRxPowerLevel");
    if (fakes::journal().recording)
        board().classified.push_back(rxPower);
    return board().level;
}

void platform_ipinfo_ip(uint8_t add, const char *ifname, uint8_t family, const void *addr,
                        const char *addrstr, uint8_t prefixlen)
{
    note("platform_ipinfo_ip %d \"%s\" %d %s \"%s\"/%d", add, ifname, family,
         addressDigits(family, addr).c_str(), addrstr, prefixlen);
}

void platform_ipinfo_route(uint8_t add, const char *ifname, uint8_t family, const void *dst,
                           const char *dststr, uint8_t dst_len, const void *gw, const char *gwstr)
{
    note("platform_ipinfo_route %d \"%s\" %d %s \"%s\"/%d via %s \"%s\"", add, ifname, family,
         addressDigits(family, dst).c_str(), dststr, dst_len, addressDigits(family, gw).c_str(),
         gwstr);
}
