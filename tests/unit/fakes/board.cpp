#include "board.h"

#include "journal.h"
#include "memory.h"
#include "platform.h"

#include <netinet/in.h>
#include <utility>

using fakes::addressDigits;
using fakes::board;
using fakes::memory;
using fakes::misuse;
using fakes::note;

namespace {

constexpr uint8_t order[] = {6, 7, 8, 2, 3, 4};

std::string begun; // the flags of a pattern that is not whole yet

std::vector<std::string> &patterns()
{
    static auto &drawn = *new std::vector<std::string>; // outlives every other static object
    return drawn;
}

} // namespace

fakes::Board &fakes::board()
{
    static auto &instance = *new Board; // outlives every other static object
    return instance;
}

std::vector<std::string> fakes::takePatterns()
{
    if (!begun.empty())
        misuse("a pattern that ends halfway");
    return std::exchange(patterns(), {});
}

std::string fakes::addressDigits(uint8_t family, const void *address)
{
    if (!address)
        return "null";
    std::string digits;
    digits.reserve(32);
    for (size_t i = 0; i < (family == AF_INET ? 4 : 16); i++) {
        constexpr char hexadecimal[] = "0123456789abcdef";
        const uint8_t byte = static_cast<const uint8_t *>(address)[i];
        digits += hexadecimal[byte >> 4];
        digits += hexadecimal[byte & 15];
    }
    return digits;
}

int platform_ledSet(uint8_t gpio, uint8_t on)
{
    if (gpio != order[begun.size()] || on > 1)
        misuse("the LEDs are written in another order");
    begun += on ? '1' : '0';
    if (begun.size() == sizeof order) {
        note("leds %s", begun.c_str());
        patterns().push_back(std::exchange(begun, ""));
    }
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
    board().classified.push_back(rxPower);
    return board().level;
}

void platform_ipinfo_ip(uint8_t add, const char *ifname, uint8_t family, const void *addr,
                        const char *addrstr, uint8_t prefixlen)
{
    if (!add && !memory().holds(addr))
        misuse("a removal comes with the address of the record");
    note("platform_ipinfo_ip %d \"%s\" %d %s \"%s\"/%d", add, ifname, family,
         addressDigits(family, addr).c_str(), addrstr, prefixlen);
}

void platform_ipinfo_route(uint8_t add, const char *ifname, uint8_t family, const void *dst,
                           const char *dststr, uint8_t dst_len, const void *gw, const char *gwstr)
{
    if (!add && (!memory().holds(dst) || !memory().holds(gw)))
        misuse("a removal comes with the destination and the gateway of the record");
    note("platform_ipinfo_route %d \"%s\" %d %s \"%s\"/%d via %s \"%s\"", add, ifname, family,
         addressDigits(family, dst).c_str(), dststr, dst_len, addressDigits(family, gw).c_str(),
         gwstr);
}
