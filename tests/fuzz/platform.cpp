/// Board access: the proc files whatever they hold, every power level, and the publication of any
/// address and route.

#include "platform.h"

#include "fakes/files.h"
#include "fakes/vendor.h"
#include "fuzz.h"

#include <cerrno>
#include <cstdlib>
#include <sys/socket.h>

using fakes::files;
using fuzz::due;

namespace {

constexpr char gpioPath[] = "/proc/tc3162/gpio_output";
constexpr char buttonPath[] = "/proc/tc3162/reset_button";

/// The number that a text begins with, as strtol(3) reads it; 0 for none.
int numberIn(const std::string &text)
{
    return static_cast<int>(strtol(text.c_str(), nullptr, 10));
}

void checkLed(fuzz::Input &input)
{
    const uint8_t gpio = input.byte();
    const uint8_t on = input.byte();
    const bool openFails = input.flag();
    files().openErrors[gpioPath] = openFails ? EACCES : 0;
    files().writesFail = files().closeFails = input.flag();
    const auto expect = [&](int level) {
        due("fopen %s w", gpioPath);
        if (openFails)
            return;
        due("write %s: active %d %d\n", gpioPath, gpio, level);
        due("close %s", gpioPath);
    };
    expect(on ? 0 : 1);
    if (platform_ledSet(gpio, on) != 0)
        fuzz::wrong("platform_ledSet does not give 0");
    fuzz::compare();
    expect(1);
    if (platform_ledInit(gpio) != 0)
        fuzz::wrong("platform_ledInit does not give 0");
}

void checkButton(fuzz::Input &input)
{
    const bool openFails = input.byte() == 255;
    files().openErrors[buttonPath] = openFails ? EACCES : 0;
    files().content[buttonPath] = input.text(input.byte());
    due("fopen %s r", buttonPath);
    if (!openFails)
        due("close %s", buttonPath);
    if (platform_getResetButton() != (openFails ? 0 : numberIn(files().content[buttonPath])))
        fuzz::wrong("the button has another value");
}

void checkLevels(fuzz::Input &input)
{
    const int state = fakes::vendor().gponState = input.small();
    due("syscfg_getGponState");
    if (platform_isGponUp() != (state == 5 ? 1 : 0))
        fuzz::wrong("the link is up in state 5, and only there");
    const bool whole = input.flag();
    const float power = whole ? static_cast<float>(input.small()) / 4 : input.take<float>();
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
    return fuzz::upToNul(input.text(which % 16));
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
    const std::string text = fuzz::upToNul(input.text(46));
    const bool wan = startsWith(interface, "nas0") || startsWith(interface, "ppp");
    const char address[16] = {};
    if (family == AF_INET6 && (wan || interface == "br0")) {
        const char *const side = interface == "br0" ? "lan" : "wan";
        due("tcapiSet Kelo_Ipv6Status %sAddress \"%s\"", side, add ? text.c_str() : "");
        due("tcapiSetUint32 Kelo_Ipv6Status %sAddressLen %u", side, add ? length : 0U);
        due("system omci set update_ip");
    }
    platform_ipinfo_ip(add, interface.c_str(), family, address, text.c_str(), length);
    fuzz::compare();
    const bool isDefault = input.flag();
    if (family == AF_INET6 && wan && isDefault) {
        due("tcapiSet Kelo_Ipv6Status wanGateway \"%s\"", add ? text.c_str() : "");
        due("system omci set update_ip");
    }
    platform_ipinfo_route(add, interface.c_str(), family, isDefault ? nullptr : address,
                          "::", length, address, text.c_str());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    fuzz::restart();
    fakes::vendor().storeResult = -1; // nobody looks at it
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