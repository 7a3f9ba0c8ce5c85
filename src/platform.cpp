#include "platform.h"

#include "kelosyscfg.h"
#include "tcapi.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>

namespace {

constexpr char gpioPath[] = "/proc/tc3162/gpio_output";
constexpr char resetButtonPath[] = "/proc/tc3162/reset_button";
constexpr char statusNode[] = "Kelo_Ipv6Status";
constexpr int gponStateUp = 5;

// The bands are deliberately uneven: 3, 14 and 3 dB.
constexpr float levelThresholds[] = {-8.0F, -11.0F, -25.0F, -28.0F};

/// Takes a result that the daemon deliberately does nothing about.
void ignoreResult(long) {}

bool isWan(const char *ifname)
{
    return strncmp(ifname, "nas0", 4) == 0 || strncmp(ifname, "ppp", 3) == 0;
}

void setText(const char *attribute, const char *value)
{
    ignoreResult(tcapiSet(statusNode, attribute, value));
}

void notifyOmci()
{
    ignoreResult(system("omci set update_ip"));
}

} // namespace

int platform_ledSet(uint8_t gpio, uint8_t on)
{
    FILE *const file = fopen(gpioPath, "w");
    if (!file)
        return 0;
    // The driver takes one write as one command, and glibc writes in pieces where the buffer has
    // less than 128 bytes.
    char buffer[128];
    setvbuf(file, buffer, _IOFBF, sizeof buffer);
    fprintf(file, "active %d %d\n", gpio, on ? 0 : 1); // the LEDs are active-low
    fclose(file);
    return 0;
}

int platform_ledInit(uint8_t gpio)
{
    return platform_ledSet(gpio, 0);
}

int platform_getResetButton()
{
    FILE *const file = fopen(resetButtonPath, "r");
    if (!file)
        return 0;
    char buffer[64]; // a buffer of our own spares stdio an fstat and an allocation
    setvbuf(file, buffer, _IOFBF, sizeof buffer);
    int value;
    if (fscanf(file, "%d", &value) != 1)
        value = 0;
    fclose(file);
    return value;
}

uint8_t platform_isGponUp()
{
    return syscfg_getGponState() == gponStateUp;
}

int platform_getLaserRxPowerLevel(float rxPower)
{
    int level = 4;
    for (const float threshold : levelThresholds) {
        if (rxPower >= threshold)
            break;
        level--;
    }
    return level;
}

void platform_ipinfo_ip(uint8_t add, const char *ifname, uint8_t family, const void * /*addr*/,
                        const char *addrstr, uint8_t prefixlen)
{
    if (family != AF_INET6)
        return;
    const bool lan = strcmp(ifname, "br0") == 0;
    if (!lan && !isWan(ifname))
        return;
    // The last call wins, deliberately: a removal empties the entry though others may stay.
    setText(lan ? "lanAddress" : "wanAddress", add ? addrstr : "");
    ignoreResult(
        tcapiSetUint32(statusNode, lan ? "lanAddressLen" : "wanAddressLen", add ? prefixlen : 0));
    notifyOmci();
}

void platform_ipinfo_route(uint8_t add, const char *ifname, uint8_t family, const void *dst,
                           const char * /*dststr*/, uint8_t /*dst_len*/, const void * /*gw*/,
                           const char *gwstr)
{
    // Only an absent destination makes a default route here. A removal always comes with one, so a
    // removed default route deliberately leaves its gateway published until another replaces it.
    if (family != AF_INET6 || dst || !isWan(ifname))
        return;
    setText("wanGateway", add ? gwstr : "");
    notifyOmci();
}
