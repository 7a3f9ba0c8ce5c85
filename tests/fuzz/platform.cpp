/// Board access: the proc files whatever they hold, every power level, and the publication of any
/// address and route.

#include "platform.h"

#include "fuzz.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sys/socket.h>

using fuzz::did;
using fuzz::due;

namespace {

bool openFails;
bool writeFails;
std::string buttonFile;
size_t buttonRead;
int gponState;

ssize_t read(void *, char *buffer, size_t size)
{
    const size_t length = buttonFile.copy(buffer, size, buttonRead);
    buttonRead += length;
    return static_cast<ssize_t>(length);
}

ssize_t write(void *, const char *bytes, size_t size)
{
    did("write %s", std::string(bytes, size).c_str());
    return writeFails ? 0 : static_cast<ssize_t>(size);
}

int close(void *)
{
    did("close");
    return writeFails ? EOF : 0;
}

/// The number that a text begins with, as strtol(3) reads it; 0 for none.
int numberIn(const std::string &text)
{
    return static_cast<int>(strtol(text.c_str(), nullptr, 10));
}

void checkLed(fuzz::Input &input)
{
    const uint8_t gpio = input.byte();
    const uint8_t on = input.byte();
    openFails = input.flag();
    writeFails = input.flag();
    due("fopen /proc/tc3162/gpio_output w");
    if (!openFails) {
        due("write active %d %d\n", gpio, on ? 0 : 1);
        due("close");
    }
    if (platform_ledSet(gpio, on) != 0)
        fuzz::wrong("platform_ledSet does not give 0");
    fuzz::compare();
    due("fopen /proc/tc3162/gpio_output w");
    if (!openFails) {
        due("write active %d 1\n", gpio);
        due("close");
    }
    if (platform_ledInit(gpio) != 0)
        fuzz::wrong("platform_ledInit does not give 0");
}

void checkButton(fuzz::Input &input)
{
    openFails = input.byte() == 255;
    buttonFile = input.text(input.byte());
    buttonRead = 0;
    due("fopen /proc/tc3162/reset_button r");
    if (!openFails)
        due("close");
    if (platform_getResetButton() != (openFails ? 0 : numberIn(buttonFile)))
        fuzz::wrong("the button has another value");
}

void checkLevels(fuzz::Input &input)
{
    gponState = input.take<int8_t>();
    due("gpon");
    if (platform_isGponUp() != (gponState == 5 ? 1 : 0))
        fuzz::wrong("the link is up in state 5, and only there");
    const bool whole = input.flag();
    const float power = whole ? static_cast<float>(input.take<int8_t>()) / 4 : input.take<float>();
    const double limits[] = {-28, -25, -11, -8};
    int level = 0;
    for (const double limit : limits)
        level += static_cast<double>(power) >= limit ? 1 : 0;
    if (platform_getLaserRxPowerLevel(power) != level)
        fuzz::wrong("the power has another level");
}

std::string anyInterface(fuzz::Input &input)
{
    constexpr const char *known[] = {"br0", "nas0", "nas0_0", "ppp0", "ppp", "eth0", "nas", "br00"};
    const uint8_t which = input.byte();
    if (which < 128)
        return known[which % 8];
    return input.text(which % 16).c_str(); // up to its first NUL
}

bool startsWith(const std::string &text, const char *prefix)
{
    return text.rfind(prefix, 0) == 0;
}

void checkHooks(fuzz::Input &input)
{
    const uint8_t add = input.byte();
    const uint8_t chosen = input.byte();
    const uint8_t family = chosen % 4 == 0 ? AF_INET : chosen % 4 == 1 ? chosen : AF_INET6;
    const uint8_t length = input.byte();
    const std::string interface = anyInterface(input);
    const std::string text = input.text(46).c_str();
    const bool wan = startsWith(interface, "nas0") || startsWith(interface, "ppp");
    const char address[16] = {};
    if (family == AF_INET6 && (wan || interface == "br0")) {
        const char *const side = interface == "br0" ? "lan" : "wan";
        due("set Kelo_Ipv6Status %sAddress \"%s\"", side, add ? text.c_str() : "");
        due("set Kelo_Ipv6Status %sAddressLen %u", side, add ? length : 0U);
        due("system omci set update_ip");
    }
    platform_ipinfo_ip(add, interface.c_str(), family, address, text.c_str(), length);
    fuzz::compare();
    const bool isDefault = input.flag();
    if (family == AF_INET6 && wan && isDefault) {
        due("set Kelo_Ipv6Status wanGateway \"%s\"", add ? text.c_str() : "");
        due("system omci set update_ip");
    }
    platform_ipinfo_route(add, interface.c_str(), family, isDefault ? nullptr : address,
                          "::", length, address, text.c_str());
}

} // namespace

extern "C" {

FILE *fuzz_fopen(const char *path, const char *mode)
{
    did("fopen %s %s", path, mode);
    return openFails ? nullptr : fopencookie(nullptr, mode, {read, write, nullptr, close});
}

int fuzz_system(const char *command)
{
    did("system %s", command);
    return -1; // nobody looks at it
}

int syscfg_getGponState()
{
    did("gpon");
    return gponState;
}

int tcapiSet(const char *node, const char *attribute, const char *value)
{
    did("set %s %s \"%s\"", node, attribute, value);
    return -1; // nobody looks at it
}

int tcapiSetUint32(const char *node, const char *attribute, unsigned value)
{
    did("set %s %s %u", node, attribute, value);
    return -1; // nobody looks at it
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    while (!input.empty()) {
        switch (input.byte() % 4) {
        case 0:
            checkLed(input);
            break;
        case 1:
            checkButton(input);
            break;
        case 2:
            checkLevels(input);
            break;
        default:
            checkHooks(input);
            break;
        }
        fuzz::compare();
    }
    return 0;
}
}
